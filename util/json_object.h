// The one type through which the plug-in reads and writes JSON.
//
// A JsonObject either owns a document or is a view on a node of another one; a view must not
// outlive the document. Not thread-safe: one document, one thread.
//
// Errors are thrown: AERROR::JSON_PARSE_FAILED when a text cannot be parsed, nesting beyond the
// parser's limit included; AERROR::ACCESS_VIOLATION when a member is asked of something that does
// not have it. Converting a node of the wrong kind throws jsoncpp's own exception.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "plugin/aerror.h"

class JsonObject {
 public:
  /// Parses exactly `length` bytes.
  JsonObject(const char* text, unsigned length);
  /// Parses a NUL-terminated text, comments allowed; null makes an empty document.
  explicit JsonObject(const char* text);
  /// A view.
  explicit JsonObject(Json::Value& node);
  /// A copy of a non-empty owner owns a deep copy; any other copy is a view on the same node.
  JsonObject(const JsonObject& other);
  JsonObject(JsonObject&& other) noexcept;
  virtual ~JsonObject() = default;

  static JsonObject GetEmptyObject();

  /// A view on the node at a path such as "/user/name". Parts name members; a path cannot go
  /// through an array. Empty parts are skipped, so "/" is the node itself.
  JsonObject GetObject(const char* path) const;
  bool HasObject(const char* path) const;
  /// Made, as null, when absent.
  JsonObject operator[](const char* key) const;
  JsonObject operator[](int index) const;

  /// Cut at an embedded NUL.
  operator std::string() const;
  operator std::wstring() const;
  operator unsigned long long() const;
  operator long long() const;
  operator long() const;
  operator int() const;
  operator AERROR() const;
  operator double() const;
  operator bool() const;

  /// Both replace the node's value, in the document that the node belongs to.
  JsonObject& operator=(const std::string& value);
  JsonObject& operator=(const JsonObject& value);
  void Insert(const char* key, const JsonObject& value);
  void Insert(const char* key, const std::wstring& value);
  void InsertArrayItem(const std::string& value);
  void InsertArrayItem(const JsonObject& value);
  void RemoveArrayItem(unsigned long index);
  void Remove(const char* key);

  /// Member names, sorted.
  std::vector<std::string> GetKeys() const;
  unsigned GetArraySize() const;
  bool IsArray() const;
  /// Not null.
  bool IsValid() const;

  /// Compact, on one line, without a trailing line break.
  std::string ToText() const;
  /// Indented, for people.
  std::string ToStyledText() const;

 private:
  Json::Value* Find(const char* path) const;
  void Parse(const char* begin, const char* end, bool collectComments);

  Json::Value* node;
  Json::Value root;
};
