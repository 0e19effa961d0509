// login, logout
#include <CLI/CLI.hpp>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <utility>

#include "host/cli/commands.h"
#include "host/cli/terminal.h"
#include "host/core/interrupt.h"
#include "host/core/oauth_client.h"
#include "host/login/browser.h"
#include "host/login/oauth_app.h"
#include "host/login/pkce.h"
#include "host/login/redirect_listener.h"

namespace host {
namespace {

constexpr char kScope[] = "https://www.googleapis.com/auth/drive";

struct LoginOptions {
  std::string clientId;
  std::string clientSecret;
  std::filesystem::path clientFile;
  bool noBrowser = false;
  int timeout = 300;  // seconds
};

OAuthApp ChosenApp(const LoginOptions& options) {
  if (!options.clientId.empty()) return {options.clientId, options.clientSecret};
  return OAuthApp::FromFile(options.clientFile.empty() ? OAuthApp::DefaultFile()
                                                       : options.clientFile);
}

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (std::isalnum(static_cast<unsigned char>(c)) ||
        std::string("-._~").find(c) != std::string::npos) {
      escaped += c;
      continue;
    }
    char code[4];
    std::snprintf(code, sizeof code, "%%%02X", static_cast<unsigned char>(c));
    escaped += code;
  }
  return escaped;
}

std::string ConsentAddress(const std::string& endpoint, const std::string& clientId,
                           const std::string& redirect, const Pkce& pkce,
                           const std::string& state) {
  std::string address = endpoint;
  char separator = '?';
  const auto add = [&](const char* name, const std::string& value) {
    address += separator + std::string(name) + "=" + Escaped(value);
    separator = '&';
  };
  add("response_type", "code");
  add("client_id", clientId);
  add("redirect_uri", redirect);
  add("scope", kScope);
  add("code_challenge", pkce.challenge);
  add("code_challenge_method", "S256");
  add("state", state);
  // Together these make the service give a refresh token at every sign-in.
  add("access_type", "offline");
  add("prompt", "consent");
  return address;
}

/// Shows the address where no browser could be started, or none is wanted.
void Invite(const std::string& address, bool noBrowser) {
  if (!noBrowser && OpenBrowser(address))
    return Print("Waiting for your consent in the browser ...\n");
  Print("Open this address in a browser on this machine:\n" + address + "\n");
}

std::string AskForCode(const LoginOptions& options, const std::string& endpoint,
                       const std::string& clientId, const Pkce& pkce, std::string& redirect) {
  const std::string state = RandomText(24);
  const InterruptWatch interrupts;
  RedirectListener listener(state);
  redirect = listener.Address();
  Invite(ConsentAddress(endpoint, clientId, redirect, pkce, state), options.noBrowser);
  const auto code = listener.Wait(std::chrono::seconds(options.timeout));
  InterruptWatch::ThrowIfInterrupted("the sign-in");
  if (!code)
    throw Failure("nobody consented within " + std::to_string(options.timeout) + " seconds",
                  "run `vormlane login` again", AERROR::TIMEDOUT);
  return *code;
}

/// What the module remembered belongs to the account that was signed in before.
void ForgetAccount(ProfileStore& profile) {
  for (const char* key : {"lastchangeid", "pid"}) profile.RemoveValue(profile.Id(), key);
}

void RunLogin(Context& context, const LoginOptions& options) {
  const OAuthApp app = ChosenApp(options);
  const ProfilePaths paths = context.Paths();
  {
    ProfileStore profile(paths);
    const OAuthEndpoints endpoints = OAuthEndpoints::Of(profile);
    const Pkce pkce = Pkce::Make();
    std::string redirect;
    const std::string code = AskForCode(options, endpoints.authorize, app.clientId, pkce, redirect);
    Credential client;
    client.clientId = app.clientId;
    client.clientSecret = app.clientSecret;
    const Credential credential =
        ExchangeCode(endpoints.token, client, code, pkce.verifier, redirect);
    CredentialStore(paths.Credential(), nullptr).Save(credential);
    ForgetAccount(profile);
  }
  Print("Signed in as " + Printable(context.Connected().UserInfo()) + ".\n");
}

void RunLogout(Context& context, bool localOnly) {
  const ProfilePaths paths = context.Paths();
  ProfileStore profile(paths);
  CredentialStore store(paths.Credential(), nullptr);
  std::optional<Credential> credential;
  try {
    credential = store.Load();
  } catch (const Failure&) {
    // A damaged file holds nothing that could be revoked, but must still go.
    if (!localOnly) throw;
  }
  if (credential && !localOnly)
    RevokeToken(OAuthEndpoints::Of(profile).revoke, credential->refreshToken.empty()
                                                        ? credential->accessToken
                                                        : credential->refreshToken);
  store.Remove();
  ForgetAccount(profile);
}

}  // namespace

void AddLoginCommands(CLI::App& app, Context& context) {
  CLI::App* login = app.add_subcommand("login", "Sign in to an account in the browser");
  auto options = std::make_shared<LoginOptions>();
  login->add_option("--client-id", options->clientId, "OAuth client to sign in with");
  login->add_option("--client-secret", options->clientSecret, "Its secret");
  login->add_option("--client-file", options->clientFile,
                    "JSON of the client, instead of client.json in the configuration folder");
  login->add_flag("--no-browser", options->noBrowser, "Print the address instead of opening it");
  login->add_option("--timeout", options->timeout, "Longest wait for the consent")
      ->type_name("SECONDS")
      ->check(CLI::Range(1, 3600))
      ->capture_default_str();
  login->callback([&context, options] { RunLogin(context, *options); });

  CLI::App* logout = app.add_subcommand("logout", "Revoke the access and forget the account");
  auto localOnly = std::make_shared<bool>(false);
  logout->add_flag("--local", *localOnly, "Forget it here only, without asking the service");
  logout->callback([&context, localOnly] { RunLogout(context, *localOnly); });
}

}  // namespace host
