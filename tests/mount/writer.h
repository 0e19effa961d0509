// A program that works on a mount and remembers what it was promised, and what the mount and the
// service are compared with it by.
#pragma once

#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "emulator/drive_emulator.h"

namespace host::mount {

/// What lies below a folder: contents, and kFolder for folders, by relative path.
using Entries = std::map<std::string, std::string>;
inline constexpr char kFolder[] =
    "\x01"
    "folder";

/// As the mount shows it.
Entries Shown(const std::filesystem::path& root);

/// What the service has otherwise than `shown` in a folder of its top, and what it has twice.
std::vector<std::string> CompareWithService(emulator::DriveEmulator& service,
                                            const std::string& folder, const Entries& shown);

/// One program that works in a folder of its own.
class Writer {
 public:
  Writer(std::filesystem::path place, unsigned seed) : root(std::move(place)), random(seed) {}

  /// Works until an operation fails, or so many are done; false when one has failed.
  bool Work(int most);

  /// Takes up what the mount shows; complains about what was promised otherwise.
  void Compare(const Entries& shown, std::vector<std::string>& faults);

  int operations = 0;

 private:
  /// A write that neither fsync nor close has returned for.
  struct Write {
    std::string name;  ///< empty when there is none
    std::string base;  ///< the content that it began on
    std::string piece;
    size_t offset = 0;
  };

  std::string Content();
  std::string Pick(bool folder);
  std::string NewName();
  template <typename Function>
  bool Change(const std::string& name, const std::string& value, Function&& act,
              std::set<std::string> between = {});
  bool IsInterruptedWrite(const std::string& name, const std::string& value) const;
  bool Put(const std::string& name, const std::string& content, int flags, off_t offset,
           const std::string& base = "");

  bool Operate();
  bool Make();
  bool Rewrite();
  bool Patch();
  bool Save();
  bool Move(const std::string& from, const std::string& to);
  bool Rename();
  bool Delete();
  bool MakeFolder();
  bool DeleteFolder();

  std::filesystem::path root;
  std::mt19937 random;
  /// What the tree must be: for each name the values it may have (two where a crash decided).
  std::map<std::string, std::set<std::string>> promised;
  Write writing;
  int counter = 0;
};

}  // namespace host::mount
