// The loaded protocol module and the drives made with it.
//
// Load once per process and keep it until every drive is released. After loading, all operations
// may be called from any thread.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "plugin/host_interfaces.h"

namespace host {

struct ReleaseDrive {
  void operator()(IProtocol_V2* drive) const { drive->Release(); }
};
/// Owns a protocol object; its end calls Release.
using DrivePtr = std::unique_ptr<IProtocol_V2, ReleaseDrive>;

class Plugin {
 public:
  /// Opens the module, resolves everything it must export, checks its version and protocol, and
  /// binds the logger and the queue (either may be null); both must outlive this object. Throws
  /// Failure.
  Plugin(const std::filesystem::path& module, ILog* log, IAsyncQueue* queue);
  /// Unbinds logger and queue. Every drive must have been released.
  ~Plugin();
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  /// `manager` is not owned and must outlive the drive. Throws Failure.
  DrivePtr MakeDrive(const std::string& name, IProtocolManager& manager) const;

  std::string Version() const;
  /// JSON of the login dialog and of the settings page. Throw Failure.
  std::string AuthFields() const;
  std::string OptionFields() const;
  /// "AERROR::FILE_NOT_FOUND"
  std::string ErrorName(AERROR code) const;

 private:
  struct Functions;
  struct Close {
    void operator()(void* handle) const;
  };

  std::unique_ptr<void, Close> handle;
  std::unique_ptr<Functions> functions;
};

}  // namespace host
