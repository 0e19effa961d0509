#include "emulator/fields.h"

#include <cctype>
#include <stdexcept>

#include "emulator/api_error.h"

namespace emulator {

class FieldsParser {
 public:
  explicit FieldsParser(std::string_view selection) : text(selection) {}

  FieldMask Parse() {
    FieldMask mask;
    Selection(mask);
    if (position != text.size()) Fail();
    return mask;
  }

 private:
  void Selection(FieldMask& into) {
    do {
      Member(into);
    } while (Take(','));
  }

  void Member(FieldMask& into) {
    FieldMask* mask = &into.Add(Name());
    while (Take('/')) mask = &mask->Add(Name());
    if (!Take('(')) return;
    Selection(*mask);
    if (!Take(')')) Fail();
  }

  std::string_view Name() {
    SkipBlanks();
    const size_t begin = position;
    if (position < text.size() && text[position] == '*') {
      ++position;
    } else {
      while (position < text.size() && (std::isalnum(static_cast<unsigned char>(text[position])) ||
                                        text[position] == '_' || text[position] == '-')) {
        ++position;
      }
    }
    if (position == begin) Fail();
    return text.substr(begin, position - begin);
  }

  bool Take(char wanted) {
    SkipBlanks();
    if (position >= text.size() || text[position] != wanted) return false;
    ++position;
    return true;
  }

  void SkipBlanks() {
    while (position < text.size() && text[position] == ' ') ++position;
  }

  [[noreturn]] void Fail() { throw std::invalid_argument(std::string(text.substr(position))); }

  std::string_view text;
  size_t position = 0;
};

const FieldMask& FieldMask::All() {
  static const FieldMask all;
  return all;
}

FieldMask FieldMask::Parse(std::string_view text) { return FieldsParser(text).Parse(); }

FieldMask& FieldMask::Add(std::string_view name) {
  for (auto& [known, child] : children) {
    if (known == name) return child;
  }
  traits |= name == "*" ? ~uint64_t{0} : Trait(name);
  return children.emplace_back(std::string(name), FieldMask()).second;
}

const FieldMask* FieldMask::Child(std::string_view name) const {
  if (Leaf()) return &All();
  // Asked for every field of every item: most that are not selected are told by one bit.
  if ((traits & Trait(name)) == 0) return nullptr;
  const FieldMask* any = nullptr;
  for (const auto& [known, child] : children) {
    if (known.size() == name.size() && known.front() == name.front() && known == name)
      return &child;
    if (known.size() == 1 && known.front() == '*') any = &child;
  }
  return any;
}

std::string FieldMask::FirstUnknown(const FieldMask& schema) const {
  for (const auto& [name, child] : children) {
    if (name == "*") continue;
    const FieldMask* known = schema.Leaf() ? nullptr : schema.Child(name);
    if (known == nullptr) return name;
    const std::string below = child.FirstUnknown(*known);
    if (!below.empty()) return name + "/" + below;
  }
  return "";
}

FieldMask SelectFields(const std::string& fields, const FieldMask& schema,
                       const FieldMask& defaults) {
  if (fields.empty()) return defaults;
  FieldMask mask;
  std::string wrong;
  try {
    mask = FieldMask::Parse(fields);
    wrong = mask.FirstUnknown(schema);
  } catch (const std::invalid_argument& refused) {
    wrong = *refused.what() != '\0' ? refused.what() : fields;
  }
  if (!wrong.empty()) throw InvalidParameter("fields", "Invalid field selection " + wrong);
  return mask;
}

}  // namespace emulator
