// Texts compressed for the log: one zlib stream written as upper-case hexadecimal.
//
// Safe from any thread. Both throw std::runtime_error when the data cannot be handled.
#pragma once

#include <cstddef>
#include <string>

/// Compresses `length` bytes at a zlib level (-1: zlib's default). With the default level the
/// result begins with "789C".
std::string compress_string(const char* text, size_t length, int level = -1);

/// The bytes that compress_string was given. A text that does not begin with "789C" is returned
/// unchanged.
std::string decompress_string(const std::string& text);
