// `vormlane status` for people.
#pragma once

#include <json/json.h>

#include <string>

#include "host/cli/terminal.h"

namespace host::mount {

/// `status`: what one mount says about itself.
std::string StatusText(const Json::Value& status, const Paint& paint);

}  // namespace host::mount
