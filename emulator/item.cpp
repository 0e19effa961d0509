#include "emulator/item.h"

#include <algorithm>
#include <array>
#include <utility>

namespace emulator {

namespace {

constexpr std::array kRoles{
    std::pair{std::string_view("none"), Role::kNone},
    std::pair{std::string_view("reader"), Role::kReader},
    std::pair{std::string_view("commenter"), Role::kCommenter},
    std::pair{std::string_view("writer"), Role::kWriter},
    std::pair{std::string_view("fileOrganizer"), Role::kFileOrganizer},
    std::pair{std::string_view("organizer"), Role::kOrganizer},
    std::pair{std::string_view("owner"), Role::kOwner},
};

constexpr std::array kTypes{
    std::pair{std::string_view("txt"), "text/plain"},
    std::pair{std::string_view("md"), "text/markdown"},
    std::pair{std::string_view("html"), "text/html"},
    std::pair{std::string_view("csv"), "text/csv"},
    std::pair{std::string_view("json"), "application/json"},
    std::pair{std::string_view("pdf"), "application/pdf"},
    std::pair{std::string_view("zip"), "application/zip"},
    std::pair{std::string_view("png"), "image/png"},
    std::pair{std::string_view("jpg"), "image/jpeg"},
    std::pair{std::string_view("jpeg"), "image/jpeg"},
    std::pair{std::string_view("gif"), "image/gif"},
    std::pair{std::string_view("svg"), "image/svg+xml"},
    std::pair{std::string_view("mp3"), "audio/mpeg"},
    std::pair{std::string_view("mp4"), "video/mp4"},
    std::pair{std::string_view("c"), "text/x-csrc"},
    std::pair{std::string_view("js"), "text/javascript"},
    std::pair{std::string_view("xml"), "text/xml"},
};

}  // namespace

Role RoleNamed(std::string_view name) {
  for (const auto& [known, role] : kRoles) {
    if (known == name) return role;
  }
  return Role::kNone;
}

const char* RoleName(Role role) { return kRoles[static_cast<size_t>(role)].first.data(); }

std::vector<std::string> Item::ParentIds() const {
  std::vector<std::string> ids;
  size_t begin = 0;
  while (begin < parents.size()) {
    const size_t end = std::min(parents.find(' ', begin), parents.size());
    ids.push_back(parents.substr(begin, end - begin));
    begin = end + 1;
  }
  return ids;
}

bool GoogleType(std::string_view mimeType) {
  return mimeType.rfind("application/vnd.google-apps.", 0) == 0;
}

std::string TypeOfName(std::string_view name) {
  const size_t dot = name.rfind('.');
  if (dot != std::string_view::npos) {
    for (const auto& [ending, type] : kTypes) {
      if (name.substr(dot + 1) == ending) return type;
    }
  }
  return "application/octet-stream";
}

}  // namespace emulator
