// Names on the drive and names in a folder of the mount.
//
// A Drive name is any text and may stand several times in one folder; a file name is 1 to 255
// bytes without '/', neither "." nor "..", and unique. Names are mapped so that the mapping can be
// turned round by looking at the text alone:
//
//   "a/b"  <-> "a%2Fb"        "."  <-> "%2E"      ".." <-> "%2E%2E"     ""  <-> "%00"
//
// A Drive name that already looks like such an escape gains one more "25" after its '%'. Twins,
// names that are too long and names that are not UTF-8 get a mark made from their Drive id
// ("report~x1Yz.pdf"); those are turned round by the item table.
//
// Pure functions, callable from any thread.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace host::mount {

inline constexpr size_t kMaxNameBytes = 255;

/// The file name of a Drive name, before twins are told apart.
std::string LocalName(std::string_view driveName);
/// The Drive name that a file name stands for; LocalName of it is the same name again.
std::string DriveName(std::string_view localName);

bool IsUtf8(std::string_view text);

/// The file name under which an item is shown. `taken` says whether a name is already in use in
/// the folder.
std::string ShownName(std::string_view driveName, std::string_view id,
                      const std::function<bool(const std::string&)>& taken);

/// `name` with `mark` put before its extension: ("a.txt", "~1") -> "a~1.txt". Cut to fit.
std::string WithMark(const std::string& name, const std::string& mark);

/// The plug-in reports names without leading and trailing white space.
std::string Trimmed(std::string_view name);

/// The name of a Google document at the service: "Plan.Google Docs.webloc" -> "Plan".
std::string DocumentName(std::string_view shownByPlugin);

}  // namespace host::mount
