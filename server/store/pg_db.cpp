#include <libpq-fe.h>

#include <chrono>
#include <cstdlib>
#include <set>

#include "database.h"

namespace ftcstore {
namespace {

constexpr Oid kByteaOid = 17;
// While the server is down each request answers 503 at once; a reconnection is tried at most
// this often, so that a dead database costs a worker one connect attempt per interval.
constexpr auto kReconnectInterval = std::chrono::seconds(1);

struct ResultDeleter {
  void operator()(PGresult* r) const { PQclear(r); }
};
using Result = std::unique_ptr<PGresult, ResultDeleter>;

void IgnoreNotice(void*, const char*) {}

class PgDb : public Database {
 public:
  ~PgDb() override {
    if (m_conn) PQfinish(m_conn);
  }

  std::string Connect(const std::string& url) {
    m_url = url;
    // Settings before the URL, so that the URL's own win.
    const char* keys[] = {"connect_timeout", "client_encoding", "application_name", "dbname",
                          nullptr};
    const char* values[] = {"3", "UTF8", "ftc-server", url.c_str(), nullptr};
    m_conn = PQconnectdbParams(keys, values, 1);
    m_lastAttempt = std::chrono::steady_clock::now();
    if (!m_conn) return "out of memory";
    if (PQstatus(m_conn) != CONNECTION_OK) return Describe();
    PQsetNoticeProcessor(m_conn, IgnoreNotice, nullptr);
    return {};
  }

  Status Run(const Statement& st, const std::vector<Value>& params,
             const std::function<bool(const Row&)>& each, int64_t* changed) override {
    if (PQstatus(m_conn) != CONNECTION_OK) return Status::Unavailable(Describe());
    std::string name = "s" + std::to_string(st.id);
    if (!m_prepared.count(st.id)) {
      Result r(PQprepare(m_conn, name.c_str(), st.sql, 0, nullptr));
      if (PQresultStatus(r.get()) != PGRES_COMMAND_OK) return Error(r.get());
      m_prepared.insert(st.id);
    }
    std::vector<const char*> values(params.size());
    std::vector<int> lengths(params.size()), formats(params.size());
    std::vector<std::string> numbers(params.size());
    for (size_t i = 0; i < params.size(); ++i) {
      const Value& v = params[i];
      if (v.type == Value::kNull) continue;
      if (v.type == Value::kInt) {
        numbers[i] = std::to_string(v.number);
        values[i] = numbers[i].c_str();
        continue;
      }
      values[i] = v.bytes.c_str();
      lengths[i] = static_cast<int>(v.bytes.size());
      formats[i] = v.type == Value::kBlob ? 1 : 0;
    }
    int n = static_cast<int>(params.size());
    if (!PQsendQueryPrepared(m_conn, name.c_str(), n, values.data(), lengths.data(), formats.data(),
                             0))
      return Status::Unavailable(Describe());
    // One row at a time, so that a long listing is not held in memory whole.
    if (each) PQsetSingleRowMode(m_conn);
    Status status;
    bool wanted = true;
    Row row;
    while (PGresult* raw = PQgetResult(m_conn)) {
      Result r(raw);
      ExecStatusType t = PQresultStatus(raw);
      if (t == PGRES_SINGLE_TUPLE || t == PGRES_TUPLES_OK) {
        for (int i = 0; wanted && each && i < PQntuples(raw); ++i) {
          int columns = PQnfields(raw);
          row.assign(static_cast<size_t>(columns), std::nullopt);
          for (int c = 0; c < columns; ++c) {
            if (PQgetisnull(raw, i, c)) continue;
            const char* text = PQgetvalue(raw, i, c);
            if (PQftype(raw, c) == kByteaOid) {
              size_t size = 0;
              unsigned char* bytes =
                  PQunescapeBytea(reinterpret_cast<const unsigned char*>(text), &size);
              if (bytes) row[static_cast<size_t>(c)].emplace(reinterpret_cast<char*>(bytes), size);
              PQfreemem(bytes);
            } else {
              row[static_cast<size_t>(c)].emplace(text,
                                                  static_cast<size_t>(PQgetlength(raw, i, c)));
            }
          }
          wanted = each(row);
        }
      } else if (t == PGRES_COMMAND_OK) {
        if (changed) *changed = std::atoll(PQcmdTuples(raw));
      } else if (status.ok()) {
        status = Error(raw);
      }
    }
    return status;
  }

  Status Execute(const std::string& sql) override {
    Result r(PQexecParams(m_conn, sql.c_str(), 0, nullptr, nullptr, nullptr, nullptr, 0));
    ExecStatusType t = PQresultStatus(r.get());
    if (t == PGRES_COMMAND_OK || t == PGRES_TUPLES_OK) return Status::Ok();
    return Error(r.get());
  }

  Status Ready() override {
    if (PQstatus(m_conn) == CONNECTION_OK) return Status::Ok();
    auto now = std::chrono::steady_clock::now();
    if (now - m_lastAttempt < kReconnectInterval) return Status::Unavailable(Describe());
    m_lastAttempt = now;
    m_prepared.clear();  // they went with the old session
    PQreset(m_conn);
    if (PQstatus(m_conn) != CONNECTION_OK) return Status::Unavailable(Describe());
    return Status::Ok();
  }

  bool IsPostgres() const override { return true; }

 private:
  std::string Describe() const {
    std::string e = m_conn ? PQerrorMessage(m_conn) : "no connection";
    while (!e.empty() && (e.back() == '\n' || e.back() == ' ')) e.pop_back();
    return "postgresql: " + (e.empty() ? std::string("connection lost") : e);
  }

  Status Error(const PGresult* r) {
    if (PQstatus(m_conn) != CONNECTION_OK) return Status::Unavailable(Describe());
    std::string e = r ? PQresultErrorMessage(r) : PQerrorMessage(m_conn);
    while (!e.empty() && e.back() == '\n') e.pop_back();
    const char* state = r ? PQresultErrorField(r, PG_DIAG_SQLSTATE) : nullptr;
    // Class 08 (connection), 40 (serialization, deadlock), 53 (resources), 57 (shut down).
    std::string c = state ? std::string(state, 2) : "08";
    bool transient = c == "08" || c == "40" || c == "53" || c == "57";
    e = "postgresql: " + e;
    return transient ? Status::Unavailable(e) : Status::Failed(e);
  }

  std::string m_url;
  PGconn* m_conn = nullptr;
  std::set<int> m_prepared;
  std::chrono::steady_clock::time_point m_lastAttempt;
};

}  // namespace

std::unique_ptr<Database> OpenPostgres(const std::string& url, std::string* error) {
  auto db = std::make_unique<PgDb>();
  if (std::string e = db->Connect(url); !e.empty()) {
    *error = e;
    return nullptr;
  }
  return db;
}

}  // namespace ftcstore
