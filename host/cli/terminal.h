// How things look: colours when the output is a terminal, sizes and names for people.
#pragma once

#include <cstdint>
#include <string>

namespace host {

/// Colours and weights, or nothing at all when the stream is no terminal or NO_COLOR is set.
class Paint {
 public:
  explicit Paint(int descriptor);

  std::string Bold(const std::string& text) const { return With("1", text); }
  std::string Faint(const std::string& text) const { return With("2", text); }
  std::string Blue(const std::string& text) const { return With("1;34", text); }
  std::string Green(const std::string& text) const { return With("32", text); }
  std::string Cyan(const std::string& text) const { return With("36", text); }
  std::string Yellow(const std::string& text) const { return With("33", text); }

 private:
  std::string With(const char* code, const std::string& text) const;

  bool on;
};

bool IsTerminal(int descriptor);
/// Columns of the terminal; 80 when it does not say.
int TerminalWidth(int descriptor);

/// "64.0 MiB", "512 B"
std::string HumanBytes(int64_t bytes);
/// A name that cannot drive the terminal: control characters become '?'.
std::string Printable(const std::string& name);
/// Columns that a UTF-8 text takes.
int DisplayWidth(const std::string& text);
/// The text with blanks up to `width` columns, on the right or (for numbers) on the left.
std::string PadRight(const std::string& text, int width);
std::string PadLeft(const std::string& text, int width);

/// Writes to standard output; throws Failure when that is full or closed.
void Print(const std::string& text);

}  // namespace host
