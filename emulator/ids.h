// Identifiers in the service's looks.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace emulator {

/// "1" and 32 letters, digits, '-' or '_': the id of a file. The same key gives the same id.
std::string FileId(uint64_t key);
/// "0A", 14 letters and "PVA": the id of a root folder or team drive.
std::string RootFolderId(uint64_t key);
/// A number that nobody can guess.
uint64_t RandomKey();
/// `length` random characters of the same alphabet.
std::string RandomText(size_t length);
uint64_t HashText(std::string_view text);

std::string Base64Url(std::string_view bytes);
/// Empty when `text` is not base64url.
std::string FromBase64Url(std::string_view text);
std::string Sha256(std::string_view bytes);
std::string Hex(std::string_view bytes);

}  // namespace emulator
