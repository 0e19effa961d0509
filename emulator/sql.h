// A thin, typed layer over SQLite: a database connection with a cache of prepared statements.
//
// A Database is used by one thread at a time; the store guards it with its mutex.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace emulator {

class SqlError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct SqliteClose {
  void operator()(sqlite3* database) const { sqlite3_close(database); }
};
struct StatementFinalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using DatabaseHandle = std::unique_ptr<sqlite3, SqliteClose>;
using StatementHandle = std::unique_ptr<sqlite3_stmt, StatementFinalize>;

class Database;

/// One use of a prepared statement; goes back to the cache when it ends.
class Statement {
 public:
  Statement(Database& owner, std::string text, StatementHandle handle);
  ~Statement();
  Statement(Statement&&) = default;

  Statement& Bind(int64_t value);
  Statement& Bind(int value) { return Bind(static_cast<int64_t>(value)); }
  Statement& Bind(std::string_view value);
  Statement& Bind(const char* value) { return Bind(std::string_view(value)); }
  Statement& Bind(const std::string& value) { return Bind(std::string_view(value)); }
  Statement& Bind(double value);

  /// Moves to the next row; false at the end.
  bool Step();
  /// Runs to the end, for statements without rows.
  void Run();
  /// Makes it ready to be bound and run again.
  void Reset();

  int64_t Int(int column) const;
  std::string Text(int column) const;
  /// Valid until the next Step.
  std::string_view View(int column) const;
  bool IsText(int column) const;

 private:
  [[noreturn]] void Fail() const;

  Database* owner;
  std::string text;
  StatementHandle handle;
  int bound = 0;
};

class Database {
 public:
  /// `file` may be ":memory:". Throws SqlError naming the file.
  explicit Database(const std::string& file);

  /// Statements are kept by their text, so texts must be few: values are always bound.
  template <typename... Values>
  Statement Query(const std::string& text, const Values&... values) {
    Statement statement = Prepare(text);
    (statement.Bind(values), ...);
    return statement;
  }

  template <typename... Values>
  void Run(const std::string& text, const Values&... values) {
    Query(text, values...).Run();
  }

  /// The first column of the first row, or `otherwise`.
  template <typename... Values>
  int64_t Number(const std::string& text, int64_t otherwise, const Values&... values) {
    Statement statement = Query(text, values...);
    return statement.Step() ? statement.Int(0) : otherwise;
  }

  /// Several statements without values.
  void Script(const std::string& text);
  int64_t LastRow() const { return sqlite3_last_insert_rowid(handle.get()); }
  int64_t Changed() const { return sqlite3_changes64(handle.get()); }
  sqlite3* Raw() const { return handle.get(); }

 private:
  friend class Statement;
  Statement Prepare(const std::string& text);
  void GiveBack(std::string text, StatementHandle statement);

  DatabaseHandle handle;
  std::unordered_map<std::string, std::vector<StatementHandle>> idle;
};

}  // namespace emulator
