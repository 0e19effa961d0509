// Writes JSON text straight away, leaving out what the request did not select: building a tree of
// values for a page of a thousand files would cost several times as much.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "emulator/fields.h"

namespace emulator {

/// Usage: BeginObject(); if (Key("id")) Text(id); EndObject(); Take().
class FieldWriter {
 public:
  /// `mask` must outlive the writer.
  explicit FieldWriter(const FieldMask& mask) : next(&mask) { out.reserve(4096); }

  void BeginObject();
  void EndObject();
  void BeginArray();
  void EndArray();
  /// Starts a member; false (and nothing is written) when it is not selected. After true exactly
  /// one value must follow.
  bool Key(std::string_view name);
  /// Whether Key would be true, for values that cost something to find.
  bool Selects(std::string_view name) const { return levels.back().mask->Has(name); }

  void Text(std::string_view value);
  void Number(int64_t value);
  void Bool(bool value);
  /// Any value, its members filtered as well.
  void Value(const Json::Value& value);

  // A member whose value is at hand.
  void Text(std::string_view name, std::string_view value) {
    if (Key(name)) Text(value);
  }
  void Bool(std::string_view name, bool value) {
    if (Key(name)) Bool(value);
  }

  std::string Take() { return std::move(out); }

 private:
  void Separate();
  void Open(char bracket);
  void Close(char bracket);

  struct Level {
    const FieldMask* mask;
    bool array;
    bool empty = true;
  };
  std::string out;
  std::vector<Level> levels;
  const FieldMask* next;  ///< selects within the value that is written next
};

/// Appends `text` as a JSON string, quotes included.
void AppendJsonString(std::string& out, std::string_view text);

}  // namespace emulator
