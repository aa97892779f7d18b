// The store's schema and queries, the same SQL for both databases.
#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "base/faults.h"
#include "database.h"
#include "store.h"

namespace ftcstore {
namespace {

// Each entry brings the schema from the version before it to its own number; append only.
// {id} and {blob} stand for what the two databases spell differently.
const char* const kMigrations[] = {
    // 1
    "CREATE TABLE devices ("
    " device TEXT PRIMARY KEY,"
    " first_seen TEXT NOT NULL,"
    " last_seen TEXT NOT NULL,"
    " serial TEXT NOT NULL DEFAULT '',"
    " hardware TEXT NOT NULL DEFAULT '',"
    " bundles TEXT NOT NULL DEFAULT '',"
    " installed TEXT NOT NULL DEFAULT '',"
    " plugin_version TEXT NOT NULL DEFAULT '',"
    " inventory_time TEXT,"
    " inventory TEXT);"
    "CREATE TABLE messages ("
    " id {id},"
    " device TEXT NOT NULL,"
    " queue TEXT NOT NULL,"
    " seq BIGINT NOT NULL,"
    " time TEXT NOT NULL,"
    " received TEXT NOT NULL,"
    " kind TEXT NOT NULL,"
    " category BIGINT,"
    " code TEXT NOT NULL,"
    " text TEXT NOT NULL,"
    " body {blob} NOT NULL);"
    "CREATE UNIQUE INDEX messages_key ON messages (device, queue, seq, time);"
    "CREATE INDEX messages_device_time ON messages (device, time);"
    "CREATE INDEX messages_time ON messages (time);"
    "CREATE TABLE reports ("
    " id {id},"
    " device TEXT NOT NULL,"
    " received TEXT NOT NULL,"
    " peer TEXT NOT NULL,"
    " bundle_rx TEXT,"
    " http_fallback TEXT,"
    " error TEXT,"
    " line TEXT NOT NULL);"
    "CREATE INDEX reports_device ON reports (device, id);",
    // 2
    "CREATE TABLE deployments ("
    " id {id},"
    " bundle TEXT NOT NULL,"
    " created TEXT NOT NULL,"
    " state TEXT NOT NULL,"
    " phases TEXT NOT NULL,"
    " phase INTEGER NOT NULL,"
    " max_failures BIGINT,"
    " max_failures_percent INTEGER NOT NULL,"
    " failures_forgiven BIGINT NOT NULL DEFAULT 0,"
    " deadline TEXT,"
    " job TEXT NOT NULL);"
    "CREATE TABLE deployment_devices ("
    " deployment BIGINT NOT NULL,"
    " device TEXT NOT NULL,"
    " phase INTEGER NOT NULL,"
    " state TEXT NOT NULL,"
    " code BIGINT,"
    " text TEXT NOT NULL DEFAULT '',"
    " updated TEXT NOT NULL,"
    " PRIMARY KEY (deployment, device));"
    "CREATE INDEX deployment_devices_device ON deployment_devices (device, state);"
    "CREATE TABLE deployment_history ("
    " deployment BIGINT NOT NULL,"
    " time TEXT NOT NULL,"
    " counts TEXT NOT NULL);"
    "CREATE INDEX deployment_history_deployment ON deployment_history (deployment, time);",
};

enum StatementId {
  kBeginSqlite,
  kBeginPostgres,
  kCommit,
  kRollback,
  kMigrationLock,
  kSchemaVersion,
  kSetSchemaVersion,
  kInsertMessage,
  kTouchDevice,
  kUpdateInventory,
  kInsertReport,
  kFleet,
  kEventsAll,
  kEventsDevice,
  kInsertDeployment,
  kInsertDeploymentDevice,
  kLockDeploymentPostgres,
  kLockDeploymentSqlite,
  kDeploymentIds,
  kTimeOut,
  kCountStates,
  kUnfinished,
  kSetDeployment,
  kCancelPending,
  kDeploymentDevices,
  kDeviceOffers,
  kDeviceRow,
  kJob,
  kMarkSent,
  kMarkStarted,
  kMarkOutcome,
  kResetSent,
  kCurrentDeployment,
  kLastHistory,
  kInsertHistory,
  kHistory,
};

// A writer takes the lock at once: a read lock upgraded later could fail instead of waiting.
const Statement kBeginSqliteSql{kBeginSqlite, "BEGIN IMMEDIATE"};
const Statement kBeginPostgresSql{kBeginPostgres, "BEGIN"};
const Statement kCommitSql{kCommit, "COMMIT"};
const Statement kRollbackSql{kRollback, "ROLLBACK"};
// Two servers starting at once on a fresh database must not both create the tables.
const Statement kMigrationLockSql{kMigrationLock, "SELECT pg_advisory_xact_lock(7113201)"};
const Statement kSchemaVersionSql{kSchemaVersion, "SELECT max(version) FROM schema_version"};
const Statement kSetSchemaVersionSql{kSetSchemaVersion,
                                     "INSERT INTO schema_version (version) VALUES ($1)"};

const Statement kInsertMessageSql{
    kInsertMessage,
    "INSERT INTO messages (device, queue, seq, time, received, kind, category, code, text, body)"
    " VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10)"
    " ON CONFLICT (device, queue, seq, time) DO NOTHING"};
const Statement kTouchDeviceSql{
    kTouchDevice,
    "INSERT INTO devices (device, first_seen, last_seen) VALUES ($1, $2, $2)"
    " ON CONFLICT (device) DO UPDATE SET last_seen = CASE"
    " WHEN excluded.last_seen > devices.last_seen THEN excluded.last_seen"
    " ELSE devices.last_seen END"};
const Statement kUpdateInventorySql{
    kUpdateInventory,
    "UPDATE devices SET serial = $2, hardware = $3, bundles = $4, installed = $5,"
    " plugin_version = $6, inventory_time = $7, inventory = $8"
    " WHERE device = $1 AND (inventory_time IS NULL OR inventory_time <= $7)"};
const Statement kInsertReportSql{
    kInsertReport,
    "INSERT INTO reports (device, received, peer, bundle_rx, http_fallback, error, line)"
    " VALUES ($1, $2, $3, $4, $5, $6, $7)"};

// 205180 failed, 205181 started, 205182 complete: the device events that frame a job.
const Statement kFleetSql{
    kFleet,
    "SELECT d.device, d.serial, d.hardware, d.installed, d.last_seen, j.code, s.text, r.id,"
    " r.http_fallback, r.error, r.received"
    " FROM devices d"
    " LEFT JOIN messages j ON j.id = (SELECT m.id FROM messages m WHERE m.device = d.device"
    "  AND m.kind = 'event' AND m.code IN ('205180', '205181', '205182')"
    "  ORDER BY m.time DESC, m.id DESC LIMIT 1)"
    " LEFT JOIN messages s ON s.id = (SELECT m.id FROM messages m WHERE m.device = d.device"
    "  AND m.kind = 'event' AND m.code IN ('205181', '205182')"
    "  ORDER BY m.time DESC, m.id DESC LIMIT 1)"
    " LEFT JOIN reports r ON r.id = (SELECT max(x.id) FROM reports x WHERE x.device = d.device)"
    " ORDER BY d.device"};
#define FTC_EVENT_COLUMNS \
  "SELECT id, device, queue, seq, time, received, kind, category, code, text, body FROM messages"
const Statement kEventsAllSql{kEventsAll, FTC_EVENT_COLUMNS " WHERE time >= $1 ORDER BY time, id"};
const Statement kEventsDeviceSql{
    kEventsDevice, FTC_EVENT_COLUMNS " WHERE device = $1 AND time >= $2 ORDER BY time, id"};
#undef FTC_EVENT_COLUMNS

const Statement kInsertDeploymentSql{
    kInsertDeployment,
    "INSERT INTO deployments (bundle, created, state, phases, phase, max_failures,"
    " max_failures_percent, deadline, job) VALUES ($1, $2, 'running', $3, 0, $4, $5, $6, $7)"
    " RETURNING id"};
const Statement kInsertDeploymentDeviceSql{
    kInsertDeploymentDevice,
    "INSERT INTO deployment_devices (deployment, device, phase, state, updated)"
    " VALUES ($1, $2, $3, 'pending', $4)"};
// Every transaction that changes a deployment or its devices takes the deployment's row first,
// in ascending id order: servers sharing the database then judge and hand out one at a time.
#define FTC_DEPLOYMENT_COLUMNS                                                            \
  "SELECT id, bundle, created, state, phases, phase, max_failures, max_failures_percent," \
  " failures_forgiven, deadline FROM deployments WHERE id = $1"
const Statement kLockDeploymentPostgresSql{kLockDeploymentPostgres,
                                           FTC_DEPLOYMENT_COLUMNS " FOR UPDATE"};
// SQLite's write transaction already holds the whole database.
const Statement kLockDeploymentSqliteSql{kLockDeploymentSqlite, FTC_DEPLOYMENT_COLUMNS};
#undef FTC_DEPLOYMENT_COLUMNS
const Statement kDeploymentIdsSql{kDeploymentIds, "SELECT id FROM deployments ORDER BY id"};
const Statement kTimeOutSql{kTimeOut,
                            "UPDATE deployment_devices SET state = 'timed out', updated = $2"
                            " WHERE deployment = $1 AND state IN ('pending', 'sent', 'started')"};
const Statement kCountStatesSql{
    kCountStates,
    "SELECT state, count(*) FROM deployment_devices WHERE deployment = $1"
    " GROUP BY state ORDER BY state"};
const Statement kUnfinishedSql{
    kUnfinished,
    "SELECT count(*) FROM deployment_devices WHERE deployment = $1 AND phase <= $2"
    " AND state IN ('pending', 'sent', 'started')"};
const Statement kSetDeploymentSql{
    kSetDeployment,
    "UPDATE deployments SET state = $2, phase = $3, failures_forgiven = $4 WHERE id = $1"};
const Statement kCancelPendingSql{kCancelPending,
                                  "UPDATE deployment_devices SET state = 'cancelled', updated = $2"
                                  " WHERE deployment = $1 AND state = 'pending'"};
const Statement kDeploymentDevicesSql{
    kDeploymentDevices,
    "SELECT device, phase, state, code, text, updated FROM deployment_devices"
    " WHERE deployment = $1 ORDER BY phase, device"};
const Statement kDeviceOffersSql{
    kDeviceOffers,
    "SELECT dd.deployment FROM deployment_devices dd JOIN deployments d ON d.id = dd.deployment"
    " WHERE dd.device = $1 AND dd.state = 'pending' AND d.state = 'running'"
    " ORDER BY dd.deployment"};
const Statement kDeviceRowSql{
    kDeviceRow,
    "SELECT phase, state FROM deployment_devices WHERE deployment = $1 AND device = $2"};
const Statement kJobSql{kJob, "SELECT job FROM deployments WHERE id = $1"};
const Statement kMarkSentSql{kMarkSent,
                             "UPDATE deployment_devices SET state = 'sent', updated = $3"
                             " WHERE deployment = $1 AND device = $2 AND state = 'pending'"};
const Statement kMarkStartedSql{
    kMarkStarted,
    "UPDATE deployment_devices SET state = 'started', text = $3, updated = $4"
    " WHERE deployment = $1 AND device = $2 AND state = 'sent'"};
const Statement kMarkOutcomeSql{
    kMarkOutcome,
    "UPDATE deployment_devices SET state = $3, code = $4, text = $5, updated = $6"
    " WHERE deployment = $1 AND device = $2 AND state IN ('sent', 'started')"};
const Statement kResetSentSql{kResetSent,
                              "UPDATE deployment_devices SET state = 'pending', updated = $3"
                              " WHERE deployment = $1 AND device = $2 AND state = 'sent'"};
const Statement kCurrentDeploymentSql{
    kCurrentDeployment,
    "SELECT deployment FROM deployment_devices WHERE device = $1"
    " AND state IN ('sent', 'started') ORDER BY deployment DESC LIMIT 1"};

const Statement kLastHistorySql{
    kLastHistory,
    "SELECT counts FROM deployment_history WHERE deployment = $1 ORDER BY time DESC LIMIT 1"};
const Statement kInsertHistorySql{
    kInsertHistory,
    "INSERT INTO deployment_history (deployment, time, counts) VALUES ($1, $2, $3)"};
const Statement kHistorySql{
    kHistory, "SELECT time, counts FROM deployment_history WHERE deployment = $1 ORDER BY time"};

// A deployment's row as locked at the start of a transaction.
struct Locked {
  int64_t id = 0;
  std::string bundle, created, state, phases, deadline;
  int phase = 0;
  std::optional<int64_t> maxFailures;
  bool percent = false;
  int64_t forgiven = 0;
};

int PhaseCount(const std::string& phases) {
  int n = 1;
  for (char c : phases) n += c == ',';
  return n;
}

std::string Text(const std::optional<std::string>& v) {
  return v ? *v : std::string();
}

int64_t Number(const std::optional<std::string>& v) {
  return v ? std::strtoll(v->c_str(), nullptr, 10) : 0;
}

class SqlStore : public Store {
 public:
  explicit SqlStore(std::unique_ptr<Database> db) : m_db(std::move(db)) {}

  Status Migrate() {
    return Transaction([&]() -> Status {
      if (m_db->IsPostgres())
        if (Status s = m_db->Run(kMigrationLockSql, {}, [](const Row&) { return true; }); !s.ok())
          return s;
      Status s = m_db->Execute("CREATE TABLE IF NOT EXISTS schema_version (version INTEGER)");
      int version = 0;
      if (s.ok()) s = ReadVersion(&version);
      if (!s.ok()) return s;
      if (version > SchemaVersion())
        return Status::Failed("the database has schema version " + std::to_string(version) +
                              ", newer than this ftc-server knows (" +
                              std::to_string(SchemaVersion()) + ")");
      for (int v = version + 1; v <= SchemaVersion(); ++v) {
        for (const std::string& sql : Statements(kMigrations[v - 1]))
          if (Status m = m_db->Execute(sql); !m.ok()) return m;
        if (Status m = m_db->Run(kSetSchemaVersionSql, {Value::Int(v)}); !m.ok()) return m;
      }
      return Status::Ok();
    });
  }

  Status CheckVersion() {
    int version = 0;
    Status s = ReadVersion(&version);
    if (!s.ok()) return Status::Failed("not an ftc-server database (" + s.message + ")");
    if (version != SchemaVersion())
      return Status::Failed("the database has schema version " + std::to_string(version) +
                            "; this ftc-server reads version " + std::to_string(SchemaVersion()));
    return Status::Ok();
  }

  Status AddMessages(const std::string& device, const std::string& received,
                     const std::vector<MessageRow>& rows, std::vector<bool>* stored) override {
    std::vector<bool> result(rows.size(), false);
    Status s = Transaction([&]() -> Status {
      // The device's row before any deployment's, as a check-in takes them.
      if (Status t = Touch(device, received); !t.ok()) return t;
      for (size_t i = 0; i < rows.size(); ++i) {
        const MessageRow& m = rows[i];
        int64_t changed = 0;
        Status r = m_db->Run(
            kInsertMessageSql,
            {Value::Text(device), Value::Text(m.queue), Value::Int(m.seq), Value::Text(m.time),
             Value::Text(received), Value::Text(m.kind), Value::OptInt(m.category),
             Value::Text(m.code), Value::Text(m.text), Value::Blob(m.body)},
            nullptr, &changed);
        if (!r.ok()) return r;
        result[i] = changed > 0;
        if (result[i] && m.kind == "event")
          if (Status e = JobEvent(device, m, received); !e.ok()) return e;
      }
      return Status::Ok();
    });
    if (s.ok()) *stored = std::move(result);
    return s;
  }

  Status SetInventory(const InventoryRow& row, const std::string& received) override {
    return Transaction([&]() -> Status {
      if (Status s = Touch(row.device, received); !s.ok()) return s;
      return m_db->Run(kUpdateInventorySql, {Value::Text(row.device), Value::Text(row.serial),
                                             Value::Text(row.hardware), Value::Text(row.bundles),
                                             Value::Text(row.installed), Value::Text(row.version),
                                             Value::Text(row.time), Value::Text(row.original)});
    });
  }

  Status AddReport(const ReportRow& row, const std::string& received) override {
    return Transaction([&]() -> Status {
      Status s = m_db->Run(kInsertReportSql,
                           {Value::Text(row.device), Value::Text(received), Value::Text(row.peer),
                            Value::OptText(row.bundleRx), Value::OptText(row.httpFallback),
                            Value::OptText(row.error), Value::Text(row.line)});
      // A report without a device name is kept, but makes no fleet row.
      if (s.ok() && !row.device.empty()) s = Touch(row.device, received);
      return s;
    });
  }

  Status Fleet(std::vector<FleetRow>* rows) override {
    rows->clear();
    return m_db->Run(kFleetSql, {}, [&](const Row& r) {
      FleetRow f;
      f.device = Text(r[0]);
      f.serial = Text(r[1]);
      f.hardware = Text(r[2]);
      f.installed = Text(r[3]);
      f.lastSeen = Text(r[4]);
      f.jobCode = Text(r[5]);
      f.jobText = Text(r[6]);
      f.haveReport = r[7].has_value();
      f.reportFallback = r[8];
      f.reportError = r[9];
      f.reportTime = Text(r[10]);
      rows->push_back(std::move(f));
      return true;
    });
  }

  Status Events(const EventFilter& filter,
                const std::function<bool(const EventRow&)>& each) override {
    auto row = [&](const Row& r) {
      EventRow e;
      e.id = Number(r[0]);
      e.device = Text(r[1]);
      e.queue = Text(r[2]);
      e.seq = Number(r[3]);
      e.time = Text(r[4]);
      e.received = Text(r[5]);
      e.kind = Text(r[6]);
      if (r[7]) e.category = Number(r[7]);
      e.code = Text(r[8]);
      e.text = Text(r[9]);
      e.body = Text(r[10]);
      return each(e);
    };
    if (filter.device.empty()) return m_db->Run(kEventsAllSql, {Value::Text(filter.since)}, row);
    return m_db->Run(kEventsDeviceSql, {Value::Text(filter.device), Value::Text(filter.since)},
                     row);
  }

  Status CreateDeployment(const DeploymentPlan& plan, int64_t* id) override {
    std::string phases;
    for (int p : plan.phases) phases += (phases.empty() ? "" : ",") + std::to_string(p);
    return Transaction([&]() -> Status {
      Status s = m_db->Run(
          kInsertDeploymentSql,
          {Value::Text(plan.bundle), Value::Text(plan.created), Value::Text(phases),
           Value::OptInt(plan.maxFailures), Value::Int(plan.maxFailuresPercent),
           plan.deadline.empty() ? Value() : Value::Text(plan.deadline), Value::Text(plan.job)},
          [&](const Row& r) {
            *id = Number(r[0]);
            return true;
          });
      // Device i of n goes to the first phase whose share of n covers it.
      size_t n = plan.devices.size();
      for (size_t i = 0; s.ok() && i < n; ++i) {
        size_t phase = 0;
        while (phase + 1 < plan.phases.size() &&
               i >= (n * static_cast<size_t>(plan.phases[phase]) + 99) / 100)
          ++phase;
        s = m_db->Run(kInsertDeploymentDeviceSql,
                      {Value::Int(*id), Value::Text(plan.devices[i]),
                       Value::Int(static_cast<int64_t>(phase)), Value::Text(plan.created)});
      }
      if (s.ok())
        s = m_db->Run(kInsertHistorySql, {Value::Int(*id), Value::Text(plan.created),
                                          Value::Text("pending=" + std::to_string(n))});
      return s;
    });
  }

  Status Deployments(const std::string& now, std::vector<DeploymentRow>* rows) override {
    rows->clear();
    std::vector<int64_t> ids;
    Status s = m_db->Run(kDeploymentIdsSql, {}, [&](const Row& r) {
      ids.push_back(Number(r[0]));
      return true;
    });
    // One short transaction each, so that a long list does not hold every deployment at once.
    for (size_t i = 0; s.ok() && i < ids.size(); ++i) {
      DeploymentRow row;
      bool found = false;
      s = Transaction([&] { return Judge(ids[i], now, &found, &row); });
      if (found) rows->push_back(std::move(row));
    }
    return s;
  }

  Status Deployment(int64_t id, const std::string& now, bool* found, DeploymentRow* row,
                    std::vector<DeploymentDeviceRow>* devices) override {
    devices->clear();
    return Transaction([&]() -> Status {
      Status s = Judge(id, now, found, row);
      if (!s.ok() || !*found) return s;
      row->history.clear();
      s = m_db->Run(kHistorySql, {Value::Int(id)}, [&](const Row& r) {
        row->history.emplace_back(Text(r[0]), Text(r[1]));
        return true;
      });
      if (!s.ok()) return s;
      return m_db->Run(kDeploymentDevicesSql, {Value::Int(id)}, [&](const Row& r) {
        DeploymentDeviceRow d;
        d.device = Text(r[0]);
        d.phase = static_cast<int>(Number(r[1]));
        d.state = Text(r[2]);
        if (r[3]) d.code = Number(r[3]);
        d.text = Text(r[4]);
        d.updated = Text(r[5]);
        devices->push_back(std::move(d));
        return true;
      });
    });
  }

  Status ChangeDeployment(int64_t id, const std::string& action, const std::string& now,
                          std::string* error) override {
    error->clear();
    return Transaction([&]() -> Status {
      bool found = false;
      DeploymentRow row;
      Status s = Judge(id, now, &found, &row);
      if (!s.ok()) return s;
      if (!found) return *error = "no deployment " + std::to_string(id), Status::Ok();
      Locked d;
      if (s = Lock(id, &d, &found); !s.ok()) return s;
      std::string want = action == "pause"    ? "paused"
                         : action == "resume" ? "running"
                                              : "cancelled";
      bool applies = action == "pause"    ? d.state == "running"
                     : action == "resume" ? d.state == "paused"
                                          : d.state == "running" || d.state == "paused";
      if (!applies) return *error = "deployment is " + d.state, Status::Ok();
      // Resuming accepts the failures so far: only new ones count against the limit.
      if (action == "resume") d.forgiven = Failures(row);
      if (action == "cancel")
        if (s = m_db->Run(kCancelPendingSql, {Value::Int(id), Value::Text(now)}); !s.ok()) return s;
      if (s = m_db->Run(kSetDeploymentSql, {Value::Int(id), Value::Text(want), Value::Int(d.phase),
                                            Value::Int(d.forgiven)});
          !s.ok())
        return s;
      return action == "resume" ? Judge(id, now, &found, &row) : Status::Ok();
    });
  }

  Status CheckIn(const Checkin& in, const std::string& now,
                 std::optional<int64_t>* offer) override {
    offer->reset();
    return Transaction([&]() -> Status {
      if (Status s = Touch(in.device, now); !s.ok()) return s;
      std::vector<int64_t> ids;
      Status s = m_db->Run(kDeviceOffersSql, {Value::Text(in.device)}, [&](const Row& r) {
        ids.push_back(Number(r[0]));
        return true;
      });
      // Deployments are locked in ascending order, the resumed one among them.
      if (in.resumedDeployment) ids.push_back(*in.resumedDeployment);
      std::sort(ids.begin(), ids.end());
      ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
      for (size_t i = 0; s.ok() && i < ids.size(); ++i) {
        if (ids[i] == in.resumedDeployment)
          if (s = Resumed(in, now); !s.ok()) break;
        bool found = false;
        DeploymentRow row;
        if (s = Judge(ids[i], now, &found, &row); !s.ok() || !found || in.busy || *offer) continue;
        bool open = false;
        s = m_db->Run(kDeviceRowSql, {Value::Int(ids[i]), Value::Text(in.device)},
                      [&](const Row& r) {
                        open = Number(r[0]) <= row.phase && Text(r[1]) == "pending";
                        return true;
                      });
        if (s.ok() && open && row.state == "running") *offer = ids[i];
      }
      return s;
    });
  }

  Status FetchJob(int64_t id, const std::string& device, const std::string& now,
                  JobFetch* out) override {
    *out = JobFetch();
    return Transaction([&]() -> Status {
      bool found = false;
      DeploymentRow row;
      Status s = Judge(id, now, &found, &row);
      if (!s.ok() || !found || row.state == "cancelled") return s;
      std::optional<std::string> state;
      int phase = 0;
      s = m_db->Run(kDeviceRowSql, {Value::Int(id), Value::Text(device)}, [&](const Row& r) {
        phase = static_cast<int>(Number(r[0]));
        state = Text(r[1]);
        return true;
      });
      if (!s.ok() || !state || *state == "cancelled") return s;
      if (*state != "pending") return out->status = 410, s;
      if (row.state != "running" || phase > row.phase) return s;
      int64_t changed = 0;
      s = m_db->Run(kMarkSentSql, {Value::Int(id), Value::Text(device), Value::Text(now)}, nullptr,
                    &changed);
      if (!s.ok() || changed == 0) return s;
      out->status = 200;
      return m_db->Run(kJobSql, {Value::Int(id)}, [&](const Row& r) {
        out->job = Text(r[0]);
        return true;
      });
    });
  }

  Status ReportOutcome(int64_t id, const std::string& device, const std::string& state,
                       int64_t code, const std::string& text, const std::string& now,
                       bool* found) override {
    return Transaction([&]() -> Status {
      Locked d;
      Status s = Lock(id, &d, found);
      if (!s.ok() || !*found) return s;
      *found = false;
      s = m_db->Run(kDeviceRowSql, {Value::Int(id), Value::Text(device)}, [&](const Row&) {
        *found = true;
        return true;
      });
      if (!s.ok() || !*found) return s;
      if (s = Mark(id, device, state, code, text, now); !s.ok()) return s;
      DeploymentRow row;
      bool exists = false;
      return Judge(id, now, &exists, &row);
    });
  }

 private:
  template <typename F>
  Status Transaction(F body) {
    if (Status s = m_db->Ready(); !s.ok()) return s;
    Status s = m_db->Run(m_db->IsPostgres() ? kBeginPostgresSql : kBeginSqliteSql, {});
    if (!s.ok()) return s;
    s = body();
    if (s.ok() && FTC_FAULT("ftc/store/commit", EIO))
      s = Status::Unavailable("commit failed: disk I/O error");
    if (s.ok()) s = m_db->Run(kCommitSql, {});
    if (s.ok()) FTC_FAULT_MOMENT("ftc/store/committed");
    // After a failed commit the transaction is already over; the rollback then only fails.
    if (!s.ok()) (void)m_db->Run(kRollbackSql, {});
    return s;
  }

  Status Lock(int64_t id, Locked* d, bool* found) {
    *found = false;
    return m_db->Run(m_db->IsPostgres() ? kLockDeploymentPostgresSql : kLockDeploymentSqliteSql,
                     {Value::Int(id)}, [&](const Row& r) {
                       *found = true;
                       d->id = Number(r[0]);
                       d->bundle = Text(r[1]);
                       d->created = Text(r[2]);
                       d->state = Text(r[3]);
                       d->phases = Text(r[4]);
                       d->phase = static_cast<int>(Number(r[5]));
                       if (r[6]) d->maxFailures = Number(r[6]);
                       d->percent = Number(r[7]) != 0;
                       d->forgiven = Number(r[8]);
                       d->deadline = Text(r[9]);
                       return true;
                     });
  }

  static int64_t Count(const DeploymentRow& row, const char* state) {
    for (const auto& [name, n] : row.counts)
      if (name == state) return n;
    return 0;
  }
  static int64_t Failures(const DeploymentRow& row) {
    return Count(row, "failed") + Count(row, "refused");
  }

  Status Counts(DeploymentRow* row) {
    row->counts.clear();
    row->devices = 0;
    return m_db->Run(kCountStatesSql, {Value::Int(row->id)}, [&](const Row& r) {
      row->counts.emplace_back(Text(r[0]), Number(r[1]));
      row->devices += Number(r[1]);
      return true;
    });
  }

  // Locks the deployment and brings it up to `now`: past its deadline every device without an
  // outcome has timed out; too many failures pause it; a phase whose devices all have an
  // outcome opens the next. Judged whenever it is looked at, so no server needs a timer.
  Status Judge(int64_t id, const std::string& now, bool* found, DeploymentRow* row) {
    Locked d;
    Status s = Lock(id, &d, found);
    if (!s.ok() || !*found) return s;
    row->id = id;
    std::string state = d.state;
    int phase = d.phase;
    bool live = state == "running" || state == "paused";
    if (live && !d.deadline.empty() && d.deadline <= now) {
      s = m_db->Run(kTimeOutSql, {Value::Int(id), Value::Text(now)});
      state = "done";
    }
    if (s.ok()) s = Counts(row);
    while (s.ok() && state == "running") {
      if (d.maxFailures) {
        int64_t limit = d.percent ? row->devices * *d.maxFailures / 100 : *d.maxFailures;
        if (Failures(*row) - d.forgiven > limit) {
          state = "paused";
          break;
        }
      }
      int64_t unfinished = 0;
      s = m_db->Run(kUnfinishedSql, {Value::Int(id), Value::Int(phase)}, [&](const Row& r) {
        unfinished = Number(r[0]);
        return true;
      });
      if (!s.ok() || unfinished > 0) break;
      if (phase + 1 >= PhaseCount(d.phases)) {
        state = "done";
        break;
      }
      ++phase;
    }
    if (s.ok() && (state != d.state || phase != d.phase))
      s = m_db->Run(kSetDeploymentSql, {Value::Int(id), Value::Text(state), Value::Int(phase),
                                        Value::Int(d.forgiven)});
    if (s.ok()) s = Remember(id, now, *row);
    row->bundle = d.bundle;
    row->created = d.created;
    row->state = state;
    row->phases = d.phases;
    row->phase = phase;
    row->deadline = d.deadline;
    row->maxFailures =
        !d.maxFailures ? "" : std::to_string(*d.maxFailures) + (d.percent ? "%" : "");
    return s;
  }

  // The devices by state, kept each time they differ from the last look, for the fleet page's
  // picture of the deployment over time.
  Status Remember(int64_t id, const std::string& now, const DeploymentRow& row) {
    std::string counts;
    for (const auto& [state, n] : row.counts)
      counts += (counts.empty() ? "" : ",") + state + "=" + std::to_string(n);
    std::optional<std::string> last;
    Status s = m_db->Run(kLastHistorySql, {Value::Int(id)}, [&](const Row& r) {
      last = Text(r[0]);
      return true;
    });
    if (!s.ok() || last == counts) return s;
    return m_db->Run(kInsertHistorySql, {Value::Int(id), Value::Text(now), Value::Text(counts)});
  }

  // A device's job moves on; a state it has already passed is left alone.
  Status Mark(int64_t id, const std::string& device, const std::string& state, int64_t code,
              const std::string& text, const std::string& now) {
    if (state == "started")
      return m_db->Run(kMarkStartedSql,
                       {Value::Int(id), Value::Text(device), Value::Text(text), Value::Text(now)});
    return m_db->Run(kMarkOutcomeSql, {Value::Int(id), Value::Text(device), Value::Text(state),
                                       state == "refused" ? Value::Int(code) : Value(),
                                       Value::Text(text), Value::Text(now)});
  }

  // What an agent restarted mid-job found on disk decides the job's state; with nothing found
  // the job may be fetched again.
  Status Resumed(const Checkin& in, const std::string& now) {
    int64_t id = *in.resumedDeployment;
    Locked d;
    bool found = false;
    Status s = Lock(id, &d, &found);
    if (!s.ok() || !found) return s;
    if (in.resumedFound == "none")
      return m_db->Run(kResetSentSql, {Value::Int(id), Value::Text(in.device), Value::Text(now)});
    if (in.resumedFound == "complete" || in.resumedFound == "failed" ||
        in.resumedFound == "started")
      return Mark(id, in.device, in.resumedFound, 0, "", now);
    return s;
  }

  // 205181 started, 205182 complete, 205180 failed: the device's events move its state in the
  // deployment whose job it holds, so that an agent that died before reporting still counts.
  Status JobEvent(const std::string& device, const MessageRow& m, const std::string& now) {
    const char* state = m.code == "205181"   ? "started"
                        : m.code == "205182" ? "complete"
                        : m.code == "205180" ? "failed"
                                             : nullptr;
    if (!state) return Status::Ok();
    std::optional<int64_t> id;
    Status s = m_db->Run(kCurrentDeploymentSql, {Value::Text(device)}, [&](const Row& r) {
      id = Number(r[0]);
      return true;
    });
    if (!s.ok() || !id) return s;
    Locked d;
    bool found = false;
    if (s = Lock(*id, &d, &found); !s.ok() || !found) return s;
    if (s = Mark(*id, device, state, 0, m.text, now); !s.ok()) return s;
    DeploymentRow row;
    return Judge(*id, now, &found, &row);
  }

  Status Touch(const std::string& device, const std::string& received) {
    return m_db->Run(kTouchDeviceSql, {Value::Text(device), Value::Text(received)});
  }

  Status ReadVersion(int* version) {
    return m_db->Run(kSchemaVersionSql, {}, [&](const Row& r) {
      *version = static_cast<int>(Number(r[0]));
      return true;
    });
  }

  // A migration as single statements in this database's spelling.
  std::vector<std::string> Statements(std::string sql) const {
    bool pg = m_db->IsPostgres();
    auto replace = [&](const std::string& what, const char* with) {
      for (size_t at; (at = sql.find(what)) != std::string::npos;)
        sql.replace(at, what.size(), with);
    };
    replace("{id}",
            pg ? "BIGINT GENERATED BY DEFAULT AS IDENTITY PRIMARY KEY" : "INTEGER PRIMARY KEY");
    replace("{blob}", pg ? "BYTEA" : "BLOB");
    std::vector<std::string> out;
    for (size_t from = 0, end; from < sql.size(); from = end + 1) {
      end = sql.find(';', from);
      if (end == std::string::npos) end = sql.size();
      if (end > from) out.push_back(sql.substr(from, end - from));
    }
    return out;
  }

  std::unique_ptr<Database> m_db;
};

}  // namespace

int SchemaVersion() {
  return static_cast<int>(std::size(kMigrations));
}

std::unique_ptr<Store> OpenStore(const std::string& url, OpenMode mode, std::string* error) {
  std::unique_ptr<Database> db;
  if (url.rfind("sqlite:", 0) == 0) {
    std::string path = url.substr(7);
    if (path.empty()) {
      *error = "sqlite: needs a path";
      return nullptr;
    }
    db = OpenSqlite(path, mode == OpenMode::kServe, error);
  } else if (url.rfind("postgresql://", 0) == 0 || url.rfind("postgres://", 0) == 0) {
    db = OpenPostgres(url, error);
  } else {
    *error = "unknown database URL " + url + " (sqlite:PATH or postgresql://...)";
    return nullptr;
  }
  if (!db) return nullptr;
  auto store = std::make_unique<SqlStore>(std::move(db));
  Status s = mode == OpenMode::kServe ? store->Migrate() : store->CheckVersion();
  if (!s.ok()) {
    *error = s.message;
    return nullptr;
  }
  return store;
}

}  // namespace ftcstore
