// A drive emulator of one's own, for as long as an object lives.
#pragma once

#include <json/json.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace host {

/// The program `drive-emulator` that stands beside this one, on free loopback ports.
class EmulatorProcess {
 public:
  /// Started with `options` and ready to serve when it returns. Throws Failure.
  explicit EmulatorProcess(std::vector<std::string> options);
  /// Ends the program and waits for it.
  ~EmulatorProcess();
  EmulatorProcess(const EmulatorProcess&) = delete;
  EmulatorProcess& operator=(const EmulatorProcess&) = delete;

  /// Addresses by name, as the program announces them: "api", "admin", "push", "push-api".
  std::string Address(const std::string& name) const;
  /// Requests to the admin port, bodies in JSON. Throw Failure unless the answer is a 2xx.
  Json::Value Get(const std::string& path) const;
  Json::Value Post(const std::string& path, const Json::Value& body) const;
  pid_t Process() const { return pid; }

 private:
  void Stop();

  pid_t pid = -1;
  std::string announcement;  // "ready NAME=ADDRESS NAME=ADDRESS ..."
};

}  // namespace host
