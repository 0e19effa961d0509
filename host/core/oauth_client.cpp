#include "host/core/oauth_client.h"

#include <httplib.h>

#include <ctime>

#include "host/core/json_text.h"
#include "host/core/paths.h"

namespace host {
namespace {

constexpr char kAuthorizeUrl[] = "https://accounts.google.com/o/oauth2/v2/auth";
constexpr char kTokenUrl[] = "https://oauth2.googleapis.com/token";
constexpr char kRevokeUrl[] = "https://oauth2.googleapis.com/revoke";
constexpr time_t kConnectSeconds = 10;
constexpr time_t kAnswerSeconds = 20;

std::string Endpoint(const ProfileStore& profile, const char* key, const char* standard) {
  const std::string url = profile.Value(key).value_or(standard);
  if (IsSecureUrl(url) || IsLoopbackUrl(url)) return url;
  throw Failure("cannot use " + url + " for signing in: it is neither https nor on this machine",
                std::string("correct it with `vormlane profile set ") + key + "=...`");
}

struct Target {
  std::string server;  // scheme, host and port
  std::string path;
};

Target Split(const std::string& url) {
  const size_t authority = url.find("://") + 3;
  const size_t slash = std::min(url.find('/', authority), url.size());
  return {url.substr(0, slash), slash == url.size() ? "/" : url.substr(slash)};
}

Failure Unreachable(const std::string& url, const std::string& reason) {
  return Failure("cannot reach " + url + ": " + reason, "check the network and try again",
                 AERROR::SOCK_NETWORK_ERROR);
}

/// The service's own words for a refusal: "invalid_grant (Token has been revoked.)"
std::string Words(const httplib::Response& answer) {
  const auto body = ParseJson(answer.body);
  const std::string error = body ? TextMember(*body, "error") : "";
  const std::string description = body ? TextMember(*body, "error_description") : "";
  if (error.empty()) return "HTTP " + std::to_string(answer.status);
  return description.empty() ? error : error + " (" + description + ")";
}

httplib::Response Post(const std::string& url, const httplib::Params& form) {
  RequireCertificatesFor(url);
  const Target target = Split(url);
  httplib::Client client(target.server);
  client.set_connection_timeout(kConnectSeconds);
  client.set_read_timeout(kAnswerSeconds);
  client.set_write_timeout(kAnswerSeconds);
  if (IsSecureUrl(url)) client.set_ca_cert_path(CertificateBundle().string());
  const httplib::Result result = client.Post(target.path, form);
  if (!result) throw Unreachable(url, httplib::to_string(result.error()));
  if (result->status >= 500) throw Unreachable(url, Words(*result));
  return *result;
}

/// Takes what a token answer brings into the credential.
void Accept(const httplib::Response& answer, Credential& credential) {
  const auto body = ParseJson(answer.body);
  const std::string token = body ? TextMember(*body, "access_token") : "";
  if (token.empty())
    throw Failure("the service's answer carries no access token", "try again", AERROR::AUTH_FAILED);
  credential.accessToken = token;
  const std::string refresh = TextMember(*body, "refresh_token");
  if (!refresh.empty()) credential.refreshToken = refresh;
  const Json::Value& seconds = (*body)["expires_in"];
  credential.expiresAt = seconds.isInt64() ? std::time(nullptr) + seconds.asInt64() : 0;
}

}  // namespace

OAuthEndpoints OAuthEndpoints::Of(const ProfileStore& profile) {
  return {Endpoint(profile, "oauth_authorize_url", kAuthorizeUrl),
          Endpoint(profile, "oauth_token_url", kTokenUrl),
          Endpoint(profile, "oauth_revoke_url", kRevokeUrl)};
}

Credential RenewToken(const std::string& tokenUrl, const Credential& old) {
  const httplib::Response answer = Post(tokenUrl, {{"grant_type", "refresh_token"},
                                                   {"refresh_token", old.refreshToken},
                                                   {"client_id", old.clientId},
                                                   {"client_secret", old.clientSecret}});
  if (answer.status != 200)
    throw Failure("the service refused to renew the access: " + Words(answer),
                  "sign in again with `vormlane login`", AERROR::AUTH_FAILED);
  Credential renewed = old;
  Accept(answer, renewed);
  return renewed;
}

Credential ExchangeCode(const std::string& tokenUrl, const Credential& client,
                        const std::string& code, const std::string& verifier,
                        const std::string& redirectUri) {
  const httplib::Response answer = Post(tokenUrl, {{"grant_type", "authorization_code"},
                                                   {"code", code},
                                                   {"code_verifier", verifier},
                                                   {"redirect_uri", redirectUri},
                                                   {"client_id", client.clientId},
                                                   {"client_secret", client.clientSecret}});
  if (answer.status != 200)
    throw Failure("the service refused the sign-in: " + Words(answer),
                  "check the client id and secret and try again", AERROR::AUTH_FAILED);
  Credential credential = client;
  Accept(answer, credential);
  return credential;
}

void RevokeToken(const std::string& revokeUrl, const std::string& token) {
  const httplib::Response answer = Post(revokeUrl, {{"token", token}});
  // 400 is the answer for a token that is no longer valid: what was wanted.
  if (answer.status != 200 && answer.status != 400)
    throw Failure("the service did not revoke the access: " + Words(answer),
                  "remove it in the account's security settings");
}

}  // namespace host
