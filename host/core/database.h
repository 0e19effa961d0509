// A thin owner for SQLite: connections, prepared statements and versioned schemas.
//
// A Database and its Statements belong to one thread at a time; whoever shares one brings a mutex.
// Two connections to the same file may be used at once (write-ahead log). Errors are thrown as
// DatabaseError, which is a Failure naming the file.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/core/failure.h"

namespace host {

class DatabaseError : public Failure {
 public:
  DatabaseError(const std::string& what, const std::string& advice, int number)
      : Failure(what, advice), sqliteCode(number) {}

  int SqliteCode() const { return sqliteCode; }

 private:
  int sqliteCode;
};

class Statement;

/// One connection. Opens (and makes) the file in write-ahead-log mode with foreign keys on and a
/// busy time-out of five seconds.
class Database {
 public:
  explicit Database(const std::filesystem::path& file);

  /// Runs statements that return nothing, separated by semicolons.
  void Run(const std::string& sql);
  Statement Prepare(std::string_view sql);
  /// Rows changed by the last statement.
  int Changes() const;
  int64_t LastRowId() const;
  const std::filesystem::path& File() const { return file; }

  /// Brings the tables of one component up to date: `steps[n]` leads from version n to n + 1, all
  /// in one transaction. Throws when the file was written by a newer program.
  void Migrate(const std::string& component, const std::vector<std::string>& steps);

  [[noreturn]] void Fail(const std::string& doing, int code) const;

 private:
  struct Close {
    void operator()(sqlite3* connection) const { sqlite3_close_v2(connection); }
  };

  std::filesystem::path file;
  std::unique_ptr<sqlite3, Close> connection;
};

/// A prepared statement: bind by position (from 1), step, read columns (from 0). Must not outlive
/// its Database.
class Statement {
 public:
  Statement(Database& database, sqlite3_stmt* statement);

  Statement& Bind(int position, int64_t value);
  Statement& Bind(int position, std::string_view text);
  Statement& BindBlob(int position, std::string_view bytes);
  Statement& BindNull(int position);
  /// True when there is a row to read.
  bool Step();
  /// Steps to the end and makes the statement ready for other values.
  void Run();
  /// Ready to be stepped again; bound values stay.
  void Reset();

  bool IsNull(int column) const;
  int64_t Integer(int column) const;
  std::string Text(int column) const;  ///< text or blob, as bytes

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };

  Statement& Check(int code);

  Database* database;
  std::unique_ptr<sqlite3_stmt, Finalize> statement;
};

/// Begins at once for writing; rolls back unless committed.
class Transaction {
 public:
  explicit Transaction(Database& database);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void Commit();

 private:
  Database& database;
  bool open = true;
};

}  // namespace host
