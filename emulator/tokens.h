// Access tokens, refresh tokens and authorisation codes.
#pragma once

#include <optional>
#include <string>

#include "emulator/store.h"

namespace emulator {

enum class TokenKind { kAccess, kRefresh, kCode };

struct TokenRecord {
  std::string token;
  int64_t user = 0;
  int64_t expires = 0;  ///< milliseconds since the epoch; 0: never
  std::string family;   ///< names the grant that it descends from: revoked together
  std::string detail;   ///< what a code was issued for
};

/// Any thread. The records live in the store.
class Tokens {
 public:
  static constexpr int64_t kLifetimeSeconds = 3600;

  explicit Tokens(Store& tokenStore) : store(tokenStore) {}

  std::string Issue(TokenKind kind, int64_t user, const std::string& family,
                    int64_t lifetimeSeconds, const std::string& detail = "");
  /// None when it is unknown or has expired.
  std::optional<TokenRecord> Find(TokenKind kind, const std::string& token);
  /// Finds and deletes.
  std::optional<TokenRecord> Use(TokenKind kind, const std::string& token);
  void Expire(const std::string& token);
  void ExpireAll(TokenKind kind);
  /// Ends the grant behind an access or refresh token; false when it is unknown.
  bool Revoke(const std::string& token);

 private:
  Store& store;
};

}  // namespace emulator
