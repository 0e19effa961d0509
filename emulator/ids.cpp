#include "emulator/ids.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <stdexcept>

namespace emulator {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

uint64_t Mix(uint64_t z) {
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

void AppendLetters(std::string& out, uint64_t key, size_t count) {
  uint64_t word = 0;
  for (size_t i = 0; i < count; ++i) {
    if (i % 10 == 0) word = Mix(key += 0x9E3779B97F4A7C15ULL);
    out += kAlphabet[word & 63];
    word >>= 6;
  }
}

}  // namespace

std::string FileId(uint64_t key) {
  std::string id = "1";
  AppendLetters(id, key, 32);
  return id;
}

std::string RootFolderId(uint64_t key) {
  std::string id = "0A";
  AppendLetters(id, key, 14);
  return id + "PVA";
}

uint64_t RandomKey() {
  uint64_t key = 0;
  if (RAND_bytes(reinterpret_cast<unsigned char*>(&key), sizeof key) != 1) {
    throw std::runtime_error("no random numbers from libcrypto");
  }
  return key;
}

std::string RandomText(size_t length) {
  std::string text;
  while (text.size() < length)
    AppendLetters(text, RandomKey(), std::min<size_t>(10, length - text.size()));
  return text;
}

uint64_t HashText(std::string_view text) {
  uint64_t hash = 0xCBF29CE484222325ULL;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3ULL;
  return Mix(hash);
}

std::string Base64Url(std::string_view bytes) {
  std::string out;
  uint32_t bits = 0;
  int count = 0;
  for (const char c : bytes) {
    bits = bits << 8 | static_cast<unsigned char>(c);
    for (count += 8; count >= 6; count -= 6) out += kAlphabet[bits >> (count - 6) & 63];
  }
  if (count > 0) out += kAlphabet[bits << (6 - count) & 63];
  return out;
}

std::string FromBase64Url(std::string_view text) {
  std::string out;
  uint32_t bits = 0;
  int count = 0;
  for (const char c : text) {
    const auto* found = std::find(kAlphabet, kAlphabet + 64, c);
    if (found == kAlphabet + 64) return "";
    bits = bits << 6 | static_cast<uint32_t>(found - kAlphabet);
    if ((count += 6) < 8) continue;
    count -= 8;
    out += static_cast<char>(bits >> count & 255);
  }
  return out;
}

std::string Sha256(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
  return std::string(reinterpret_cast<char*>(digest), length);
}

std::string Hex(std::string_view bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (const char c : bytes) {
    out += kHex[static_cast<unsigned char>(c) >> 4];
    out += kHex[static_cast<unsigned char>(c) & 15];
  }
  return out;
}

}  // namespace emulator
