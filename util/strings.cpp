#include "util/strings.h"

#include <uuid/uuid.h>

#include <codecvt>
#include <locale>

std::vector<std::string> Split(std::string_view text, std::string_view separator) {
  std::vector<std::string> pieces;
  size_t start = 0;
  for (size_t end; (end = text.find(separator, start)) != std::string_view::npos;
       start = end + separator.size()) {
    pieces.emplace_back(text.substr(start, end - start));
  }
  pieces.emplace_back(text.substr(start));
  return pieces;
}

std::string Trim(std::string_view text) {
  constexpr std::string_view kBlank = " \t\n\v\f\r";
  const size_t first = text.find_first_not_of(kBlank);
  if (first == std::string_view::npos) return {};
  return std::string(text.substr(first, text.find_last_not_of(kBlank) - first + 1));
}

std::string ToLower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

std::string NewUUID() {
  uuid_t bytes;
  uuid_generate_random(bytes);
  char text[37];
  uuid_unparse_lower(bytes, text);
  return text;
}

// std::wstring_convert is deprecated without a successor in the standard library.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
#endif

std::wstring ToWide(const std::string& text) {
  return std::wstring_convert<std::codecvt_utf8<wchar_t>>().from_bytes(text);
}

std::string ToNarrow(const std::wstring& text) {
  return std::wstring_convert<std::codecvt_utf8<wchar_t>>().to_bytes(text);
}
