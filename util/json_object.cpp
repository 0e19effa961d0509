#include "util/json_object.h"

#include <json/reader.h>
#include <json/writer.h>

#include <cstring>
#include <utility>

#include "util/strings.h"

// jsoncpp marks its first-generation reader and writers as superseded. Their output is what the
// host's dialogs and the service have always been sent, so they stay.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

void RequireObject(const Json::Value& node) {
  if (!node.isObject() && !node.isNull()) throw AERROR::ACCESS_VIOLATION;
}

void RequireArray(const Json::Value& node) {
  if (!node.isArray() && !node.isNull()) throw AERROR::ACCESS_VIOLATION;
}

}  // namespace

JsonObject::JsonObject(const char* text, unsigned length) : node(&root) {
  Parse(text, text + length, false);
}

JsonObject::JsonObject(const char* text) : node(&root) {
  if (text != nullptr) Parse(text, text + strlen(text), true);
}

JsonObject::JsonObject(Json::Value& viewed) : node(&viewed) {}

JsonObject::JsonObject(const JsonObject& other) : node(other.node), root(other.root) {
  if (!root.isNull()) node = &root;
}

JsonObject::JsonObject(JsonObject&& other) noexcept
    : node(other.node == &other.root ? &root : other.node), root(std::move(other.root)) {}

JsonObject JsonObject::GetEmptyObject() { return JsonObject(static_cast<const char*>(nullptr)); }

void JsonObject::Parse(const char* begin, const char* end, bool collectComments) {
  bool parsed = false;
  try {
    parsed = Json::Reader().parse(begin, end, root, collectComments);
  } catch (const Json::Exception&) {
    // Nested deeper than the reader goes.
  }
  if (!parsed) throw AERROR::JSON_PARSE_FAILED;
}

Json::Value* JsonObject::Find(const char* path) const {
  const Json::Value* found = node;
  for (const char* part = path; *part != '\0' && found != nullptr;) {
    const char* end = part + strcspn(part, "/");
    if (end != part) found = found->isObject() ? found->find(part, end) : nullptr;
    part = *end == '/' ? end + 1 : end;
  }
  return const_cast<Json::Value*>(found);  // `node` itself is not const
}

JsonObject JsonObject::GetObject(const char* path) const {
  Json::Value* found = Find(path);
  if (found == nullptr) throw AERROR::ACCESS_VIOLATION;
  return JsonObject(*found);
}

bool JsonObject::HasObject(const char* path) const { return Find(path) != nullptr; }

JsonObject JsonObject::operator[](const char* key) const {
  RequireObject(*node);
  return JsonObject((*node)[key]);
}

JsonObject JsonObject::operator[](int index) const {
  RequireArray(*node);
  return JsonObject((*node)[index]);
}

JsonObject::operator std::string() const { return node->asString().c_str(); }
JsonObject::operator std::wstring() const { return ToWide(*this); }
JsonObject::operator unsigned long long() const { return node->asUInt64(); }
JsonObject::operator long long() const { return node->asInt64(); }
JsonObject::operator long() const { return static_cast<long>(node->asInt64()); }
JsonObject::operator int() const { return static_cast<int>(node->asInt64()); }
JsonObject::operator AERROR() const { return static_cast<AERROR>(node->asInt64()); }
JsonObject::operator double() const { return node->asDouble(); }
JsonObject::operator bool() const { return node->asBool(); }

JsonObject& JsonObject::operator=(const std::string& value) {
  *node = value;
  return *this;
}

JsonObject& JsonObject::operator=(const JsonObject& value) {
  if (this == &value) return *this;
  Json::Value copy = *value.node;  // the value may be a part of what it replaces
  *node = std::move(copy);
  return *this;
}

void JsonObject::Insert(const char* key, const JsonObject& value) {
  RequireObject(*node);
  Json::Value copy = *value.node;
  (*node)[key] = std::move(copy);
}

void JsonObject::Insert(const char* key, const std::wstring& value) {
  RequireObject(*node);
  (*node)[key] = ToNarrow(value);
}

void JsonObject::InsertArrayItem(const std::string& value) {
  RequireArray(*node);
  node->append(value);
}

void JsonObject::InsertArrayItem(const JsonObject& value) {
  RequireArray(*node);
  Json::Value copy = *value.node;
  node->append(std::move(copy));
}

void JsonObject::RemoveArrayItem(unsigned long index) {
  RequireArray(*node);
  Json::Value removed;
  node->removeIndex(static_cast<Json::ArrayIndex>(index), &removed);
}

void JsonObject::Remove(const char* key) {
  RequireObject(*node);
  node->removeMember(key);
}

std::vector<std::string> JsonObject::GetKeys() const {
  RequireObject(*node);
  return node->getMemberNames();
}

unsigned JsonObject::GetArraySize() const { return node->size(); }
bool JsonObject::IsArray() const { return node->isArray(); }
bool JsonObject::IsValid() const { return !node->isNull(); }

std::string JsonObject::ToText() const { return Trim(Json::FastWriter().write(*node)); }
std::string JsonObject::ToStyledText() const { return Json::StyledWriter().write(*node); }
