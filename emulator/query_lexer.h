// Words, values and signs of the search language.
#pragma once

#include <string>
#include <string_view>

namespace emulator {

struct Token {
  enum Kind { kEnd, kWord, kValue, kSign } kind = kEnd;
  std::string text;

  bool Is(std::string_view word) const { return kind != kValue && text == word; }
};

/// Throws ApiError (400, location "q") for text that is no token.
class QueryLexer {
 public:
  explicit QueryLexer(std::string_view query) : text(query) { Next(); }
  const Token& Peek() const { return current; }
  Token Next();

 private:
  Token Read();
  Token Quoted(char quote);

  std::string_view text;
  size_t position = 0;
  Token current;
};

}  // namespace emulator
