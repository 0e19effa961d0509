// A range of one file's bytes, in order and each byte once.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "host/core/item.h"
#include "host/core/session.h"

namespace host {

/// Receives the bytes of a download in ascending order without gaps or repeats.
using ByteSink = std::function<void(int64_t offset, std::span<const char> bytes)>;

/// Reads `length` bytes from `offset` of a file (bounded by its size). `handle` may be marked as
/// abandoned from elsewhere. A transfer that breaks off is taken up where it ended a few times.
/// What `sink` throws ends the download and is thrown on. Throws Failure when the service does not
/// deliver every byte. `shown` names the file in messages.
void Download(Session& session, const Item& file, int64_t offset, int64_t length,
              const std::shared_ptr<_FS_HANDLE>& handle, const std::string& shown,
              const ByteSink& sink);

}  // namespace host
