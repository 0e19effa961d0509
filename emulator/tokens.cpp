#include "emulator/tokens.h"

#include "emulator/ids.h"
#include "emulator/times.h"

namespace emulator {

namespace {

const char* KindName(TokenKind kind) {
  switch (kind) {
    case TokenKind::kAccess:
      return "access";
    case TokenKind::kRefresh:
      return "refresh";
    default:
      return "code";
  }
}

const char* Prefix(TokenKind kind) {
  switch (kind) {
    case TokenKind::kAccess:
      return "ya29.";
    case TokenKind::kRefresh:
      return "1//";
    default:
      return "4/";
  }
}

}  // namespace

std::string Tokens::Issue(TokenKind kind, int64_t user, const std::string& family,
                          int64_t lifetimeSeconds, const std::string& detail) {
  const std::string token = Prefix(kind) + RandomText(40);
  const int64_t expires = lifetimeSeconds > 0 ? NowMilliseconds() + lifetimeSeconds * 1000 : 0;
  const auto work = store.Begin();
  store.Sql().Run("INSERT INTO tokens VALUES(?, ?, ?, ?, ?, ?)", token, KindName(kind), user,
                  expires, family.empty() ? token : family, detail);
  return token;
}

std::optional<TokenRecord> Tokens::Find(TokenKind kind, const std::string& token) {
  const auto work = store.Begin();
  Statement row = store.Sql().Query(
      "SELECT token, user, expires, family, detail FROM tokens WHERE token = ? AND kind = ?"
      " AND (expires = 0 OR expires > ?)",
      token, KindName(kind), NowMilliseconds());
  if (!row.Step()) return std::nullopt;
  return TokenRecord{row.Text(0), row.Int(1), row.Int(2), row.Text(3), row.Text(4)};
}

std::optional<TokenRecord> Tokens::Use(TokenKind kind, const std::string& token) {
  const auto work = store.Begin();
  auto found = Find(kind, token);
  if (found) Expire(token);
  return found;
}

void Tokens::Expire(const std::string& token) {
  const auto work = store.Begin();
  store.Sql().Run("DELETE FROM tokens WHERE token = ?", token);
}

void Tokens::ExpireAll(TokenKind kind) {
  const auto work = store.Begin();
  store.Sql().Run("DELETE FROM tokens WHERE kind = ?", KindName(kind));
}

bool Tokens::Revoke(const std::string& token) {
  const auto work = store.Begin();
  store.Sql().Run("DELETE FROM tokens WHERE family IN (SELECT family FROM tokens WHERE token = ?)",
                  token);
  return store.Sql().Changed() > 0;
}

}  // namespace emulator
