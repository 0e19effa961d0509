// File metadata as clients send it, applied to items.
#pragma once

#include <json/json.h>

#include "emulator/call.h"
#include "emulator/item.h"
#include "emulator/service.h"

namespace emulator {

/// Content that has arrived and waits to become a file's.
struct NewContent {
  int64_t blob = 0;
  int64_t size = 0;
  std::string md5;
  std::string mimeType;  ///< as announced with the bytes; may be empty
};

/// Makes a file or folder from its metadata, the caller's parameters and (unless null) content.
/// Throws ApiError when the caller may not, or the quota is used up.
Item CreateFromMetadata(Service& service, const Call& call, const Json::Value& metadata,
                        const NewContent* content);

/// Changes the file that the route names in the same way: metadata, parents, trash, content.
Item UpdateFromMetadata(Service& service, const Call& call, const Json::Value& metadata,
                        const NewContent* content);

/// What an upload needs to be allowed to begin; the same checks as above.
void CheckCreate(Service& service, const Call& call, const Json::Value& metadata, int64_t size);
void CheckUpdate(Service& service, const Call& call, const std::string& id, int64_t size);

}  // namespace emulator
