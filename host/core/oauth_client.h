// The service's OAuth 2.0 endpoints, as an installed application uses them.
//
// Calls block for at most half a minute and may be made from any thread. A refusal by the service
// is a Failure with code AUTH_FAILED; a network that is not there is one with SOCK_NETWORK_ERROR.
// https://developers.google.com/identity/protocols/oauth2/native-app
#pragma once

#include <string>

#include "host/core/credential_store.h"
#include "host/core/profile_store.h"

namespace host {

struct OAuthEndpoints {
  std::string authorize;
  std::string token;
  std::string revoke;

  /// The service's own addresses, each replaced by the profile value "oauth_authorize_url",
  /// "oauth_token_url" or "oauth_revoke_url". Throws Failure for one that is neither https nor
  /// http on a loopback address.
  static OAuthEndpoints Of(const ProfileStore& profile);
};

/// A new access token for the refresh token of `old`; everything else stays as it was.
Credential RenewToken(const std::string& tokenUrl, const Credential& old);

/// The tokens for an authorisation code. `client` carries the application's id and secret.
Credential ExchangeCode(const std::string& tokenUrl, const Credential& client,
                        const std::string& code, const std::string& verifier,
                        const std::string& redirectUri);

/// Ends the grant that the token belongs to. A token that the service does not know is no failure.
void RevokeToken(const std::string& revokeUrl, const std::string& token);

}  // namespace host
