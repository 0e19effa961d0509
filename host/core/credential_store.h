// The account's tokens in a file that only its owner may read, and their renewal.
//
// The file is replaced as a whole: a reader, or a host killed in the middle, finds the old or the
// new one, never a part. All operations may be called from any thread and several hosts may share
// one file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "plugin/host_interfaces.h"

namespace host {

struct Credential {
  std::string accessToken;
  std::string refreshToken;  ///< empty: the access token cannot be renewed
  int64_t expiresAt = 0;     ///< seconds since 1970; 0: not known
  std::string clientId;      ///< of the application that was authorised
  std::string clientSecret;

  /// The document that a protocol object takes at Connect and that the file holds:
  /// `{"results":{"access_token":…,"refresh_token":…,"expires_at":…},"client":{"id":…,"secret":…}}`.
  /// The client stands outside "args", whose members the plug-in would add to every request.
  std::string ToText() const;
  /// Throws Failure when the text is not such a document.
  static Credential FromText(const std::string& text);
};

/// Asks for a new access token with the refresh token of the given one. Returns the renewed
/// credential; throws Failure when the service refuses or cannot be reached.
using TokenRenewal = std::function<Credential(const Credential&)>;

class CredentialStore final : public IProtocolAuth {
 public:
  CredentialStore(std::filesystem::path file, TokenRenewal renewal);

  const std::filesystem::path& File() const { return file; }

  /// Nothing when there is no file. Throws Failure when it cannot be read, is damaged, or may be
  /// read by others.
  std::optional<Credential> Load() const;
  /// Writes, syncs and renames into place with mode 0600. Throws Failure; the old file then stays.
  void Save(const Credential& credential);
  /// Nothing happens when there is no file.
  void Remove();

  /// The stored credential, renewed first when it is about to expire. Throws Failure when there is
  /// none or when it has expired and cannot be renewed.
  Credential Current();

  /// Whether somebody has signed in, or renewed the credential, since Current or Renew handed it
  /// out.
  bool StoredAnew() const;

  // IProtocolAuth. Renew returns the newer token when another host has already stored one.
  const char* Renew(IProtocol_V2* protocol, const char* credential) override;
  void Free(const char* credential) override;

  /// Why the last Renew was refused; empty when it was not.
  std::string Refusal() const;

 private:
  Credential RenewLocked(const Credential& old);

  const std::filesystem::path file;
  const TokenRenewal renewal;
  mutable std::mutex mutex;  // one renewal at a time; guards the members below
  std::string refusal;
  std::string handedOut;  // the access token in use: another one in the file is newer
};

}  // namespace host
