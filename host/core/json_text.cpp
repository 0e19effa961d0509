#include "host/core/json_text.h"

#include <memory>

namespace host {
namespace {

std::string Written(const Json::Value& value, const char* indentation) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = indentation;
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

}  // namespace

std::optional<Json::Value> ParseJson(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors))
      return std::nullopt;
  } catch (const Json::Exception&) {  // nested beyond the reader's limit
    return std::nullopt;
  }
  return value;
}

std::string CompactJson(const Json::Value& value) { return Written(value, ""); }

std::string PrettyJson(const Json::Value& value) { return Written(value, "  ") + "\n"; }

std::string TextMember(const Json::Value& object, const char* name) {
  if (!object.isObject()) return {};
  const Json::Value& member = object[name];
  return member.isString() ? member.asString() : std::string();
}

const Json::Value& ObjectMember(const Json::Value& object, const char* name) {
  if (!object.isObject()) return Json::Value::nullSingleton();
  const Json::Value& member = object[name];
  return member.isObject() ? member : Json::Value::nullSingleton();
}

}  // namespace host
