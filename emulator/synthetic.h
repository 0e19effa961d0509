// Content that is computed instead of stored, so that files of any size cost nothing.
#pragma once

#include <cstddef>
#include <cstdint>

namespace emulator {

/// Writes the bytes [offset, offset + length) of the endless content named by `seed`.
void FillSynthetic(uint64_t seed, int64_t offset, char* out, size_t length);

}  // namespace emulator
