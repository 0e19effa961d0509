#include "emulator/call.h"

#include <charconv>

#include "emulator/api_error.h"

namespace emulator {

namespace {

// Length of the UTF-8 sequence at `at`; 0 when there is none.
size_t SequenceLength(const std::string& text, size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  if (lead < 0x80) return 1;
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || at + length > text.size()) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((static_cast<unsigned char>(text[at + i]) & 0xC0) != 0x80) return 0;
  }
  return length;
}

bool ValidUtf8(const std::string& text) {
  for (size_t at = 0; at < text.size();) {
    const size_t length = SequenceLength(text, at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

}  // namespace

Reply JsonReply(std::string text, int status) {
  Reply reply;
  reply.status = status;
  reply.body = std::move(text);
  return reply;
}

Reply JsonReply(const Json::Value& value, int status) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  writer["emitUTF8"] = true;
  return JsonReply(Json::writeString(writer, value), status);
}

Reply NoContent() {
  Reply reply;
  reply.status = 204;
  reply.contentType.clear();
  return reply;
}

bool Call::Flag(const std::string& name, bool otherwise) const {
  if (!Has(name)) return otherwise;
  const std::string text = Param(name);
  if (text != "true" && text != "false") {
    throw InvalidParameter(name, "Invalid value for boolean parameter: '" + text + "'");
  }
  return text == "true";
}

int64_t Call::Number(const std::string& name, int64_t low, int64_t high, int64_t otherwise) const {
  if (!Has(name)) return otherwise;
  const std::string text = Param(name);
  int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number < low || number > high) {
    throw InvalidParameter(name, "Invalid value '" + text +
                                     "'. Values must be within the range: [" + std::to_string(low) +
                                     ", " + std::to_string(high) + "]");
  }
  return number;
}

Json::Value Call::Json() const {
  // A null document names as few members as no document at all.
  return body.empty() || body == "null" ? Json::Value(Json::objectValue) : ParseObject(body);
}

Json::Value ParseObject(const std::string& text) {
  static const Json::CharReaderBuilder builder = [] {
    Json::CharReaderBuilder strict;
    Json::CharReaderBuilder::strictMode(&strict.settings_);
    strict["stackLimit"] = 100;
    return strict;
  }();
  if (!ValidUtf8(text)) throw ParseError();
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) throw ParseError();
  } catch (const Json::Exception&) {
    throw ParseError();
  }
  if (!value.isObject()) throw ParseError();
  return value;
}

}  // namespace emulator
