#include "host/mount/name_map.h"

#include <algorithm>
#include <array>
#include <span>

namespace host::mount {
namespace {

/// Length of "(25)*CODE" at the start of `text` for one of the given codes; 0 when there is none.
size_t EscapeTail(std::string_view text, std::span<const std::string_view> codes, bool whole) {
  size_t at = 0;
  for (;;) {
    for (const std::string_view code : codes)
      if (whole ? text.substr(at) == code : text.substr(at, code.size()) == code)
        return at + code.size();
    if (text.substr(at, 2) != "25") return 0;
    at += 2;
  }
}

constexpr std::array<std::string_view, 1> kSlash = {"2F"};
constexpr std::array<std::string_view, 3> kWhole = {"2E", "2E%2E", "00"};

/// True when the whole name is one of the escapes of ".", ".." and "", however often quoted.
bool IsWholeEscape(std::string_view name) {
  return !name.empty() && name[0] == '%' && EscapeTail(name.substr(1), kWhole, true) > 0;
}

bool IsContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

/// Bytes of the UTF-8 sequence that starts the text; 0 when it is not valid.
size_t SequenceLength(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return 1;
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i)
    if (!IsContinuation(static_cast<unsigned char>(text[i]))) return 0;
  const auto second = static_cast<unsigned char>(text[1]);
  if (lead == 0xE0 && second < 0xA0) return 0;
  if (lead == 0xED && second > 0x9F) return 0;
  if (lead == 0xF0 && second < 0x90) return 0;
  if (lead == 0xF4 && second > 0x8F) return 0;
  return length;
}

std::string WithoutInvalidBytes(std::string_view name) {
  std::string clean;
  while (!name.empty()) {
    const size_t length = name[0] == '\0' ? 0 : SequenceLength(name);
    if (length == 0) clean += "\xEF\xBF\xBD";
    clean += name.substr(0, length);
    name.remove_prefix(std::max<size_t>(length, 1));
  }
  return clean;
}

/// At most `bytes` bytes, never cutting a character.
std::string_view CutAt(std::string_view text, size_t bytes) {
  if (text.size() <= bytes) return text;
  while (bytes > 0 && IsContinuation(static_cast<unsigned char>(text[bytes]))) --bytes;
  return text.substr(0, bytes);
}

/// Where the extension starts; a leading dot does not start one, nor does one that is long.
size_t ExtensionStart(std::string_view name) {
  constexpr size_t kLongestExtension = 16;
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return name.size();
  return name.size() - dot > kLongestExtension ? name.size() : dot;
}

}  // namespace

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const size_t length = SequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

std::string LocalName(std::string_view driveName) {
  if (driveName.empty()) return "%00";
  if (driveName == ".") return "%2E";
  if (driveName == "..") return "%2E%2E";
  if (IsWholeEscape(driveName)) return "%25" + std::string(driveName.substr(1));
  std::string name;
  for (size_t i = 0; i < driveName.size(); ++i) {
    const char c = driveName[i];
    if (c == '/')
      name += "%2F";
    else if (c == '%' && EscapeTail(driveName.substr(i + 1), kSlash, false) > 0)
      name += "%25";
    else
      name += c;
  }
  return name;
}

std::string DriveName(std::string_view localName) {
  if (localName == "%00") return "";
  if (localName == "%2E") return ".";
  if (localName == "%2E%2E") return "..";
  if (IsWholeEscape(localName)) return "%" + std::string(localName.substr(3));
  std::string name;
  for (size_t i = 0; i < localName.size(); ++i) {
    const std::string_view rest = localName.substr(i + 1);
    if (localName[i] != '%' || EscapeTail(rest, kSlash, false) == 0) {
      name += localName[i];
    } else if (rest.substr(0, 2) == "2F") {
      name += '/';
      i += 2;
    } else {
      name += '%';
      i += 2;
    }
  }
  return name;
}

std::string WithMark(const std::string& name, const std::string& mark) {
  const size_t dot = ExtensionStart(name);
  const std::string extension = name.substr(dot);
  const size_t room = kMaxNameBytes - mark.size() - extension.size();
  return std::string(CutAt(name.substr(0, dot), room)) + mark + extension;
}

std::string ShownName(std::string_view driveName, std::string_view id,
                      const std::function<bool(const std::string&)>& taken) {
  const bool sound = IsUtf8(driveName) && driveName.find('\0') == std::string_view::npos;
  const std::string name =
      LocalName(sound ? std::string(driveName) : WithoutInvalidBytes(driveName));
  if (sound && name.size() <= kMaxNameBytes && !taken(name)) return name;
  for (size_t tail = std::min<size_t>(6, id.size()); tail < id.size(); ++tail) {
    std::string marked = WithMark(name, "~" + LocalName(id.substr(id.size() - tail)));
    if (!taken(marked)) return marked;
  }
  // Two items can share id and name only where one item is listed twice; number them then.
  for (int number = 0;; ++number) {
    const std::string mark = "~" + LocalName(id.substr(0, 100));
    std::string marked = WithMark(name, number == 0 ? mark : mark + "-" + std::to_string(number));
    if (!taken(marked)) return marked;
  }
}

std::string Trimmed(std::string_view name) {
  constexpr std::string_view kBlank = " \t\n\v\f\r";
  const size_t first = name.find_first_not_of(kBlank);
  if (first == std::string_view::npos) return "";
  return std::string(name.substr(first, name.find_last_not_of(kBlank) - first + 1));
}

std::string DocumentName(std::string_view shownByPlugin) {
  const size_t link = shownByPlugin.rfind('.');
  if (link == std::string_view::npos || link == 0) return std::string(shownByPlugin);
  const size_t kind = shownByPlugin.rfind('.', link - 1);
  return std::string(shownByPlugin.substr(0, kind == std::string_view::npos ? link : kind));
}

}  // namespace host::mount
