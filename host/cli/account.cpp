// df, whoami
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>

#include "host/cli/commands.h"
#include "host/cli/terminal.h"
#include "host/core/json_text.h"

namespace host {
namespace {

struct Quota {
  unsigned long long total = 0;  // bytes; 0: the account has no limit
  unsigned long long used = 0;
};

struct User {
  std::string name;
  std::string address;
};

/// "Name(address)", where the name may hold brackets of its own.
User ParseUser(const std::string& text) {
  const size_t open = text.rfind('(');
  if (open == std::string::npos || text.back() != ')') return {text, {}};
  return {text.substr(0, open), text.substr(open + 1, text.size() - open - 2)};
}

Quota ReadQuota(Session& session) {
  Quota quota;
  Perform(session, "cannot read the account's space",
          [&](char**) { return session.Drive().GetQuota(&quota.total, &quota.used); });
  return quota;
}

void RunDf(Context& context) {
  const Quota quota = ReadQuota(context.Connected());
  const unsigned long long free = quota.total > quota.used ? quota.total - quota.used : 0;
  if (context.json) {
    Json::Value json;
    json["total"] = Json::UInt64(quota.total);
    json["used"] = Json::UInt64(quota.used);
    json["free"] = Json::UInt64(free);
    return Print(PrettyJson(json));
  }
  const auto column = [](const std::string& text) { return PadLeft(text, 12); };
  const auto bytes = [&](unsigned long long value) {
    return column(HumanBytes(static_cast<int64_t>(value)));
  };
  const Paint paint(STDOUT_FILENO);
  std::string text = paint.Faint(column("size") + column("used") + column("free") + column("use"));
  if (quota.total == 0)
    text += "\n" + column("no limit") + bytes(quota.used) + column("-") + column("-");
  else
    text += "\n" + bytes(quota.total) + bytes(quota.used) + bytes(free) +
            column(std::to_string(quota.used * 100 / quota.total) + "%");
  Print(text + "\n");
}

void RunWhoami(Context& context) {
  const User user = ParseUser(context.Connected().UserInfo());
  if (!context.json) return Print(Printable(user.name + " <" + user.address + ">") + "\n");
  Json::Value json;
  json["name"] = user.name;
  json["address"] = user.address;
  json["profile"] = context.Paths().name;
  Print(PrettyJson(json));
}

}  // namespace

void AddAccountCommands(CLI::App& app, Context& context) {
  app.add_subcommand("df", "Show the account's space")->callback([&] { RunDf(context); });
  app.add_subcommand("whoami", "Show whose account it is")->callback([&] { RunWhoami(context); });
}

}  // namespace host
