// One file's bytes, on their way to the service.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "host/core/item.h"
#include "host/core/session.h"
#include "host/core/sinks.h"

namespace host {

/// Makes a file in the folder (empty `file.id`) or replaces the content of an existing one with
/// `file.size` bytes of `source`. Returns the record as the service has it afterwards. `handle` may
/// be marked as abandoned from elsewhere. What `source` throws ends the upload and is thrown on.
/// Throws Failure when the service does not confirm every byte. `shown` names the file in messages.
Item Upload(Session& session, const std::string& folderId, Item file,
            const UploadSource::Function& source, const std::shared_ptr<_FS_HANDLE>& handle,
            const std::string& shown);

}  // namespace host
