// The plug-in's settings page: what can be set, what was chosen, and the document that applies it.
#pragma once

#include <json/json.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace host {

/// One control of the settings page.
struct Option {
  std::string key;
  std::string group;  ///< heading that the control stands under
  std::string label;
  bool checkbox = false;  ///< true: on or off; false: a line of text
  bool integer = false;   ///< the text must be a whole number
  std::optional<int64_t> minimum;
  Json::Value standard;  ///< value when nothing was chosen
};

/// The controls in the page's order. Throws Failure when the document makes no sense.
std::vector<Option> ParseOptionFields(const std::string& document);

/// A chosen text as the control's value: on/off/true/false/yes/no/1/0 for a checkbox, a number
/// within limits for an integer. Throws Failure that says what is allowed.
Json::Value OptionValue(const Option& option, const std::string& text);

/// The proxy is an option of the plug-in that stands on no page:
/// "TYPE://[USER[:PASSWORD]@]HOST:PORT" with type socks4, socks5, http (tunnelled) or http-plain,
/// or "none". Throws Failure.
Json::Value ProxyValue(const std::string& text);

/// The document for SetOpt("option_fields"): `{"values":{KEY:{"value":…},…}}`. `remembered` holds
/// JSON texts by key, as the profile keeps them; one that is damaged is left out.
std::string OptionDocument(const std::map<std::string, std::string>& remembered);

}  // namespace host
