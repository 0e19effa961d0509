// A real browser without a window, driven by the WebDriver protocol
// (https://www.w3.org/TR/webdriver).
#pragma once

#include <json/json.h>

#include <filesystem>
#include <memory>
#include <string>

#include "tests/host/program.h"

namespace host_test {

class WebDriver {
 public:
  /// Why no browser can be had on this machine; empty when one can.
  static std::string Missing();

  /// Keeps its files in `directory`. Throws std::runtime_error when the browser does not come up.
  explicit WebDriver(const std::filesystem::path& directory);
  ~WebDriver();

  void Open(const std::string& url);
  void Click(const std::string& id);
  /// Throws when no page with that heading is shown within half a minute.
  void AwaitHeading(const std::string& text);

 private:
  Json::Value Call(const std::string& path, const Json::Value& body);
  /// The only element at the XPath, which is waited for.
  std::string Element(const std::string& path);

  std::unique_ptr<Process> driver;
  std::string server;
  std::string session;  // path of the session's commands
};

}  // namespace host_test
