// From a file resource to the host's record.
#include <algorithm>
#include <cstdlib>

#include "gdrive/google_drive.h"
#include "gdrive/json_array.h"
#include "util/strings.h"
#include "util/time_convert.h"

namespace {

/// A member's text; empty when it is absent.
std::string OptionalText(const JsonObject& file, const char* key) {
  if (!file.HasObject(key)) return {};
  return file.GetObject(key);
}

/// The property list that opens a web page on the host's platform.
std::string WebLocation(const std::string& url) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
         "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
         "<plist version=\"1.0\">\n"
         "<dict>\n"
         "<key>URL</key>\n"
         "<string>" +
         url +
         "</string>\n"
         "</dict>\n"
         "</plist>\n";
}

}  // namespace

void GoogleDrive::FillData(JsonObject file, _FS_FILE_V2* out) const {
  out->id = std::string(file.GetObject("/id"));
  const std::string mimeType = file.GetObject("/mimeType");
  out->name = Trim(std::string(file.GetObject("/name")));
  out->time1 = out->time2 = out->time3 =
      NoAdjustServerTimeOffset(OptionalText(file, "modifiedTime"));
  if (mimeType == kFolderMimeType) {
    out->attributes = kFsFolder;
  } else {
    out->attributes = kFsFile;
    const auto type = appTypeNames.find(mimeType);
    if (type != appTypeNames.end()) {
      FillWebLocation(file, type->second, out);
      return;
    }
    // No answer may make a host compute with less than nothing.
    out->size = std::max(0LL, strtoll(OptionalText(file, "/size").c_str(), nullptr, 10));
  }
  if (!file.HasObject("/parents")) return;
  const JsonObject parents = GetArray(file, "/parents");
  out->parents.clear();
  for (int i = static_cast<int>(parents.GetArraySize()) - 1; i >= 0; --i) {
    out->parents.push_back(parents[i]);
  }
}

/// A Google document has no bytes of its own; it is shown as a small file that opens it.
void GoogleDrive::FillWebLocation(const JsonObject& file, const std::string& typeName,
                                  _FS_FILE_V2* out) const {
  out->content = WebLocation(OptionalText(file, "webViewLink"));
  out->name += "." + typeName + ".webloc";
  out->size = static_cast<int64_t>(out->content.size());
  out->attributes |= kFsInlineContent | kFsSynthesised;
}
