// Items as the kernel wants to see them.
#pragma once

#include <sys/stat.h>

#include <string>

#include "host/mount/drive.h"

namespace host::mount {

/// Owner and permissions are the same for everything and are not stored at the service: `owner`
/// and `group` are those of who mounted; what cannot be changed is shown as read-only.
struct Ownership {
  uid_t owner = 0;
  gid_t group = 0;
};

struct stat AttributesOf(const Item& item, const Ownership& ownership, bool readOnly);

/// Names of the extended attributes, each followed by a NUL.
std::string AttributeNames();
/// The value of one ("user.vormlane.state"): 0, or ENODATA when there is no such attribute.
int ExtendedAttribute(Drive& drive, const Item& item, const std::string& name, std::string& value);

}  // namespace host::mount
