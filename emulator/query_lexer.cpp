#include "emulator/query_lexer.h"

#include <cctype>
#include <utility>

#include "emulator/api_error.h"

namespace emulator {

Token QueryLexer::Next() { return std::exchange(current, Read()); }

Token QueryLexer::Read() {
  while (position < text.size() && std::isspace(static_cast<unsigned char>(text[position]))) {
    ++position;
  }
  if (position == text.size()) return {};
  const char first = text[position];
  if (first == '\'' || first == '"') return Quoted(first);
  size_t end = position;
  while (end < text.size() && std::isalnum(static_cast<unsigned char>(text[end]))) ++end;
  if (end > position) {
    const std::string word(text.substr(position, end - position));
    position = end;
    return {Token::kWord, word};
  }
  static constexpr std::string_view kSigns[] = {"!=", "<=", ">=", "=", "<",
                                                ">",  "(",  ")",  "{", "}"};
  for (const std::string_view sign : kSigns) {
    if (text.substr(position, sign.size()) != sign) continue;
    position += sign.size();
    return {Token::kSign, std::string(sign)};
  }
  throw InvalidValue("q");
}

Token QueryLexer::Quoted(char quote) {
  Token token{Token::kValue, ""};
  for (++position; position < text.size(); ++position) {
    if (text[position] == quote) {
      ++position;
      return token;
    }
    if (text[position] == '\\' && position + 1 < text.size()) ++position;
    token.text += text[position];
  }
  throw InvalidValue("q");
}

}  // namespace emulator
