#include "emulator/sql.h"

namespace emulator {

namespace {

constexpr size_t kMostIdleStatements = 500;

}  // namespace

Statement::Statement(Database& owningDatabase, std::string sql, StatementHandle prepared)
    : owner(&owningDatabase), text(std::move(sql)), handle(std::move(prepared)) {}

Statement::~Statement() {
  if (!handle) return;
  Reset();
  owner->GiveBack(std::move(text), std::move(handle));
}

Statement& Statement::Bind(int64_t value) {
  if (sqlite3_bind_int64(handle.get(), ++bound, value) != SQLITE_OK) Fail();
  return *this;
}

Statement& Statement::Bind(std::string_view value) {
  const int result = sqlite3_bind_text64(handle.get(), ++bound, value.data(), value.size(),
                                         SQLITE_TRANSIENT, SQLITE_UTF8);
  if (result != SQLITE_OK) Fail();
  return *this;
}

Statement& Statement::Bind(double value) {
  if (sqlite3_bind_double(handle.get(), ++bound, value) != SQLITE_OK) Fail();
  return *this;
}

bool Statement::Step() {
  const int result = sqlite3_step(handle.get());
  if (result != SQLITE_ROW && result != SQLITE_DONE) Fail();
  return result == SQLITE_ROW;
}

void Statement::Run() {
  while (Step()) {
  }
}

void Statement::Reset() {
  sqlite3_reset(handle.get());
  sqlite3_clear_bindings(handle.get());
  bound = 0;
}

int64_t Statement::Int(int column) const { return sqlite3_column_int64(handle.get(), column); }

std::string Statement::Text(int column) const { return std::string(View(column)); }

std::string_view Statement::View(int column) const {
  const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(handle.get(), column));
  if (bytes == nullptr) return {};
  return {bytes, static_cast<size_t>(sqlite3_column_bytes(handle.get(), column))};
}

bool Statement::IsText(int column) const {
  return sqlite3_column_type(handle.get(), column) == SQLITE_TEXT;
}

void Statement::Fail() const {
  throw SqlError(std::string("the store failed: ") + sqlite3_errmsg(owner->Raw()) + " in " + text);
}

Database::Database(const std::string& file) {
  // Statistics of SQLite's memory would take a lock for every value that is read. Refused, without
  // harm, once a connection is open.
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  sqlite3* opened = nullptr;
  const int result =
      sqlite3_open_v2(file.c_str(), &opened,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  handle.reset(opened);
  if (result != SQLITE_OK) {
    throw SqlError("cannot open the store " + file + ": " + sqlite3_errstr(result) +
                   "; check that its folder exists and may be written");
  }
}

void Database::Script(const std::string& text) {
  char* message = nullptr;
  if (sqlite3_exec(handle.get(), text.c_str(), nullptr, nullptr, &message) == SQLITE_OK) return;
  const std::string reason = message != nullptr ? message : "unknown";
  sqlite3_free(message);
  throw SqlError("the store failed: " + reason + " in " + text);
}

Statement Database::Prepare(const std::string& text) {
  const auto found = idle.find(text);
  if (found != idle.end() && !found->second.empty()) {
    StatementHandle statement = std::move(found->second.back());
    found->second.pop_back();
    return Statement(*this, text, std::move(statement));
  }
  sqlite3_stmt* prepared = nullptr;
  if (sqlite3_prepare_v2(handle.get(), text.c_str(), -1, &prepared, nullptr) != SQLITE_OK) {
    throw SqlError(std::string("the store failed: ") + sqlite3_errmsg(handle.get()) + " in " +
                   text);
  }
  return Statement(*this, text, StatementHandle(prepared));
}

void Database::GiveBack(std::string text, StatementHandle statement) {
  if (idle.size() > kMostIdleStatements) idle.clear();
  idle[std::move(text)].push_back(std::move(statement));
}

}  // namespace emulator
