// The host's log: lines of the host and of the plug-in, to a file or to standard error.
//
// All operations may be called from any thread.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "plugin/host_interfaces.h"

namespace spdlog {
class logger;
}

namespace host {

class HostLog final : public ILog {
 public:
  /// Without a file, lines go to standard error when `verbose` and nowhere otherwise. With a file
  /// they go there, details only when `verbose`; it rolls over at 10 MiB, three old ones are kept.
  HostLog(bool verbose, const std::filesystem::path& file);
  ~HostLog();

  void Detail(const std::string& line);
  void Information(const std::string& line);
  void Error(const std::string& line);

  /// The last error line that the plug-in wrote on this thread since the last call, without its
  /// category; empty when there was none. It says why an operation just failed ("HTTP 404").
  static std::string TakeLastError();

  // ILog
  void Reserved0() override {}
  bool IsVerbose() override { return verbose; }
  void Write(LOGLEVEL level, const char* format, va_list arguments) override;

 private:
  const bool verbose;
  std::shared_ptr<spdlog::logger> out;  // null: nowhere
};

}  // namespace host
