#include "intake.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <nlohmann/json.hpp>

#include "message_kinds.h"
#include "text.h"

namespace ftcstore {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;

Answer Refusal(int status, const std::string& why) {
  Answer a;
  a.status = status;
  a.body = OrderedJson{{"error", why}}.dump();
  a.log.push_back(why);
  return a;
}

namespace {

// Deeper than any envelope; refused before parsing so that nesting cannot exhaust the stack.
constexpr int kMaxDepth = 16;

bool NestingWithin(std::string_view s, int limit) {
  int depth = 0;
  bool quoted = false;
  for (size_t i = 0; i < s.size(); ++i) {
    char c = s[i];
    if (quoted) {
      if (c == '\\')
        ++i;
      else if (c == '"')
        quoted = false;
    } else if (c == '"') {
      quoted = true;
    } else if (c == '[' || c == '{') {
      if (++depth > limit) return false;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return true;
}

Answer Unavailable(const Status& s) {
  Answer a = Refusal(503, "the store cannot take it now; try again later");
  a.log = {s.message};
  return a;
}

// The envelope common to both endpoints: a JSON object naming a device.
bool ReadEnvelope(std::string_view body, Json* doc, std::string* device, Answer* refusal) {
  if (!NestingWithin(body, kMaxDepth))
    return *refusal = Refusal(400, "JSON nested too deeply"), false;
  try {
    *doc = Json::parse(body);
  } catch (const Json::parse_error& e) {
    return *refusal = Refusal(400, "not JSON (at byte " + std::to_string(e.byte) + ")"), false;
  }
  if (!doc->is_object()) return *refusal = Refusal(400, "not a JSON object"), false;
  auto d = doc->find("device");
  if (d == doc->end() || !d->is_string() || !IsDeviceId(d->get_ref<const std::string&>()))
    return *refusal = Refusal(400, "no device id, or not one"), false;
  *device = d->get<std::string>();
  return true;
}

// Why the message cannot be stored, "" when row holds it.
std::string ReadMessage(const Json& m, MessageRow* row) {
  auto queue = m.find("queue");
  if (queue == m.end() || !queue->is_string() || !IsQueueName(queue->get_ref<const std::string&>()))
    return "no queue name, or not one";
  row->queue = queue->get<std::string>();
  auto seq = m.find("seq");
  // Positive whole numbers parse as unsigned; anything else is out.
  if (seq == m.end() || !seq->is_number_unsigned() || seq->get<uint64_t>() < 1 ||
      seq->get<uint64_t>() > static_cast<uint64_t>(INT64_MAX))
    return "seq is not a whole number from 1";
  row->seq = seq->get<int64_t>();
  auto time = m.find("time");
  std::optional<std::string> t;
  if (time != m.end() && time->is_string()) t = NormalizeTime(time->get_ref<const std::string&>());
  if (!t) return "time is not a UTC time";
  row->time = *t;
  auto body = m.find("body");
  if (body == m.end() || !body->is_string()) return "no body";
  row->body = body->get<std::string>();
  if (row->body.empty()) return "empty body";
  if (row->body.size() > kMaxMessageBytes) return "body over 256 KiB";
  if (row->body.find('\0') != std::string::npos) return "body holds a NUL byte";
  std::string why;
  if (!ClassifyMessage(row, &why)) return why;
  return {};
}

std::string Field(const Json& doc, const char* key, bool* ok) {
  auto f = doc.find(key);
  if (f == doc.end() || f->is_null()) return {};
  if (!f->is_string()) {
    *ok = false;
    return {};
  }
  return CleanText(f->get_ref<const std::string&>());
}

// A device number field: a JSON number when it reads as one, else the text.
OrderedJson NumberOrText(const std::string* v) {
  if (!v) return nullptr;
  std::string_view s = *v;
  bool negative = !s.empty() && s[0] == '-';
  std::string_view digits = negative ? s.substr(1) : s;
  if (!digits.empty() && digits.size() <= 19 &&
      digits.find_first_not_of("0123456789") == std::string_view::npos) {
    unsigned long long n = std::stoull(std::string(digits));
    if (!negative) return n;
    if (n <= static_cast<unsigned long long>(INT64_MAX)) return -static_cast<int64_t>(n);
  }
  return CleanText(s);
}

}  // namespace

Answer AcceptMessages(std::string_view body, Store& store) try {
  Json doc;
  std::string device;
  Answer refusal;
  if (!ReadEnvelope(body, &doc, &device, &refusal)) return refusal;
  auto messages = doc.find("messages");
  if (messages == doc.end() || !messages->is_array() || messages->empty())
    return Refusal(400, "device " + device + ": no messages array");
  if (messages->size() > kMaxBatch)
    return Refusal(400, "device " + device + ": " + std::to_string(messages->size()) +
                            " messages, more than " + std::to_string(kMaxBatch));

  Answer a;
  std::vector<MessageRow> rows;
  std::vector<std::string> errors;
  for (const Json& m : *messages) {
    if (!m.is_object()) return Refusal(400, "device " + device + ": a message is not an object");
    MessageRow row;
    errors.push_back(ReadMessage(m, &row));
    if (errors.back().empty()) rows.push_back(std::move(row));
  }
  std::vector<bool> stored;
  if (!rows.empty())
    if (Status s = store.AddMessages(device, IsoNow(6), rows, &stored); !s.ok())
      return Unavailable(s);

  OrderedJson results = OrderedJson::array();
  size_t next = 0;
  for (size_t i = 0; i < errors.size(); ++i) {
    const Json& m = (*messages)[i];
    OrderedJson r;
    for (const char* key : {"seq", "queue"}) {
      auto v = m.find(key);
      r[key] = v != m.end() && v->is_primitive() ? OrderedJson(*v) : OrderedJson();
    }
    if (errors[i].empty()) {
      bool added = stored[next++];
      a.stored += added;
      r["status"] = added ? "stored" : "duplicate";
    } else {
      r["status"] = "rejected";
      r["error"] = errors[i];
      a.log.push_back("device " + device + ": rejected " + r["queue"].dump() + " seq " +
                      r["seq"].dump() + ": " + errors[i]);
    }
    results.push_back(std::move(r));
  }
  a.body = OrderedJson{{"results", std::move(results)}}.dump();
  return a;
} catch (const std::exception& e) {
  return Refusal(400, std::string("unreadable request: ") + e.what());
}

Answer AcceptInventory(std::string_view body, Store& store) try {
  Json doc;
  InventoryRow row;
  Answer refusal;
  if (!ReadEnvelope(body, &doc, &row.device, &refusal)) return refusal;
  bool ok = true;
  row.serial = Field(doc, "serial", &ok);
  row.hardware = Field(doc, "hardware", &ok);
  row.bundles = Field(doc, "bundles", &ok);
  row.version = Field(doc, "version", &ok);
  std::optional<std::string> time = NormalizeTime(Field(doc, "time", &ok));
  if (!ok || !time) return Refusal(400, "device " + row.device + ": inventory of the wrong shape");
  row.time = *time;
  row.installed = InstalledBundles(row.bundles);
  row.original = std::string(body);
  if (Status s = store.SetInventory(row, IsoNow(6)); !s.ok()) return Unavailable(s);
  Answer a;
  a.body = OrderedJson{{"status", "stored"}}.dump();
  return a;
} catch (const std::exception& e) {
  return Refusal(400, std::string("unreadable request: ") + e.what());
}

namespace {

std::optional<int64_t> DeploymentId(const Json& doc) {
  auto d = doc.find("deployment");
  if (d == doc.end() || !d->is_number_unsigned() || d->get<uint64_t>() < 1 ||
      d->get<uint64_t>() > static_cast<uint64_t>(INT64_MAX))
    return std::nullopt;
  return d->get<int64_t>();
}

}  // namespace

Answer AgentCheckIn(std::string_view body, Store& store, unsigned next) try {
  Json doc;
  Checkin in;
  Answer refusal;
  if (!ReadEnvelope(body, &doc, &in.device, &refusal)) return refusal;
  auto busy = doc.find("busy");
  if (busy != doc.end() && !busy->is_null()) {
    if (!busy->is_boolean())
      return Refusal(400, "device " + in.device + ": busy is not true or false");
    in.busy = busy->get<bool>();
  }
  auto resumed = doc.find("resumed");
  if (resumed != doc.end() && !resumed->is_null()) {
    auto found = resumed->is_object() ? resumed->find("found") : resumed->end();
    std::optional<int64_t> id;
    if (resumed->is_object()) id = DeploymentId(*resumed);
    if (!id || found == resumed->end() || !found->is_string())
      return Refusal(400, "device " + in.device + ": resumed of the wrong shape");
    in.resumedDeployment = id;
    in.resumedFound = found->get<std::string>();
  }
  std::optional<int64_t> offer;
  if (Status s = store.CheckIn(in, IsoNow(6), &offer); !s.ok()) return Unavailable(s);
  OrderedJson job;
  if (offer)
    job = OrderedJson{{"deployment", *offer}, {"url", "/agent/jobs/" + std::to_string(*offer)}};
  Answer a;
  a.body = OrderedJson{{"next", next}, {"job", job}}.dump();
  return a;
} catch (const std::exception& e) {
  return Refusal(400, std::string("unreadable request: ") + e.what());
}

Answer AgentJob(std::string_view target, Store& store) {
  constexpr std::string_view kPrefix = "/agent/jobs/", kDevice = "?device=";
  target.remove_prefix(std::min(target.size(), kPrefix.size()));
  size_t query = target.find(kDevice);
  std::string_view digits = target.substr(0, query);
  std::string device(query == std::string_view::npos ? "" : target.substr(query + kDevice.size()));
  if (digits.empty() || digits.size() > 18 ||
      digits.find_first_not_of("0123456789") != std::string_view::npos || !IsDeviceId(device))
    return Refusal(404, "no such job");
  int64_t id = std::stoll(std::string(digits));
  JobFetch fetch;
  if (Status s = store.FetchJob(id, device, IsoNow(6), &fetch); !s.ok()) return Unavailable(s);
  if (fetch.status == 410)
    return Refusal(
        410, "device " + device + ": deployment " + std::to_string(id) + " was fetched already");
  if (fetch.status != 200)
    return Refusal(
        404, "device " + device + ": deployment " + std::to_string(id) + " is not for it now");
  Answer a;
  a.body = std::move(fetch.job);
  a.type = "text/xml";
  return a;
}

Answer AgentResult(std::string_view body, Store& store) try {
  Json doc;
  std::string device;
  Answer refusal;
  if (!ReadEnvelope(body, &doc, &device, &refusal)) return refusal;
  std::optional<int64_t> id = DeploymentId(doc);
  auto state = doc.find("state");
  auto code = doc.find("code");
  bool ok = true;
  std::string text = Field(doc, "text", &ok);
  static const char* const kStates[] = {"started", "complete", "failed", "refused"};
  bool known = state != doc.end() && state->is_string() &&
               std::find(std::begin(kStates), std::end(kStates), state->get<std::string>()) !=
                   std::end(kStates);
  bool codeOk = code == doc.end() || code->is_null() ||
                (code->is_number_unsigned() && code->get<uint64_t>() <= UINT32_MAX);
  if (!id || !known || !codeOk || !ok)
    return Refusal(400, "device " + device + ": result of the wrong shape");
  int64_t number = code != doc.end() && code->is_number() ? code->get<int64_t>() : 0;
  bool found = false;
  if (Status s = store.ReportOutcome(*id, device, state->get<std::string>(), number, text,
                                     IsoNow(6), &found);
      !s.ok())
    return Unavailable(s);
  if (!found)
    return Refusal(404, "device " + device + ": no part in deployment " + std::to_string(*id));
  Answer a;
  a.body = OrderedJson{{"status", "stored"}}.dump();
  return a;
} catch (const std::exception& e) {
  return Refusal(400, std::string("unreadable request: ") + e.what());
}

ReportRow MakeReport(const std::string& time, const std::string& peer, const std::string* core,
                     const std::string* bundleRx, const std::string* fallback,
                     const std::string* error) {
  auto text = [](const std::string* v) -> std::optional<std::string> {
    if (!v) return std::nullopt;
    return CleanText(*v);
  };
  ReportRow row;
  row.device = core ? CleanText(*core) : std::string();
  row.peer = peer;
  row.bundleRx = text(bundleRx);
  row.httpFallback = text(fallback);
  row.error = text(error);
  OrderedJson line;
  line["time"] = time;
  line["peer"] = peer;
  line["Core-name"] = core ? OrderedJson(row.device) : OrderedJson();
  line["Bundle-rx"] = NumberOrText(bundleRx);
  line["HTTP-fallback"] = NumberOrText(fallback);
  line["Error"] = error ? OrderedJson(*row.error) : OrderedJson();
  row.line = line.dump();
  return row;
}

}  // namespace ftcstore
