#include "host/core/session.h"

#include <utility>
#include <vector>

#include "host/core/failure.h"
#include "host/core/oauth_client.h"
#include "host/core/options.h"

namespace host {
namespace {

constexpr int kJobThreads = 2;
constexpr char kPageSize[] = "1000";  // the largest page the service gives: fewest round trips
constexpr char kNobody[] = "()";

/// Reads one of the drive's texts: a buffer and its length in, the text's length out.
template <typename Operation>
std::string Filled(Session& session, const std::string& doing, Operation&& operation) {
  std::vector<char> buffer(512);
  for (int attempt = 0;; ++attempt) {
    int length = static_cast<int>(buffer.size()) - 1;
    const AERROR code = operation(buffer.data(), &length);
    if (code == AERROR::SUCCESS) return std::string(buffer.data(), static_cast<size_t>(length));
    if (code != AERROR::INSUFFICIENT_BUFFER || attempt > 0) throw session.Failed(doing, code);
    buffer.resize(static_cast<size_t>(length) + 1);
  }
}

}  // namespace

Session::Session(ProfilePaths profilePaths, const std::filesystem::path& module, HostLog& hostLog)
    : paths(std::move(profilePaths)),
      log(hostLog),
      profile(paths),
      credentials(paths.Credential(),
                  [this](const Credential& old) {
                    return RenewToken(OAuthEndpoints::Of(profile).token, old);
                  }),
      queue(kJobThreads),
      plugin(module.empty() ? DefaultModulePath() : module, &log, &queue),
      drive(plugin.MakeDrive(paths.name, profile)) {
  const auto pid = profile.Value("pid");
  if (pid && !pid->empty()) drive->SetOpt("pid", pid->c_str());
  drive->SetOpt("list_page_size", kPageSize);
  ApplyOptions();
}

Session::~Session() {
  drive.reset();
  queue.Stop();
}

void Session::ApplyOptions() {
  drive->SetOpt("option_fields", OptionDocument(profile.Values(kOptionSection)).c_str());
}

void Session::Connect() {
  const std::string url = profile.Value("drive_api_url").value_or(kDefaultApiUrl);
  RequireCertificatesFor(IsLoopbackUrl(url) ? url : kDefaultApiUrl);
  const std::string credential = credentials.Current().ToText();
  HostLog::TakeLastError();
  const AERROR code = drive->Connect(&credentials, credential.c_str());
  if (code != AERROR::SUCCESS) throw Failed("cannot connect to the drive", code);
}

bool Session::HasAccount() { return UserInfo() != kNobody; }

void Session::RequireAccount() {
  if (!HasAccount()) throw Failed("cannot read the account", AERROR::FAILED);
}

std::string Session::RootId() {
  return Filled(*this, "cannot find the drive's top folder",
                [&](char* buffer, int* length) { return drive->GetRootID(buffer, length); });
}

std::string Session::UserInfo() {
  return Filled(*this, "cannot read the account",
                [&](char* buffer, int* length) { return drive->GetUserInfo(buffer, length); });
}

Failure Session::Failed(const std::string& doing, AERROR code) {
  const std::string refusal = credentials.Refusal();
  if (!refusal.empty()) return Failure(doing + ": " + refusal, {}, AERROR::AUTH_FAILED);
  const std::string said = HostLog::TakeLastError();
  const std::string reason = said.empty() ? Meaning(code) : said;
  return Failure(doing + ": " + reason, Advice(said, code), code);
}

}  // namespace host
