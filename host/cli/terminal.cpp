#include "host/cli/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <iterator>

#include "host/core/failure.h"

namespace host {

Paint::Paint(int descriptor) : on(IsTerminal(descriptor) && std::getenv("NO_COLOR") == nullptr) {}

std::string Paint::With(const char* code, const std::string& text) const {
  return on && !text.empty() ? std::string("\x1b[") + code + "m" + text + "\x1b[0m" : text;
}

bool IsTerminal(int descriptor) { return isatty(descriptor) == 1; }

int TerminalWidth(int descriptor) {
  winsize size{};
  if (ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
  return size.ws_col;
}

std::string HumanBytes(int64_t bytes) {
  static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  // Rounding would show 1024.0 of a unit instead of 1.0 of the next.
  while (value >= 1023.95 && unit + 1 < std::size(kUnits)) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string Printable(const std::string& name) {
  std::string shown = name;
  for (char& c : shown) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) c = '?';
  }
  return shown;
}

int DisplayWidth(const std::string& text) {
  std::mbstate_t state{};
  int width = 0;
  for (size_t at = 0; at < text.size();) {
    wchar_t character = 0;
    const size_t length = std::mbrtowc(&character, text.data() + at, text.size() - at, &state);
    if (length == 0 || length > text.size()) {  // not UTF-8: one column a byte
      state = {};
      ++width;
      ++at;
      continue;
    }
    width += std::max(wcwidth(character), 0);
    at += length;
  }
  return width;
}

std::string PadRight(const std::string& text, int width) {
  return text + std::string(static_cast<size_t>(std::max(width - DisplayWidth(text), 0)), ' ');
}

std::string PadLeft(const std::string& text, int width) {
  return std::string(static_cast<size_t>(std::max(width - DisplayWidth(text), 0)), ' ') + text;
}

void Print(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0)
    throw Failure(std::string("cannot write the output: ") + std::strerror(errno),
                  "check where it goes to");
}

}  // namespace host
