// The secrets of one sign-in: proof key and state (RFC 7636, RFC 6749 section 10.12).
#pragma once

#include <string>
#include <string_view>

namespace host {

/// Base64 with the URL alphabet and without padding.
std::string Base64Url(std::string_view bytes);
/// `bytes` random bytes as Base64Url. Throws Failure when the system has no randomness.
std::string RandomText(size_t bytes);

struct Pkce {
  std::string verifier;   ///< stays here until the code is exchanged
  std::string challenge;  ///< goes through the browser: Base64Url of the verifier's SHA-256

  static Pkce Make();
  static std::string ChallengeOf(const std::string& verifier);
};

}  // namespace host
