// The host's dialogs and the settings that come back from them.
#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "gdrive/google_drive.h"
#include "gdrive/guarded.h"

namespace {

constexpr char kAuthFields[] = R"json({
  "protocol": "gdrive",
  "params": {"width": 500, "height": 700, "title": "GoogleDrive Login"}
})json";

constexpr char kOptFields[] = R"json({
  "options": {
    "type": "group",
    "text": "Options",
    "order": ["use_team_drive", "show_shared"],
    "controls": {
      "use_team_drive": {"type": "checkbox", "text": "Use team drive", "default": true},
      "show_shared": {"type": "checkbox", "text": "Show shared file/folders", "default": true}
    }
  },
  "bandwidth_options": {
    "type": "group",
    "text": "Bandwidth",
    "order": ["speedlimit"],
    "controls": {
      "speedlimit": {
        "type": "edit",
        "label": "limit ( KB/s : 0 means unlimited )",
        "default": "0",
        "validator": {"type": "integer", "min_value": 0}
      }
    }
  },
  "order": ["options", "bandwidth_options"]
})json";

AERROR WriteDocument(const char* document, char* buffer, int* length) {
  if (buffer == nullptr || length == nullptr) return AERROR::INVALID_PARAMETER;
  return Guarded([&] {
    const std::string text = JsonObject(document).ToText();
    if (*length >= 0 && static_cast<size_t>(*length) >= text.size()) {
      memset(buffer, 0, static_cast<size_t>(*length));
    }
    return CopyText(text, buffer, length);
  });
}

void ApplyProxy(const JsonObject& value) {
  ProxySettings settings;
  settings.type = std::string(value.GetObject("type"));
  settings.host = std::string(value.GetObject("host"));
  settings.port = std::to_string(static_cast<int>(value.GetObject("port")));
  settings.user = std::string(value.GetObject("user"));
  settings.password = std::string(value.GetObject("password"));
  cq.SetProxySettings(std::move(settings));
}

/// Kibibytes to bytes, in the width that the settings page has always used.
long long BytesPerSecond(const std::string& kibibytes) {
  const auto number = static_cast<uint32_t>(std::stoi(kibibytes));
  return static_cast<int32_t>(number << 10);
}

}  // namespace

int GoogleDrive::GetAuthType() { return 2; }

AERROR GoogleDrive::GetAuthFields(char* buffer, int* length) {
  return WriteDocument(kAuthFields, buffer, length);
}

AERROR GoogleDrive::GetOptFields(char* buffer, int* length) {
  return WriteDocument(kOptFields, buffer, length);
}

AERROR GoogleDrive::SetOpt(const char* key, const char* value) {
  if (key == nullptr || value == nullptr) return AERROR::SUCCESS;
  (void)Guarded([&] {
    const auto is = [key](const char* name) { return strcasecmp(key, name) == 0; };
    if (is("option_fields")) {
      ApplyOptionFields(value);
    } else if (is("speedlimit")) {
      speedLimit = atoll(value);
    } else if (is("pid")) {
      const std::lock_guard guard(lock);
      profileId = value;
    } else if (is("verbose")) {
      std::shared_ptr<IQueryLogger> replaced;
      if (strcasecmp(value, "on") == 0) replaced = std::make_shared<BodyLog>();
      const std::lock_guard guard(lock);
      queryLogger.swap(replaced);
    } else if (is("list_page_size")) {
      const int size = atoi(value);
      if (size >= 100 && size <= 1000) listPageSize = size;
    } else if (is("ex_info")) {
      const JsonObject parsed(value);
    }
    return AERROR::SUCCESS;
  });
  return AERROR::SUCCESS;
}

/// What stands before a member that cannot be applied stays in force.
void GoogleDrive::ApplyOptionFields(const char* text) {
  const JsonObject document(text);
  const JsonObject values = document.GetObject("/values");
  for (const std::string& name : values.GetKeys()) {
    const JsonObject member = values[name.c_str()];
    if (name == "proxy") {
      ApplyProxy(member.GetObject("value"));
    } else if (name == "show_shared") {
      showShared = static_cast<bool>(member.GetObject("value"));
    } else if (name == "use_team_drive") {
      useTeamDrive = static_cast<bool>(member.GetObject("value"));
    } else if (name == "speedlimit") {
      speedLimit = BytesPerSecond(member.GetObject("value"));
    }
  }
}
