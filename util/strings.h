// Small text helpers. Pure functions, safe from any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

/// The pieces between separators, empty ones included; a text without one is its own only piece.
std::vector<std::string> Split(std::string_view text, std::string_view separator);

/// Without leading and trailing ASCII white space.
std::string Trim(std::string_view text);

/// ASCII letters in lower case.
std::string ToLower(std::string_view text);

/// A new random UUID (RFC 4122, version 4) in lower case with dashes.
std::string NewUUID();

/// UTF-8 from and to the platform's wide text; both throw std::range_error on malformed input.
std::wstring ToWide(const std::string& text);
std::string ToNarrow(const std::wstring& text);
