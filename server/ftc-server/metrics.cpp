#include "metrics.h"

#include <ctime>
#include <map>
#include <vector>

#include "service/daemon.h"
#include "store/store.h"
#include "store/text.h"
#include "views.h"

namespace ftcserver {
namespace {

constexpr const char* kKindNames[kRequestKinds] = {"file",    "report", "messages", "inventory",
                                                   "checkin", "job",    "result",   "other"};
constexpr auto kRelaxed = std::memory_order_relaxed;

std::string Bound(double b) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", b);
  return text;
}

}  // namespace

void Metrics::Request(RequestKind kind, uint64_t bodyBytes) {
  PerKind& k = m_kinds[static_cast<size_t>(kind)];
  k.requests.fetch_add(1, kRelaxed);
  k.bodyBytes.fetch_add(bodyBytes, kRelaxed);
}

void Metrics::Response(RequestKind kind, uint64_t bytes, double seconds) {
  PerKind& k = m_kinds[static_cast<size_t>(kind)];
  k.responses.fetch_add(1, kRelaxed);
  k.responseBytes.fetch_add(bytes, kRelaxed);
  k.microseconds.fetch_add(static_cast<uint64_t>(seconds * 1e6), kRelaxed);
  for (size_t i = 0; i < kBuckets.size(); ++i)
    if (seconds <= kBuckets[i]) k.buckets[i].fetch_add(1, kRelaxed);
}

std::string Metrics::Render(ftcstore::Store* store, unsigned long long staleMinutes) const {
  ftcservice::MetricsText t;
  auto perKind = [&](const char* name, const char* help, const std::atomic<uint64_t> PerKind::*f) {
    t.Family(name, "counter", help);
    for (size_t i = 0; i < kRequestKinds; ++i)
      t.Sample(name, {{"kind", kKindNames[i]}}, static_cast<double>((m_kinds[i].*f).load()));
  };
  perKind("ftc_requests_total", "Requests read, by what they asked for.", &PerKind::requests);
  perKind("ftc_request_body_bytes_total", "Request body bytes read, by kind.", &PerKind::bodyBytes);
  perKind("ftc_response_bytes_total", "Response bytes queued (heads and bodies), by kind.",
          &PerKind::responseBytes);

  const char* latency = "ftc_request_duration_seconds";
  t.Family(latency, "histogram", "From a request read to its answer queued, by kind.");
  for (size_t i = 0; i < kRequestKinds; ++i) {
    const PerKind& k = m_kinds[i];
    for (size_t b = 0; b < kBuckets.size(); ++b)
      t.Sample(std::string(latency) + "_bucket",
               {{"kind", kKindNames[i]}, {"le", Bound(kBuckets[b])}},
               static_cast<double>(k.buckets[b].load()));
    double count = static_cast<double>(k.responses.load());
    t.Sample(std::string(latency) + "_bucket", {{"kind", kKindNames[i]}, {"le", "+Inf"}}, count);
    t.Sample(std::string(latency) + "_sum", {{"kind", kKindNames[i]}},
             static_cast<double>(k.microseconds.load()) / 1e6);
    t.Sample(std::string(latency) + "_count", {{"kind", kKindNames[i]}}, count);
  }

  auto counter = [&](const char* name, const char* help, uint64_t v) {
    t.Family(name, "counter", help);
    t.Sample(name, {}, static_cast<double>(v));
  };
  counter("ftc_files_served_total", "File responses started (200 and 206).", m_filesServed.load());
  t.Family("ftc_completion_reports_total", "counter",
           "Completion reports recorded, by whether the device fell back to HTTP.");
  for (int fallback : {0, 1})
    t.Sample("ftc_completion_reports_total", {{"http_fallback", std::to_string(fallback)}},
             static_cast<double>(m_reports[fallback].load()));
  counter("ftc_messages_stored_total", "Device messages stored (duplicates not counted).",
          m_messagesStored.load());
  counter("ftc_store_errors_total", "Store operations that failed and were answered 503.",
          m_storeErrors.load());
  t.Family("ftc_open_connections", "gauge", "Device connections open now.");
  t.Sample("ftc_open_connections", {}, static_cast<double>(m_open.load()));

  // From the store: what the fleet and the deployments look like now.
  std::vector<ftcstore::FleetRow> fleet;
  std::vector<ftcstore::DeploymentRow> deployments;
  bool ok = store && store->Fleet(&fleet).ok() &&
            store->Deployments(ftcstore::IsoNow(6), &deployments).ok();
  t.Family("ftc_store_up", "gauge", "1 when the store answered this scrape.");
  t.Sample("ftc_store_up", {}, ok ? 1 : 0);
  if (!ok) return t.text();
  std::map<std::string, int64_t> devices;
  time_t now = time(nullptr);
  for (const auto& f : fleet) ++devices[JobState(f, staleMinutes, now)];
  t.Family("ftc_devices", "gauge", "Devices by the state of their latest job.");
  for (const auto& [state, n] : devices)
    t.Sample("ftc_devices", {{"state", state}}, static_cast<double>(n));
  std::map<std::string, int64_t> byState;
  t.Family("ftc_deployment_devices", "gauge", "Devices of each deployment by their state in it.");
  for (const auto& d : deployments) {
    ++byState[d.state];
    for (const auto& [state, n] : d.counts)
      t.Sample("ftc_deployment_devices", {{"deployment", std::to_string(d.id)}, {"state", state}},
               static_cast<double>(n));
  }
  t.Family("ftc_deployments", "gauge", "Deployments by state.");
  for (const auto& [state, n] : byState)
    t.Sample("ftc_deployments", {{"state", state}}, static_cast<double>(n));
  return t.text();
}

}  // namespace ftcserver
