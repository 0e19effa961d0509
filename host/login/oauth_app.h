// The application that a user signs in to: its client id and secret.
#pragma once

#include <filesystem>
#include <string>

namespace host {

struct OAuthApp {
  std::string clientId;
  std::string clientSecret;

  /// Reads the JSON that the service's developer console offers for download (`{"installed":
  /// {"client_id":…,"client_secret":…}}`). Throws Failure that says how to get one when the file
  /// is not there or is something else.
  static OAuthApp FromFile(const std::filesystem::path& file);
  /// `vormlane/client.json` in the user's configuration directory, shared by all profiles.
  static std::filesystem::path DefaultFile();
};

}  // namespace host
