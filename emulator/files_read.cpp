// files.get, with and without alt=media, files.export and files.generateIds
// https://developers.google.com/drive/api/guides/manage-downloads
#include <algorithm>
#include <charconv>
#include <optional>

#include "emulator/api_error.h"
#include "emulator/file_resource.h"
#include "emulator/handlers.h"
#include "emulator/ids.h"

namespace emulator {

namespace {

struct ByteRange {
  int64_t offset = 0, length = 0;
};

std::optional<int64_t> Digits(std::string_view text) {
  int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

ApiError Unsatisfiable() {
  return ApiError(416, "requestedRangeNotSatisfiable", "Request range not satisfiable")
      .At("header", "Range");
}

// The one range of a Range header; none when the header is absent, or is to be ignored because it
// does not parse or has several ranges.
std::optional<ByteRange> ParseRange(std::string_view header, int64_t size) {
  if (header.rfind("bytes=", 0) != 0) return std::nullopt;
  header.remove_prefix(6);
  const size_t dash = header.find('-');
  if (dash == std::string_view::npos || header.find(',') != std::string_view::npos) {
    return std::nullopt;
  }
  const auto first = Digits(header.substr(0, dash)), last = Digits(header.substr(dash + 1));
  if (dash == 0) {
    if (!last) return std::nullopt;
    if (*last == 0 || size == 0) throw Unsatisfiable();
    const int64_t length = std::min(*last, size);
    return ByteRange{size - length, length};
  }
  if (!first || (!last && dash + 1 != header.size()) || (last && *last < *first)) {
    return std::nullopt;
  }
  if (*first >= size) throw Unsatisfiable();
  return ByteRange{*first, std::min(last.value_or(size - 1), size - 1) - *first + 1};
}

Reply UnsatisfiableReply(const ApiError& error, int64_t size) {
  Reply reply = JsonReply(ErrorDocument(error), 416);
  reply.headers.emplace_back("Content-Range", "bytes */" + std::to_string(size));
  return reply;
}

}  // namespace

Reply GetFile(Service& service, Call& call) {
  const auto work = service.store.Begin();
  const Item item = VisibleItem(service, call, call.captures[0]);
  Reply reply = FileReply(service, call, item);
  reply.headers.emplace_back("ETag", EntityTag(item));
  return reply;
}

Reply GetMedia(Service& service, Call& call) {
  Reply reply;
  Item item;
  {
    const auto work = service.store.Begin();
    item = VisibleItem(service, call, call.captures[0]);
    if (!item.HasContent()) {
      throw Forbidden("fileNotDownloadable",
                      "Only files with binary content can be downloaded. Use Export with Docs "
                      "Editors files.")
          .At("parameter", "alt");
    }
    reply.source = service.store.Open(item);
  }
  if (!reply.source) throw ApiError(500, "backendError", "The content is missing.");
  reply.contentType = item.mimeType;
  reply.sourceLength = item.size;
  reply.headers.emplace_back("Accept-Ranges", "bytes");
  std::optional<ByteRange> range;
  try {
    range = ParseRange(call.Header("Range"), item.size);
  } catch (const ApiError& error) {
    return UnsatisfiableReply(error, item.size);
  }
  if (!range) return reply;
  reply.status = 206;
  reply.sourceOffset = range->offset;
  reply.sourceLength = range->length;
  reply.headers.emplace_back("Content-Range",
                             "bytes " + std::to_string(range->offset) + "-" +
                                 std::to_string(range->offset + range->length - 1) + "/" +
                                 std::to_string(item.size));
  return reply;
}

Reply ExportFile(Service& service, Call& call) {
  const std::string type = call.Param("mimeType");
  if (type.empty()) {
    throw ApiError(400, "required", "Required parameter: mimeType").At("parameter", "mimeType");
  }
  const auto work = service.store.Begin();
  const Item item = VisibleItem(service, call, call.captures[0]);
  const std::vector<std::string> types = ExportTypes(item.mimeType);
  if (types.empty()) {
    throw Forbidden("fileNotExportable", "Export only supports Docs Editors files.");
  }
  if (std::find(types.begin(), types.end(), type) == types.end()) {
    throw ApiError(400, "badRequest", "The requested conversion is not supported.")
        .At("parameter", "convertTo");
  }
  Reply reply;
  reply.contentType = type;
  reply.body = item.name + "\n";
  return reply;
}

Reply GenerateIds(Service&, Call& call) {
  const int64_t count = call.Number("count", 1, 1000, 10);
  Json::Value value;
  value["kind"] = "drive#generatedIds";
  value["space"] = "drive";
  for (int64_t i = 0; i < count; ++i) value["ids"].append(FileId(RandomKey()));
  return JsonReply(value);
}

}  // namespace emulator
