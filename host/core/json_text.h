// JSON between texts and values, as the host reads and writes it.
#pragma once

#include <json/json.h>

#include <optional>
#include <string>

namespace host {

/// Nothing when the text is not one strict JSON document.
std::optional<Json::Value> ParseJson(const std::string& text);
/// One line without blanks.
std::string CompactJson(const Json::Value& value);
/// Indented by two blanks, UTF-8 left as it is, ending in a line feed.
std::string PrettyJson(const Json::Value& value);

/// The member when `object` is an object that has it as text, else empty.
std::string TextMember(const Json::Value& object, const char* name);
/// The member when `object` is an object that has it as object, else null.
const Json::Value& ObjectMember(const Json::Value& object, const char* name);

}  // namespace host
