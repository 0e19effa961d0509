// A local file as the source of an upload.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "host/core/descriptor.h"

namespace host {

/// Opened for reading; its size is that of the moment of opening. One thread at a time.
class LocalFile {
 public:
  /// "-" is standard input, copied to an unnamed temporary file first. Throws Failure.
  explicit LocalFile(const std::string& name);

  int64_t Size() const { return size; }
  /// Fills the buffer from `offset` and returns how many bytes there were. Throws Failure when the
  /// file can no longer be read or has become shorter.
  uint64_t Read(int64_t offset, std::span<char> buffer) const;

 private:
  void Spool();

  std::string name;
  Descriptor descriptor;
  int64_t size = 0;
};

}  // namespace host
