// The wrapping that every operation of the protocol object has in common.
#pragma once

#include <cstring>
#include <string>

#include "plugin/aerror.h"

/// What `operation` returns; FAILED when it throws. Nothing is thrown at the host.
template <class Operation>
AERROR Guarded(Operation&& operation) noexcept {
  try {
    return operation();
  } catch (...) {
    return AERROR::FAILED;
  }
}

/// The host's rule for buffers: `*length` holds the room without the terminator going in and the
/// text's length coming out, also when the room does not suffice. The buffer itself must have room
/// for the terminator on top.
inline AERROR CopyText(const std::string& text, char* buffer, int* length) {
  const bool fits = *length >= 0 && static_cast<size_t>(*length) >= text.size();
  *length = static_cast<int>(text.size());
  if (!fits) return AERROR::INSUFFICIENT_BUFFER;
  memcpy(buffer, text.c_str(), text.size() + 1);
  return AERROR::SUCCESS;
}
