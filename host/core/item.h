// What the host knows about one item of the drive, beyond the plug-in's record.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "plugin/fs_file.h"

namespace host {

using Item = _FS_FILE_V2;

inline bool IsFolder(const Item& item) { return (item.attributes & kFsFolder) != 0; }
/// A document without bytes of its own, shown as a small web-location file.
inline bool IsDocument(const Item& item) { return (item.attributes & kFsInlineContent) != 0; }
/// A folder made up by the plug-in: it cannot be changed.
inline bool IsMadeUpFolder(const Item& item) {
  return IsFolder(item) && (item.attributes & kFsSynthesised) != 0;
}

/// "folder", "file", "document" or "virtual folder".
const char* KindOf(const Item& item);

/// The name under which the service knows the item: a document is shown with its type and an
/// ending appended ("Plan" as "Plan.Google Docs.webloc"), which must not be sent back.
std::string ServiceName(const Item& item);
/// The name to give `item` when the user asks for `shown`: the same ending is taken off again.
std::string ServiceNameFor(const Item& item, const std::string& shown);

/// An item and what is below it.
struct Branch {
  Item item;
  std::vector<Branch> children;
};

/// The members that every --json output shows of an item.
Json::Value ItemJson(const Item& item);
/// The same with "children" for folders.
Json::Value BranchJson(const Branch& branch);

}  // namespace host
