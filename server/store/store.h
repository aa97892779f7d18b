// The fleet store: what devices report, kept in SQLite (one server) or PostgreSQL (several
// servers sharing one database). One Store is one database connection: not thread-safe, so
// each thread opens its own.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ftcstore {

struct Status {
  enum Code { kOk, kUnavailable, kFailed };
  Code code = kOk;
  std::string message;

  bool ok() const { return code == kOk; }
  static Status Ok() { return {}; }
  static Status Unavailable(std::string m) { return {kUnavailable, std::move(m)}; }
  static Status Failed(std::string m) { return {kFailed, std::move(m)}; }
};

// One queued device message. kind is "event", "state", "autodeploy" or "message" (a document
// of no kind known here); the parsed columns are empty for what a kind does not carry.
struct MessageRow {
  std::string queue;
  int64_t seq = 0;
  std::string time;  // device's spool time, "YYYY-MM-DDThh:mm:ss.uuuuuuZ"
  std::string kind;
  std::optional<int64_t> category;
  std::string code;
  std::string text;
  std::string body;  // the message bytes as the device spooled them
};

struct InventoryRow {
  std::string device;
  std::string serial;
  std::string hardware;
  std::string bundles;    // the installed-bundle record as sent
  std::string installed;  // "name version" per bundle, "; " between
  std::string version;    // the plug-in's version record as sent
  std::string time;       // when the device sent it
  std::string original;   // the request body
};

struct ReportRow {
  std::string device;  // Core-name, "" when the device sent none
  std::string peer;
  std::optional<std::string> bundleRx, httpFallback, error;
  std::string line;  // the JSON line also written to the reports file
};

// One device as the fleet view shows it.
struct FleetRow {
  std::string device, serial, hardware, installed;
  std::string lastSeen;  // server time of the last thing received from it
  std::string jobCode;   // code of the latest job event, "" when none
  std::string jobText;   // text of the latest started or complete event
  bool haveReport = false;
  std::optional<std::string> reportFallback, reportError;
  std::string reportTime;  // server time of the last completion report
};

struct EventRow {
  int64_t id = 0;
  std::string device, queue, time, received, kind, code, text, body;
  int64_t seq = 0;
  std::optional<int64_t> category;
};

struct EventFilter {
  std::string device;  // "" for every device
  std::string since;   // "" for all time; else a time prefix compared as text
};

// Deployments: a job for a set of devices, handed out in phases.
struct DeploymentPlan {
  std::string bundle;
  std::vector<std::string> devices;
  std::vector<int> phases;  // cumulative percentages, the last 100
  std::optional<int64_t> maxFailures;
  bool maxFailuresPercent = false;
  std::string deadline;  // "" for none; else a time as IsoTime writes it
  std::string job;       // the job document devices fetch
  std::string created;
};

struct DeploymentRow {
  int64_t id = 0;
  std::string bundle, created, state, phases, deadline, maxFailures;
  int phase = 0;  // the last open phase, from 0
  int64_t devices = 0;
  std::vector<std::pair<std::string, int64_t>> counts;  // devices by state
  // Deployment() only: (time, "state=n,...") each time the counts changed, oldest first.
  std::vector<std::pair<std::string, std::string>> history;
};

struct DeploymentDeviceRow {
  std::string device, state, text, updated;
  int phase = 0;
  std::optional<int64_t> code;
};

// What a device says when it checks in.
struct Checkin {
  std::string device;
  bool busy = false;
  std::optional<int64_t> resumedDeployment;
  std::string resumedFound;  // "complete", "failed", "started" or "none"
};

// The outcome of asking for a deployment's job: 200 with the job, 404 not (or no longer)
// handed to this device, 410 fetched already.
struct JobFetch {
  int status = 404;
  std::string job;
};

class Store {
 public:
  virtual ~Store() = default;

  // Stores every row in one transaction, received at `received` (server time). stored[i] is
  // false for a row already in the store. Nothing is stored unless the result is ok.
  [[nodiscard]] virtual Status AddMessages(const std::string& device, const std::string& received,
                                           const std::vector<MessageRow>& rows,
                                           std::vector<bool>* stored) = 0;
  // Replaces the device's inventory unless the stored one was sent later.
  [[nodiscard]] virtual Status SetInventory(const InventoryRow& row,
                                            const std::string& received) = 0;
  [[nodiscard]] virtual Status AddReport(const ReportRow& row, const std::string& received) = 0;

  [[nodiscard]] virtual Status Fleet(std::vector<FleetRow>* rows) = 0;
  // Oldest first; stops early when each returns false.
  [[nodiscard]] virtual Status Events(const EventFilter& filter,
                                      const std::function<bool(const EventRow&)>& each) = 0;

  // `now` is the server time every deadline and phase is judged at.
  [[nodiscard]] virtual Status CreateDeployment(const DeploymentPlan& plan, int64_t* id) = 0;
  [[nodiscard]] virtual Status Deployments(const std::string& now,
                                           std::vector<DeploymentRow>* rows) = 0;
  // *found false when there is no such deployment.
  [[nodiscard]] virtual Status Deployment(int64_t id, const std::string& now, bool* found,
                                          DeploymentRow* row,
                                          std::vector<DeploymentDeviceRow>* devices) = 0;
  // action: "pause", "resume" or "cancel". *error says why it does not apply, "" when done.
  [[nodiscard]] virtual Status ChangeDeployment(int64_t id, const std::string& action,
                                                const std::string& now, std::string* error) = 0;
  // *offer: the deployment whose job the device should fetch now, if any.
  [[nodiscard]] virtual Status CheckIn(const Checkin& in, const std::string& now,
                                       std::optional<int64_t>* offer) = 0;
  // Hands the job out at most once per device: the first fetch marks it "sent".
  [[nodiscard]] virtual Status FetchJob(int64_t id, const std::string& device,
                                        const std::string& now, JobFetch* out) = 0;
  // state: "started", "complete", "failed" or "refused". *found false when the device has no
  // part in that deployment.
  [[nodiscard]] virtual Status ReportOutcome(int64_t id, const std::string& device,
                                             const std::string& state, int64_t code,
                                             const std::string& text, const std::string& now,
                                             bool* found) = 0;
};

enum class OpenMode {
  kServe,  // creates the database if needed and brings its schema up to date
  kRead,   // the database must exist with the schema this program knows
};

// url: "sqlite:PATH" (":memory:" for a private in-memory one) or "postgresql://..." /
// "postgres://...". *error says why when the result is null.
std::unique_ptr<Store> OpenStore(const std::string& url, OpenMode mode, std::string* error);

// Schema version this program writes.
int SchemaVersion();

}  // namespace ftcstore
