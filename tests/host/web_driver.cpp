#include "tests/host/web_driver.h"

#include <httplib.h>

#include <stdexcept>

#include "host/core/json_text.h"

namespace host_test {
namespace {

constexpr char kDriver[] = "/usr/bin/chromedriver";
constexpr char kBrowser[] = "/usr/bin/chromium";
constexpr char kElementKey[] = "element-6066-11e4-a52e-4f735466cecf";

Json::Value Capabilities(const std::filesystem::path& directory) {
  Json::Value body;
  Json::Value& options = body["capabilities"]["alwaysMatch"]["goog:chromeOptions"];
  options["binary"] = kBrowser;
  const std::string profile = "--user-data-dir=" + (directory / "browser").string();
  for (const std::string& argument :
       {std::string("--headless=new"), std::string("--no-sandbox"), std::string("--disable-gpu"),
        std::string("--disable-dev-shm-usage"), profile})
    options["args"].append(argument);
  body["capabilities"]["alwaysMatch"]["timeouts"]["implicit"] = 30000;
  return body;
}

}  // namespace

std::string WebDriver::Missing() {
  for (const char* program : {kDriver, kBrowser})
    if (!std::filesystem::exists(program)) return std::string(program) + " is not installed";
  return {};
}

WebDriver::WebDriver(const std::filesystem::path& directory) {
  driver = std::make_unique<Process>(
      std::vector<std::string>{kDriver, "--port=0"},
      std::map<std::string, std::string>{{"HOME", directory.string()}, {"PATH", "/usr/bin:/bin"}});
  const std::string port = driver->WaitForMatch("successfully on port ([0-9]+)\\.");
  if (port.empty()) throw std::runtime_error("chromedriver did not start");
  server = "http://127.0.0.1:" + port;
  session = "/session/" + Call("/session", Capabilities(directory))["sessionId"].asString();
}

WebDriver::~WebDriver() { httplib::Client(server).Delete(session); }

Json::Value WebDriver::Call(const std::string& path, const Json::Value& body) {
  httplib::Client client(server);
  client.set_read_timeout(60);
  const auto answer = client.Post(path, host::CompactJson(body), "application/json");
  if (!answer || answer->status != 200)
    throw std::runtime_error("browser: " + path + ": " + (answer ? answer->body : "no answer"));
  return host::ParseJson(answer->body).value_or(Json::Value())["value"];
}

void WebDriver::Open(const std::string& url) {
  Json::Value body;
  body["url"] = url;
  Call(session + "/url", body);
}

std::string WebDriver::Element(const std::string& path) {
  Json::Value body;
  body["using"] = "xpath";
  body["value"] = path;
  return session + "/element/" + Call(session + "/element", body)[kElementKey].asString();
}

void WebDriver::Click(const std::string& id) {
  Call(Element("//*[@id='" + id + "']") + "/click", Json::Value(Json::objectValue));
}

void WebDriver::AwaitHeading(const std::string& text) { Element("//h1[.='" + text + "']"); }

}  // namespace host_test
