#include "host/core/profile_store.h"

#include <cstring>

namespace host {
namespace {

const std::vector<std::string> kSchema = {
    "CREATE TABLE profile_value(section TEXT NOT NULL, key TEXT NOT NULL, value TEXT NOT NULL, "
    "PRIMARY KEY(section, key)) WITHOUT ROWID",
};

int Number(AERROR code) { return static_cast<int>(code); }

int Fill(const std::string& text, char* buffer, int* length) {
  const int room = *length;
  *length = static_cast<int>(text.size());
  if (room <= *length) return Number(AERROR::INSUFFICIENT_BUFFER);
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  return Number(AERROR::SUCCESS);
}

std::filesystem::path Prepared(const ProfilePaths& paths) {
  MakePrivateDirectory(paths.data);
  return paths.Database();
}

}  // namespace

ProfileStore::ProfileStore(const ProfilePaths& paths) : id(paths.name), database(Prepared(paths)) {
  database.Migrate("profile", kSchema);
}

std::optional<std::string> ProfileStore::Value(const std::string& section,
                                               const std::string& key) const {
  std::lock_guard lock(mutex);
  Statement read =
      database.Prepare("SELECT value FROM profile_value WHERE section = ? AND key = ?");
  read.Bind(1, section).Bind(2, key);
  if (!read.Step()) return std::nullopt;
  return read.Text(0);
}

void ProfileStore::SetValue(const std::string& section, const std::string& key,
                            const std::string& value) {
  std::lock_guard lock(mutex);
  database.Prepare("INSERT OR REPLACE INTO profile_value(section, key, value) VALUES(?, ?, ?)")
      .Bind(1, section)
      .Bind(2, key)
      .Bind(3, value)
      .Run();
}

void ProfileStore::RemoveValue(const std::string& section, const std::string& key) {
  std::lock_guard lock(mutex);
  database.Prepare("DELETE FROM profile_value WHERE section = ? AND key = ?")
      .Bind(1, section)
      .Bind(2, key)
      .Run();
}

std::map<std::string, std::string> ProfileStore::Values(const std::string& section) const {
  std::lock_guard lock(mutex);
  std::map<std::string, std::string> values;
  Statement read = database.Prepare("SELECT key, value FROM profile_value WHERE section = ?");
  read.Bind(1, section);
  while (read.Step()) values[read.Text(0)] = read.Text(1);
  return values;
}

void ProfileStore::Listen(Listener heard) {
  std::lock_guard lock(listening);
  listener = std::move(heard);
}

int ProfileStore::GetProfileID(const char*, char* buffer, int* length) {
  if (buffer == nullptr || length == nullptr) return Number(AERROR::INVALID_PARAMETER);
  return Fill(id, buffer, length);
}

int ProfileStore::SetValue(const char* profile, const char* key, const char* value, int) {
  if (profile == nullptr || key == nullptr || value == nullptr)
    return Number(AERROR::INVALID_PARAMETER);
  try {
    {
      std::lock_guard lock(listening);
      if (listener) listener(key, value);
    }
    SetValue(std::string(profile), key, value);
    return Number(AERROR::SUCCESS);
  } catch (const std::exception&) {
    return Number(AERROR::SAVE_FAILED);
  }
}

int ProfileStore::GetValue(const char* profile, const char* key, char* buffer, int* length) {
  if (profile == nullptr || key == nullptr || buffer == nullptr || length == nullptr)
    return Number(AERROR::INVALID_PARAMETER);
  try {
    const auto value = Value(std::string(profile), key);
    return value ? Fill(*value, buffer, length) : Number(AERROR::FILE_NOT_FOUND);
  } catch (const std::exception&) {
    return Number(AERROR::FAILED);
  }
}

}  // namespace host
