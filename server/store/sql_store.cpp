// The store's schema and queries, the same SQL for both databases.
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

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
    " r.http_fallback, r.error"
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
      }
      return Touch(device, received);
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

 private:
  template <typename F>
  Status Transaction(F body) {
    if (Status s = m_db->Ready(); !s.ok()) return s;
    Status s = m_db->Run(m_db->IsPostgres() ? kBeginPostgresSql : kBeginSqliteSql, {});
    if (!s.ok()) return s;
    s = body();
    if (s.ok()) s = m_db->Run(kCommitSql, {});
    // After a failed commit the transaction is already over; the rollback then only fails.
    if (!s.ok()) (void)m_db->Run(kRollbackSql, {});
    return s;
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
