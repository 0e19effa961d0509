// The emulator as every row finds it: the drive's folders and files, and what was asked of it.
#pragma once

#include <filesystem>
#include <string>

#include "emulator/drive_emulator.h"

namespace bench {

inline constexpr int64_t kBytesPerSecond = 125'000'000;  ///< 1 Gbit/s
inline constexpr int kRoundTripMilliseconds = 50;
inline constexpr int64_t kMiB = 1 << 20;

inline constexpr int kTreeWidth = 9;  ///< folders in a folder and in each of those, files in those
inline constexpr int kManyFiles = 10'000;
inline constexpr int64_t kBigBytes = 1024 * kMiB;
inline constexpr int kParallelFiles = 8;
inline constexpr int64_t kParallelBytes = 128 * kMiB;
inline constexpr int kSmallFiles = 25;
inline constexpr int kKnownFolders = 100;
inline constexpr int kKnownFiles = 1000;  ///< in each of them

class Service {
 public:
  /// With a directory it speaks TLS on the service's own port, under an authority made there.
  explicit Service(const std::filesystem::path& tlsDirectory);

  emulator::DriveEmulator drive;

  /// Bytes of files that were sent since ClearJournal.
  int64_t BytesFetched() const;
  /// How many items a folder holds, and of these how many of `size` bytes.
  int CountOf(const std::string& folder, int64_t size) const;
  int64_t SizeOf(const std::string& path) const;  ///< -1: there is no such file
};

}  // namespace bench
