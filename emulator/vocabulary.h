// What tests and seeds say to the store: paths, contents, shares.
#pragma once

#include <json/json.h>

#include <optional>
#include <string>
#include <vector>

#include "emulator/store.h"

namespace emulator {

/// Any thread. The functions are those of DriveEmulator with the same names.
class Vocabulary {
 public:
  explicit Vocabulary(Store& spoken) : store(spoken) {}

  User UserOf(const std::string& email);
  Item ItemOf(const std::string& id);
  std::string MakeFolder(const std::string& path, const std::string& user);
  std::string Put(const std::string& path, const std::string& content, const std::string& mimeType,
                  const std::string& user);
  std::string PutSynthetic(const std::string& path, int64_t size, const std::string& user);
  std::string PutUnder(const std::string& parentId, const std::string& name,
                       const std::string& content, const std::string& mimeType);
  void Write(const std::string& id, const std::string& content);
  void ShareWith(const std::string& id, const std::string& user, const std::string& role);
  std::optional<std::string> Find(const std::string& path, const std::string& user);
  std::optional<std::string> Content(const std::string& id, int64_t offset, int64_t length);
  Json::Value DumpTree(const std::string& user);

  /// The next items made get these times instead of the present; 0 ends it. For seeds, which are
  /// the same on every run; ids are then derived from names and places too.
  void FreezeTime(int64_t milliseconds) { frozen = milliseconds; }

 private:
  Item NewItem(const Item& parent, const std::string& name, const std::string& mimeType);
  Item FolderBelow(const Item& parent, const std::string& name);
  std::pair<Item, std::string> FolderAndName(const std::string& path, const std::string& user);
  int64_t StoreBytes(const std::string& content, std::string& md5);
  Json::Value Node(const Item& item);

  Store& store;
  int64_t frozen = 0;
};

}  // namespace emulator
