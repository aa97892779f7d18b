#include <sqlite3.h>
#include <sys/stat.h>

#include <cctype>
#include <map>

#include "database.h"

namespace ftcstore {
namespace {

// A writer waits this long for another connection's transaction before giving up (503).
constexpr int kBusyTimeoutMs = 5000;

// "$N" becomes "?N", which SQLite binds by number exactly as PostgreSQL does.
std::string SqliteParams(const char* sql) {
  std::string out = sql;
  for (size_t i = 0; i + 1 < out.size(); ++i)
    if (out[i] == '$' && std::isdigit(static_cast<unsigned char>(out[i + 1]))) out[i] = '?';
  return out;
}

class SqliteDb : public Database {
 public:
  ~SqliteDb() override { Close(); }

  std::string Open(const std::string& path, bool create) {
    m_path = path;
    m_memory = path == ":memory:";
    if (!create && !m_memory) {
      struct stat st {};
      if (stat(path.c_str(), &st) != 0) return "no database at " + path;
    }
    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (create ? SQLITE_OPEN_CREATE : 0);
    if (sqlite3_open_v2(path.c_str(), &m_db, flags, nullptr) != SQLITE_OK) {
      std::string e = m_db ? sqlite3_errmsg(m_db) : "out of memory";
      Close();
      return "cannot open " + path + ": " + e;
    }
    sqlite3_busy_timeout(m_db, kBusyTimeoutMs);
    sqlite3_extended_result_codes(m_db, 1);
    // Every commit on disk before it is acknowledged; WAL lets the views read meanwhile.
    for (const char* pragma : {"PRAGMA journal_mode=WAL", "PRAGMA synchronous=FULL"})
      if (Status s = Execute(pragma); !s.ok()) {
        Close();
        return s.message;
      }
    if (!m_memory) stat(path.c_str(), &m_file);
    return {};
  }

  Status Run(const Statement& st, const std::vector<Value>& params,
             const std::function<bool(const Row&)>& each, int64_t* changed) override {
    if (!m_db) return Status::Unavailable("database " + m_path + " is not open");
    sqlite3_stmt*& stmt = m_prepared[st.id];
    if (!stmt) {
      std::string sql = SqliteParams(st.sql);
      if (sqlite3_prepare_v3(m_db, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) !=
          SQLITE_OK)
        return Error("prepare");
    }
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    for (size_t i = 0; i < params.size(); ++i) {
      const Value& v = params[i];
      int n = static_cast<int>(i + 1), rc = SQLITE_OK;
      switch (v.type) {
        case Value::kNull:
          rc = sqlite3_bind_null(stmt, n);
          break;
        case Value::kInt:
          rc = sqlite3_bind_int64(stmt, n, v.number);
          break;
        case Value::kText:
          rc = sqlite3_bind_text64(stmt, n, v.bytes.data(), v.bytes.size(), SQLITE_TRANSIENT,
                                   SQLITE_UTF8);
          break;
        case Value::kBlob:
          rc = sqlite3_bind_blob64(stmt, n, v.bytes.data(), v.bytes.size(), SQLITE_TRANSIENT);
          break;
      }
      if (rc != SQLITE_OK) return Error("bind");
    }
    int rc;
    Row row;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
      if (!each) continue;
      int columns = sqlite3_column_count(stmt);
      row.assign(static_cast<size_t>(columns), std::nullopt);
      for (int c = 0; c < columns; ++c) {
        if (sqlite3_column_type(stmt, c) == SQLITE_NULL) continue;
        const void* data = sqlite3_column_blob(stmt, c);
        int size = sqlite3_column_bytes(stmt, c);
        row[static_cast<size_t>(c)].emplace(static_cast<const char*>(data),
                                            static_cast<size_t>(size));
      }
      if (!each(row)) break;
    }
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
      Status s = Error("step");
      sqlite3_reset(stmt);
      return s;
    }
    if (changed) *changed = sqlite3_changes64(m_db);
    sqlite3_reset(stmt);
    return Status::Ok();
  }

  Status Execute(const std::string& sql) override {
    if (!m_db) return Status::Unavailable("database " + m_path + " is not open");
    char* message = nullptr;
    if (sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, &message) == SQLITE_OK)
      return Status::Ok();
    std::string e = message ? message : sqlite3_errmsg(m_db);
    sqlite3_free(message);
    return Status::Failed(m_path + ": " + e);
  }

  // The connection keeps writing to a file that was deleted or moved away; refuse instead,
  // and follow a file put back in its place.
  Status Ready() override {
    if (m_memory) return Status::Ok();
    struct stat st {};
    if (stat(m_path.c_str(), &st) != 0)
      return Status::Unavailable("database " + m_path + " is gone");
    if (m_db && st.st_dev == m_file.st_dev && st.st_ino == m_file.st_ino) return Status::Ok();
    Close();
    if (std::string e = Open(m_path, false); !e.empty()) return Status::Unavailable(e);
    return Status::Ok();
  }

  bool IsPostgres() const override { return false; }

 private:
  Status Error(const char* what) {
    int code = sqlite3_extended_errcode(m_db);
    std::string m = m_path + ": " + what + ": " + sqlite3_errmsg(m_db);
    int primary = code & 0xff;
    bool transient = primary == SQLITE_BUSY || primary == SQLITE_LOCKED ||
                     primary == SQLITE_IOERR || primary == SQLITE_FULL ||
                     primary == SQLITE_READONLY || primary == SQLITE_CANTOPEN ||
                     primary == SQLITE_NOMEM;
    return transient ? Status::Unavailable(m) : Status::Failed(m);
  }

  void Close() {
    for (auto& [id, stmt] : m_prepared) sqlite3_finalize(stmt);
    m_prepared.clear();
    if (m_db) sqlite3_close_v2(m_db);
    m_db = nullptr;
  }

  std::string m_path;
  bool m_memory = false;
  struct stat m_file {};
  sqlite3* m_db = nullptr;
  std::map<int, sqlite3_stmt*> m_prepared;
};

}  // namespace

std::unique_ptr<Database> OpenSqlite(const std::string& path, bool create, std::string* error) {
  auto db = std::make_unique<SqliteDb>();
  if (std::string e = db->Open(path, create); !e.empty()) {
    *error = e;
    return nullptr;
  }
  return db;
}

}  // namespace ftcstore
