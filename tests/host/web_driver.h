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
  void Click(const std::string& selector);
  /// The text of the element, waited for for ten seconds at most.
  std::string Text(const std::string& selector);

 private:
  Json::Value Call(const std::string& path, const Json::Value& body);
  std::string Element(const std::string& selector);

  std::unique_ptr<Process> driver;
  std::string server;
  std::string session;  // path of the session's commands
};

}  // namespace host_test
