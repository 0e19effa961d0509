#include "host/core/database.h"

namespace host {
namespace {

constexpr int kBusyMilliseconds = 5000;

std::string AdviceFor(int code) {
  switch (code & 0xff) {
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
      return "move the file away to start over, it is damaged or is not a profile";
    case SQLITE_CANTOPEN:
    case SQLITE_READONLY:
    case SQLITE_PERM:
      return "check that you own the file and its folder";
    case SQLITE_FULL:
      return "make room on the disk";
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return "another vormlane is writing to it, try again";
    default:
      return "check the disk and the folder's permissions";
  }
}

}  // namespace

Database::Database(const std::filesystem::path& databaseFile) : file(databaseFile) {
  sqlite3* opened = nullptr;
  const int code =
      sqlite3_open_v2(file.c_str(), &opened,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  connection.reset(opened);
  if (code != SQLITE_OK) Fail("open", code);
  sqlite3_busy_timeout(opened, kBusyMilliseconds);
  Run("PRAGMA journal_mode = WAL; PRAGMA foreign_keys = ON;");
}

void Database::Run(const std::string& sql) {
  const int code = sqlite3_exec(connection.get(), sql.c_str(), nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) Fail("use", code);
}

Statement Database::Prepare(std::string_view sql) {
  sqlite3_stmt* statement = nullptr;
  const int code = sqlite3_prepare_v2(connection.get(), sql.data(), static_cast<int>(sql.size()),
                                      &statement, nullptr);
  if (code != SQLITE_OK) Fail("use", code);
  return Statement(*this, statement);
}

int Database::Changes() const { return sqlite3_changes(connection.get()); }

int64_t Database::LastRowId() const { return sqlite3_last_insert_rowid(connection.get()); }

void Database::Migrate(const std::string& component, const std::vector<std::string>& steps) {
  Transaction transaction(*this);
  Run("CREATE TABLE IF NOT EXISTS schema_version("
      "component TEXT PRIMARY KEY, version INTEGER NOT NULL) WITHOUT ROWID");
  size_t version = 0;
  Statement read = Prepare("SELECT version FROM schema_version WHERE component = ?");
  read.Bind(1, component);
  if (read.Step()) version = static_cast<size_t>(read.Integer(0));
  read.Reset();
  if (version > steps.size())
    throw DatabaseError("cannot use " + file.string() + ": a newer vormlane has written it",
                        "install that version again", SQLITE_SCHEMA);
  for (size_t step = version; step < steps.size(); ++step) Run(steps[step]);
  Prepare("INSERT OR REPLACE INTO schema_version(component, version) VALUES(?, ?)")
      .Bind(1, component)
      .Bind(2, static_cast<int64_t>(steps.size()))
      .Run();
  transaction.Commit();
}

void Database::Fail(const std::string& doing, int code) const {
  const char* reason = connection ? sqlite3_errmsg(connection.get()) : sqlite3_errstr(code);
  throw DatabaseError(
      "cannot " + doing + " the profile's database " + file.string() + ": " + reason,
      AdviceFor(code), code);
}

Statement::Statement(Database& owner, sqlite3_stmt* prepared)
    : database(&owner), statement(prepared) {}

Statement& Statement::Check(int code) {
  if (code != SQLITE_OK) database->Fail("use", code);
  return *this;
}

Statement& Statement::Bind(int position, int64_t value) {
  return Check(sqlite3_bind_int64(statement.get(), position, value));
}

Statement& Statement::Bind(int position, std::string_view text) {
  return Check(sqlite3_bind_text64(statement.get(), position, text.data(), text.size(),
                                   SQLITE_TRANSIENT, SQLITE_UTF8));
}

Statement& Statement::BindBlob(int position, std::string_view bytes) {
  return Check(
      sqlite3_bind_blob64(statement.get(), position, bytes.data(), bytes.size(), SQLITE_TRANSIENT));
}

Statement& Statement::BindNull(int position) {
  return Check(sqlite3_bind_null(statement.get(), position));
}

bool Statement::Step() {
  const int code = sqlite3_step(statement.get());
  if (code == SQLITE_ROW) return true;
  if (code == SQLITE_DONE) return false;
  // Whoever catches the failure finds the statement ready for other values.
  struct Rewind {
    sqlite3_stmt* statement;
    ~Rewind() { sqlite3_reset(statement); }
  } const rewind{statement.get()};
  database->Fail("use", code);
}

void Statement::Run() {
  while (Step()) {
  }
  Reset();
}

void Statement::Reset() { sqlite3_reset(statement.get()); }

bool Statement::IsNull(int column) const {
  return sqlite3_column_type(statement.get(), column) == SQLITE_NULL;
}

int64_t Statement::Integer(int column) const {
  return sqlite3_column_int64(statement.get(), column);
}

std::string Statement::Text(int column) const {
  const void* bytes = sqlite3_column_blob(statement.get(), column);
  if (bytes == nullptr) return {};
  return {static_cast<const char*>(bytes),
          static_cast<size_t>(sqlite3_column_bytes(statement.get(), column))};
}

Transaction::Transaction(Database& owner) : database(owner) { database.Run("BEGIN IMMEDIATE"); }

Transaction::~Transaction() {
  if (!open) return;
  try {
    database.Run("ROLLBACK");
  } catch (const DatabaseError&) {
    // SQLite has rolled back on its own after a full disk or an I/O error.
  }
}

void Transaction::Commit() {
  database.Run("COMMIT");
  open = false;
}

}  // namespace host
