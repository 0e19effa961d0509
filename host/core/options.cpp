#include "host/core/options.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "host/core/failure.h"
#include "host/core/json_text.h"

namespace host {
namespace {

/// Above this many KiB/s a limit in bytes per second leaves the 32 bits that it is counted in.
constexpr int64_t kMaximumInteger = 2097151;

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  return text;
}

std::vector<std::string> Texts(const Json::Value& array) {
  std::vector<std::string> texts;
  if (!array.isArray()) return texts;
  for (const Json::Value& element : array)
    if (element.isString()) texts.push_back(element.asString());
  return texts;
}

Option ParseControl(const std::string& key, const std::string& group, const Json::Value& control) {
  Option option;
  option.key = key;
  option.group = group;
  option.checkbox = TextMember(control, "type") == "checkbox";
  option.label = TextMember(control, option.checkbox ? "text" : "label");
  option.standard = control["default"];
  const Json::Value& validator = ObjectMember(control, "validator");
  option.integer = TextMember(validator, "type") == "integer";
  if (validator.isObject() && validator["min_value"].isInt64())
    option.minimum = validator["min_value"].asInt64();
  return option;
}

Json::Value Checkbox(const Option& option, const std::string& text) {
  const std::string word = Lower(text);
  for (const char* on : {"on", "true", "yes", "1"})
    if (word == on) return true;
  for (const char* off : {"off", "false", "no", "0"})
    if (word == off) return false;
  throw Failure("\"" + text + "\" is no value for the option " + option.key, "say on or off");
}

Json::Value Integer(const Option& option, const std::string& text) {
  const int64_t least = option.minimum.value_or(-kMaximumInteger);
  int64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end || number < least || number > kMaximumInteger)
    throw Failure("\"" + text + "\" is no value for the option " + option.key,
                  "say a whole number from " + std::to_string(least) + " to " +
                      std::to_string(kMaximumInteger));
  return std::to_string(number);
}

[[noreturn]] void RefuseProxy(const std::string& text) {
  throw Failure("\"" + text + "\" is no proxy",
                "say TYPE://[USER[:PASSWORD]@]HOST:PORT with type socks4, socks5, http or "
                "http-plain, or none");
}

std::string ProxyType(const std::string& scheme, const std::string& text) {
  static const std::map<std::string, std::string> kTypes = {{"socks4", "SOCKS4"},
                                                            {"socks5", "SOCKS5"},
                                                            {"http", "HTTP with TUNNEL"},
                                                            {"http-plain", "HTTP without TUNNEL"}};
  const auto found = kTypes.find(Lower(scheme));
  if (found == kTypes.end()) RefuseProxy(text);
  return found->second;
}

}  // namespace

std::vector<Option> ParseOptionFields(const std::string& text) {
  const auto document = ParseJson(text);
  if (!document || !document->isObject())
    throw Failure("the protocol module's settings page is not JSON",
                  "use the module that came with this program");
  std::vector<Option> options;
  for (const std::string& name : Texts((*document)["order"])) {
    const Json::Value& group = ObjectMember(*document, name.c_str());
    const Json::Value& controls = ObjectMember(group, "controls");
    if (!controls.isObject()) continue;
    for (const std::string& key : Texts(group["order"])) {
      const Json::Value& control = ObjectMember(controls, key.c_str());
      if (control.isObject())
        options.push_back(ParseControl(key, TextMember(group, "text"), control));
    }
  }
  return options;
}

Json::Value OptionValue(const Option& option, const std::string& text) {
  if (option.checkbox) return Checkbox(option, text);
  if (option.integer) return Integer(option, text);
  return text;
}

Json::Value ProxyValue(const std::string& text) {
  Json::Value proxy;
  if (Lower(text) == "none") {
    proxy["type"] = "none";
    proxy["host"] = proxy["user"] = proxy["password"] = "";
    proxy["port"] = 0;
    return proxy;
  }
  const size_t mark = text.find("://");
  if (mark == std::string::npos) RefuseProxy(text);
  proxy["type"] = ProxyType(text.substr(0, mark), text);
  std::string rest = text.substr(mark + 3);
  const size_t at = rest.rfind('@');
  const std::string login = at == std::string::npos ? "" : rest.substr(0, at);
  if (at != std::string::npos) rest.erase(0, at + 1);
  const size_t secret = login.find(':');
  proxy["user"] = login.substr(0, secret);
  proxy["password"] = secret == std::string::npos ? "" : login.substr(secret + 1);
  const size_t colon = rest.rfind(':');
  if (colon == std::string::npos || colon == 0) RefuseProxy(text);
  proxy["host"] = rest.substr(0, colon);
  int port = 0;
  const char* end = rest.data() + rest.size();
  const auto [stop, error] = std::from_chars(rest.data() + colon + 1, end, port);
  if (error != std::errc() || stop != end || port < 1 || port > 65535) RefuseProxy(text);
  proxy["port"] = port;
  return proxy;
}

std::string OptionDocument(const std::map<std::string, std::string>& remembered) {
  Json::Value values(Json::objectValue);
  for (const auto& [key, text] : remembered) {
    const auto value = ParseJson("[" + text + "]");
    if (value && value->size() == 1) values[key]["value"] = (*value)[0];
  }
  Json::Value document;
  document["values"] = values;
  return CompactJson(document);
}

}  // namespace host
