// Query parameters or headers by name, remembered in the order of their first insertion: the order
// in which they are sent.
#pragma once

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

class FieldMap {
 public:
  using Entry = std::pair<std::string, std::string>;

  /// A name that is there already keeps its place.
  void Set(std::string name, std::string value) {
    for (Entry& entry : entries) {
      if (entry.first == name) {
        entry.second = std::move(value);
        return;
      }
    }
    entries.emplace_back(std::move(name), std::move(value));
  }

  void Remove(const std::string& name) {
    std::erase_if(entries, [&](const Entry& entry) { return entry.first == name; });
  }

  void Clear() { entries.clear(); }
  bool Empty() const { return entries.empty(); }
  auto begin() const { return entries.begin(); }
  auto end() const { return entries.end(); }

  std::unordered_map<std::string, std::string> ToMap() const {
    return {entries.begin(), entries.end()};
  }

 private:
  std::vector<Entry> entries;  // a request has a handful: a scan beats hashing
};
