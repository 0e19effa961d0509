#include "emulator/synthetic.h"

#include <algorithm>
#include <cstring>

namespace emulator {

namespace {

// The output function of SplitMix64: any word can be computed on its own.
uint64_t Word(uint64_t seed, uint64_t index) {
  uint64_t z = seed + (index + 1) * 0x9E3779B97F4A7C15ULL;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

}  // namespace

void FillSynthetic(uint64_t seed, int64_t offset, char* out, size_t length) {
  uint64_t index = static_cast<uint64_t>(offset) / 8;
  const size_t lead = static_cast<size_t>(offset % 8);
  if (lead != 0 && length != 0) {
    const uint64_t word = Word(seed, index++);
    const size_t count = std::min(length, 8 - lead);
    std::memcpy(out, reinterpret_cast<const char*>(&word) + lead, count);
    out += count;
    length -= count;
  }
  for (; length >= 8; out += 8, length -= 8) {
    const uint64_t word = Word(seed, index++);
    std::memcpy(out, &word, 8);
  }
  if (length != 0) {
    const uint64_t word = Word(seed, index);
    std::memcpy(out, &word, length);
  }
}

}  // namespace emulator
