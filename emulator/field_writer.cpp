#include "emulator/field_writer.h"

#include <array>
#include <charconv>

namespace emulator {

namespace {

void AppendEscaped(std::string& out, unsigned char c) {
  static constexpr char kHex[] = "0123456789abcdef";
  switch (c) {
    case '"':
      out += "\\\"";
      return;
    case '\\':
      out += "\\\\";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    default:
      out += {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 15]};
  }
}

constexpr std::array<bool, 256> kNeedsEscape = [] {
  std::array<bool, 256> table{};
  for (int c = 0; c < 0x20; ++c) table[c] = true;
  table['"'] = table['\\'] = true;
  return table;
}();

}  // namespace

void AppendJsonString(std::string& out, std::string_view text) {
  out += '"';
  size_t plain = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (!kNeedsEscape[c]) continue;
    out.append(text, plain, i - plain);
    AppendEscaped(out, c);
    plain = i + 1;
  }
  out.append(text, plain);
  out += '"';
}

void FieldWriter::Separate() {
  if (levels.empty()) return;
  Level& level = levels.back();
  if (!level.array) return;  // Key has done it
  if (!level.empty) out += ',';
  level.empty = false;
  next = level.mask;
}

void FieldWriter::Open(char bracket) {
  Separate();
  levels.push_back({next, bracket == '['});
  out += bracket;
}

void FieldWriter::Close(char bracket) {
  levels.pop_back();
  out += bracket;
}

void FieldWriter::BeginObject() { Open('{'); }
void FieldWriter::EndObject() { Close('}'); }
void FieldWriter::BeginArray() { Open('['); }
void FieldWriter::EndArray() { Close(']'); }

bool FieldWriter::Key(std::string_view name) {
  Level& level = levels.back();
  const FieldMask* child = level.mask->Child(name);
  if (child == nullptr) return false;
  if (!level.empty) out += ',';
  level.empty = false;
  AppendJsonString(out, name);
  out += ':';
  next = child;
  return true;
}

void FieldWriter::Text(std::string_view value) {
  Separate();
  AppendJsonString(out, value);
}

void FieldWriter::Number(int64_t value) {
  Separate();
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  out.append(digits, end);
}

void FieldWriter::Bool(bool value) {
  Separate();
  out += value ? "true" : "false";
}

void FieldWriter::Value(const Json::Value& value) {
  switch (value.type()) {
    case Json::objectValue:
      BeginObject();
      for (auto member = value.begin(); member != value.end(); ++member) {
        if (Key(member.name())) Value(*member);
      }
      EndObject();
      return;
    case Json::arrayValue:
      BeginArray();
      for (const Json::Value& element : value) Value(element);
      EndArray();
      return;
    case Json::stringValue:
      Text(value.asString());
      return;
    case Json::booleanValue:
      Bool(value.asBool());
      return;
    case Json::nullValue:
      Separate();
      out += "null";
      return;
    case Json::realValue:
      Separate();
      out += Json::valueToString(value.asDouble());
      return;
    default:
      Number(value.asInt64());
  }
}

}  // namespace emulator
