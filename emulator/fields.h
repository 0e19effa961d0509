// The partial response parameter `fields`.
// https://developers.google.com/drive/api/guides/fields-parameter
//
//   selection := member { "," member }
//   member    := path [ "(" selection ")" ]
//   path      := name { "/" name }
//   name      := "*" | letters and digits
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace emulator {

/// A tree of member names. A leaf selects everything below it. Immutable once parsed.
class FieldMask {
 public:
  static const FieldMask& All();
  /// Throws std::invalid_argument with the offending part.
  static FieldMask Parse(std::string_view text);

  /// The part for a member; null when it is not selected.
  const FieldMask* Child(std::string_view name) const;
  bool Has(std::string_view name) const { return Child(name) != nullptr; }
  bool Leaf() const { return children.empty(); }
  /// The first selected member that `schema` does not have ("" when all exist). A schema is written
  /// as a selection too; where it has "*" any name goes.
  std::string FirstUnknown(const FieldMask& schema) const;

 private:
  friend class FieldsParser;
  FieldMask& Add(std::string_view name);
  /// One bit of 64 for a name's length and start.
  static uint64_t Trait(std::string_view name) {
    const auto start = name.empty() ? '\0' : name.front();
    return uint64_t{1} << ((name.size() * 7 + static_cast<unsigned char>(start)) % 64);
  }

  std::vector<std::pair<std::string, FieldMask>> children;
  uint64_t traits = 0;  // of all children; all bits when there is a "*"
};

/// The parsed `fields` of a request, or `defaults` when it is empty. Throws the ApiError of the
/// service for one that does not parse or fit `schema`.
FieldMask SelectFields(const std::string& fields, const FieldMask& schema,
                       const FieldMask& defaults);

}  // namespace emulator
