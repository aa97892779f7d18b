// The two database client libraries behind one narrow seam: prepared statements with "$N"
// placeholders, rows as texts. The store's SQL is written once above it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "store.h"

namespace ftcstore {

struct Value {
  enum Type { kNull, kText, kInt, kBlob };
  Type type = kNull;
  std::string bytes;
  int64_t number = 0;

  static Value Text(std::string_view s) { return {kText, std::string(s), 0}; }
  static Value Blob(std::string_view s) { return {kBlob, std::string(s), 0}; }
  static Value Int(int64_t n) { return {kInt, {}, n}; }
  static Value OptText(const std::optional<std::string>& s) { return s ? Text(*s) : Value(); }
  static Value OptInt(const std::optional<int64_t>& n) { return n ? Int(*n) : Value(); }
};

// Columns as text (integers in decimal, blobs as their bytes); nullopt for NULL.
using Row = std::vector<std::optional<std::string>>;

// id: small and unique per statement, the key of the connection's prepared-statement cache.
struct Statement {
  int id;
  const char* sql;
};

class Database {
 public:
  virtual ~Database() = default;
  // Prepares the statement on first use on this connection. Each row goes to `each` (when
  // given) until it returns false; *changed receives the rows inserted, updated or deleted.
  [[nodiscard]] virtual Status Run(const Statement& st, const std::vector<Value>& params,
                                   const std::function<bool(const Row&)>& each = nullptr,
                                   int64_t* changed = nullptr) = 0;
  // Schema changes: plain statements without parameters.
  [[nodiscard]] virtual Status Execute(const std::string& sql) = 0;
  // Before a transaction: whether the database can be reached, reconnecting when it is time.
  [[nodiscard]] virtual Status Ready() = 0;
  virtual bool IsPostgres() const = 0;
};

// create: make the file when missing. ":memory:" is a private in-memory database.
std::unique_ptr<Database> OpenSqlite(const std::string& path, bool create, std::string* error);
std::unique_ptr<Database> OpenPostgres(const std::string& url, std::string* error);

}  // namespace ftcstore
