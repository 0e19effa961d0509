#include "host/login/pkce.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <array>

#include "host/core/failure.h"

namespace host {
namespace {

constexpr size_t kVerifierBytes = 48;  // 64 characters; 43 to 128 are allowed

}  // namespace

std::string Base64Url(std::string_view bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<size_t>(length));
  while (!text.empty() && text.back() == '=') text.pop_back();
  for (char& c : text) {
    if (c == '+') c = '-';
    if (c == '/') c = '_';
  }
  return text;
}

std::string RandomText(size_t count) {
  std::string bytes(count, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) != 1)
    throw Failure("the system gives no random numbers", "try again");
  return Base64Url(bytes);
}

std::string Pkce::ChallengeOf(const std::string& verifier) {
  std::array<unsigned char, SHA256_DIGEST_LENGTH> digest;
  SHA256(reinterpret_cast<const unsigned char*>(verifier.data()), verifier.size(), digest.data());
  return Base64Url({reinterpret_cast<const char*>(digest.data()), digest.size()});
}

Pkce Pkce::Make() {
  Pkce pkce;
  pkce.verifier = RandomText(kVerifierBytes);
  pkce.challenge = ChallengeOf(pkce.verifier);
  return pkce;
}

}  // namespace host
