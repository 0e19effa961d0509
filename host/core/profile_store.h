// The profile of one account: named texts in the profile's database.
//
// The plug-in reads and writes its values through IProtocolManager in the section that it is told
// as its profile id; the host keeps its own values (remembered options) in sections of its own.
// All operations may be called from any thread. The database is shared with the mount, which
// opens a connection of its own to the same file.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "host/core/database.h"
#include "host/core/paths.h"
#include "plugin/host_interfaces.h"

namespace host {

class ProfileStore final : public IProtocolManager {
 public:
  /// Opens or makes the database. Throws Failure when it cannot be read, is damaged or was written
  /// by a newer program.
  explicit ProfileStore(const ProfilePaths& paths);

  /// The section of the plug-in's own values; what GetProfileID answers.
  const std::string& Id() const { return id; }

  std::optional<std::string> Value(const std::string& section, const std::string& key) const;
  void SetValue(const std::string& section, const std::string& key, const std::string& value);
  void RemoveValue(const std::string& section, const std::string& key);
  std::map<std::string, std::string> Values(const std::string& section) const;

  /// The same for the plug-in's section.
  std::optional<std::string> Value(const std::string& key) const { return Value(id, key); }

  using Listener = std::function<void(const std::string& key, const std::string& value)>;
  /// Tells of every value that the plug-in stores, on its thread and before it is stored. Null ends
  /// that: no call is under way when it returns.
  void Listen(Listener heard);

  // IProtocolManager: 0 on success, otherwise an AERROR as a number. A buffer that is too small is
  // answered with INSUFFICIENT_BUFFER and the needed length; the terminating NUL must fit too.
  int GetProfileID(const char* module, char* buffer, int* length) override;
  int SetValue(const char* profile, const char* key, const char* value, int flag) override;
  int GetValue(const char* profile, const char* key, char* buffer, int* length) override;

 private:
  std::string id;
  mutable std::mutex mutex;
  mutable Database database;  // guarded by mutex
  std::mutex listening;
  Listener listener;  // guarded by listening
};

}  // namespace host
