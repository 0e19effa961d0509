// options, profile
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <map>

#include "host/cli/commands.h"
#include "host/cli/terminal.h"
#include "host/core/json_text.h"
#include "host/core/options.h"

namespace host {
namespace {

using Assignments = std::vector<std::pair<std::string, std::string>>;

constexpr char kProxy[] = "proxy";

/// A value of the profile that a user may set. The rest of it is the module's own.
struct ProfileKey {
  const char* name;
  bool address;  // must be https or wss, or http or ws on this machine
  bool secret;   // never shown
};
constexpr std::array<ProfileKey, 9> kProfileKeys = {{{"drive_api_url", true, false},
                                                     {"push_server_url", true, false},
                                                     {"api_server_url", true, false},
                                                     {"user_token", false, true},
                                                     {"drive_id", false, false},
                                                     {"device_id", false, false},
                                                     {"oauth_authorize_url", true, false},
                                                     {"oauth_token_url", true, false},
                                                     {"oauth_revoke_url", true, false}}};

const ProfileKey* FindKey(const std::string& name) {
  const auto found = std::find_if(kProfileKeys.begin(), kProfileKeys.end(),
                                  [&](const ProfileKey& key) { return key.name == name; });
  return found == kProfileKeys.end() ? nullptr : found;
}

Assignments ParseAssignments(const std::vector<std::string>& texts) {
  Assignments assignments;
  for (const std::string& text : texts) {
    const size_t equals = text.find('=');
    if (equals == 0 || equals == std::string::npos)
      throw Failure("\"" + text + "\" sets nothing", "say KEY=VALUE");
    assignments.emplace_back(text.substr(0, equals), text.substr(equals + 1));
  }
  return assignments;
}

std::string ShownProxy(const Json::Value& proxy) {
  const std::string host = TextMember(proxy, "host");
  return host.empty() ? "none"
                      : TextMember(proxy, "type") + " " + host + ":" + proxy["port"].asString();
}

/// The chosen value when there is one, else the page's.
Json::Value Chosen(const std::map<std::string, std::string>& remembered, const std::string& key,
                   const Json::Value& standard) {
  const auto found = remembered.find(key);
  if (found == remembered.end()) return standard;
  const auto value = ParseJson("[" + found->second + "]");
  return value && value->size() == 1 ? (*value)[0] : standard;
}

std::string ShownValue(const Option& option, const Json::Value& value) {
  if (option.checkbox) return value.isBool() && value.asBool() ? "on" : "off";
  return value.isString() ? value.asString() : CompactJson(value);
}

void PrintOptionsJson(const std::vector<Option>& options,
                      const std::map<std::string, std::string>& remembered) {
  Json::Value json(Json::arrayValue);
  for (const Option& option : options) {
    Json::Value entry;
    entry["key"] = option.key;
    entry["label"] = option.label;
    entry["value"] = Chosen(remembered, option.key, option.standard);
    entry["default"] = option.standard;
    json.append(entry);
  }
  Json::Value proxy;
  proxy["key"] = kProxy;
  proxy["label"] = "Proxy";
  proxy["value"] = ShownProxy(Chosen(remembered, kProxy, {}));
  proxy["default"] = "none";
  json.append(proxy);
  Print(PrettyJson(json));
}

void ShowOptions(Context& context) {
  Session& session = context.Opened();
  const auto options = ParseOptionFields(session.Module().OptionFields());
  const auto remembered = session.Profile().Values(kOptionSection);
  if (context.json) return PrintOptionsJson(options, remembered);
  const Paint paint(STDOUT_FILENO);
  std::string text;
  std::string group;
  const auto line = [&](const std::string& key, const std::string& value,
                        const std::string& label) {
    text += "  " + PadRight(key, 18) + paint.Green(PadRight(value, 10)) + "  " +
            paint.Faint(label) + "\n";
  };
  for (const Option& option : options) {
    if (option.group != group) text += paint.Bold(option.group) + "\n";
    group = option.group;
    line(option.key, ShownValue(option, Chosen(remembered, option.key, option.standard)),
         option.label);
  }
  text += paint.Bold("Network") + "\n";
  line(kProxy, ShownProxy(Chosen(remembered, kProxy, {})), "Proxy of every request");
  Print(text);
}

Json::Value CheckedOption(const std::vector<Option>& options, const std::string& key,
                          const std::string& text) {
  if (key == kProxy) return ProxyValue(text);
  const auto found = std::find_if(options.begin(), options.end(),
                                  [&](const Option& option) { return option.key == key; });
  if (found == options.end())
    throw Failure("there is no option \"" + key + "\"", "look with `vormlane options`");
  return OptionValue(*found, text);
}

/// All values are checked before the first is remembered.
void SetOptions(Context& context, const std::vector<std::string>& texts) {
  Session& session = context.Opened();
  const auto options = ParseOptionFields(session.Module().OptionFields());
  std::map<std::string, std::string> chosen;
  for (const auto& [key, text] : ParseAssignments(texts))
    chosen[key] = CompactJson(CheckedOption(options, key, text));
  for (const auto& [key, value] : chosen)
    session.Profile().SetValue(std::string(kOptionSection), key, value);
  session.ApplyOptions();
}

void ResetOptions(Context& context) {
  ProfileStore& profile = context.Opened().Profile();
  for (const auto& [key, value] : profile.Values(kOptionSection))
    profile.RemoveValue(kOptionSection, key);
}

void CheckProfileValue(const std::string& key, const std::string& value) {
  const ProfileKey* known = FindKey(key);
  if (known == nullptr) {
    std::string names;
    for (const ProfileKey& each : kProfileKeys)
      names += (names.empty() ? "" : ", ") + std::string(each.name);
    throw Failure("the profile has no value \"" + key + "\" that can be set",
                  "the names are " + names);
  }
  if (known->address && !value.empty() && !IsSecureUrl(value) && !IsLoopbackUrl(value))
    throw Failure("\"" + value + "\" cannot be the " + key,
                  "say a https (wss) address, or a http (ws) one on this machine");
}

void SetProfile(Context& context, const std::vector<std::string>& texts) {
  const Assignments assignments = ParseAssignments(texts);
  for (const auto& [key, value] : assignments) CheckProfileValue(key, value);
  ProfileStore profile(context.Paths());
  for (const auto& [key, value] : assignments) {
    if (value.empty())
      profile.RemoveValue(profile.Id(), key);
    else
      profile.SetValue(profile.Id(), key, value);
  }
}

void ShowProfile(Context& context) {
  const ProfilePaths paths = context.Paths();
  ProfileStore profile(paths);
  Json::Value json;
  json["profile"] = paths.name;
  json["database"] = paths.Database().string();
  json["credential"] = paths.Credential().string();
  json["values"] = Json::objectValue;
  for (const auto& [key, value] : profile.Values(profile.Id())) {
    const ProfileKey* known = FindKey(key);
    json["values"][key] = known != nullptr && known->secret ? "(hidden)" : value;
  }
  if (context.json) return Print(PrettyJson(json));
  const Paint paint(STDOUT_FILENO);
  std::string text;
  const auto line = [&](const std::string& key, const std::string& value) {
    text += paint.Faint(PadRight(key, 20)) + Printable(value) + "\n";
  };
  for (const char* key : {"profile", "database", "credential"}) line(key, json[key].asString());
  for (const std::string& key : json["values"].getMemberNames())
    line(key, json["values"][key].asString());
  Print(text);
}

void AddOptions(CLI::App& app, Context& context) {
  CLI::App* options = app.add_subcommand("options", "Show or change the drive's options");
  options->require_subcommand(0, 1);
  auto texts = std::make_shared<std::vector<std::string>>();
  CLI::App* set = options->add_subcommand("set", "Remember options: KEY=VALUE ...");
  set->add_option("KEY=VALUE", *texts)->required();
  CLI::App* reset = options->add_subcommand("reset", "Forget all choices");
  options->callback([=, &context] {
    if (*set) return SetOptions(context, *texts);
    if (*reset) return ResetOptions(context);
    ShowOptions(context);
  });
}

void AddProfile(CLI::App& app, Context& context) {
  CLI::App* profile = app.add_subcommand("profile", "Show or change the profile's values");
  profile->require_subcommand(1);
  auto texts = std::make_shared<std::vector<std::string>>();
  CLI::App* set = profile->add_subcommand("set", "Store values: KEY=VALUE ...; KEY= removes one");
  set->add_option("KEY=VALUE", *texts)->required();
  CLI::App* show = profile->add_subcommand("show", "Show the profile's place and values");
  profile->callback([=, &context] {
    if (*set) SetProfile(context, *texts);
    if (*show) ShowProfile(context);
  });
}

}  // namespace

void AddSettingsCommands(CLI::App& app, Context& context) {
  AddOptions(app, context);
  AddProfile(app, context);
}

}  // namespace host
