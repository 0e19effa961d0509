// The upload routes: simple, multipart and resumable.
// https://developers.google.com/drive/api/guides/manage-uploads
#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>

#include "emulator/api_error.h"
#include "emulator/file_resource.h"
#include "emulator/handlers.h"
#include "emulator/metadata.h"
#include "emulator/uploads.h"

namespace emulator {

namespace {

std::optional<int64_t> WholeNumber(std::string_view text) {
  int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() || number < 0) {
    return std::nullopt;
  }
  return number;
}

/// Content-Range: "bytes FIRST-LAST/TOTAL", "bytes */TOTAL"; TOTAL may be "*".
struct UploadRange {
  bool query = false;  ///< asks for the state, carries nothing
  int64_t first = 0, last = -1;
  int64_t total = -1;
};

ApiError BadRange() { return ApiError(400, "badRequest", "Failed to parse Content-Range header."); }

UploadRange ParseContentRange(std::string_view text) {
  const size_t slash = text.find('/');
  if (text.rfind("bytes ", 0) != 0 || slash == std::string_view::npos) throw BadRange();
  UploadRange range;
  const std::string_view part = text.substr(6, slash - 6), total = text.substr(slash + 1);
  if (total != "*") range.total = WholeNumber(total).value_or(-2);
  if (range.total == -2) throw BadRange();
  range.query = part == "*";
  if (range.query) return range;
  const size_t dash = std::min(part.find('-'), part.size());
  const auto first = WholeNumber(part.substr(0, dash));
  const auto last = WholeNumber(part.substr(std::min(dash + 1, part.size())));
  if (!first || !last || *last < *first || (range.total >= 0 && *last >= range.total)) {
    throw BadRange();
  }
  range.first = *first;
  range.last = *last;
  return range;
}

Reply Incomplete(const UploadSession& session) {
  Reply reply;
  reply.status = 308;
  reply.contentType.clear();
  if (session.Committed() > 0) {
    reply.headers.emplace_back("Range", "bytes=0-" + std::to_string(session.Committed() - 1));
  }
  return reply;
}

void RequireUploadType(const Call& call, const char* type) {
  if (call.Param("uploadType") != type) {
    throw InvalidParameter("uploadType", "Invalid upload type '" + call.Param("uploadType") + "'");
  }
}

Reply Start(Service& service, Call& call, const std::string& fileId) {
  RequireUploadType(call, "resumable");
  auto session = std::make_shared<UploadSession>(service.store, call.user.n);
  session->metadata = call.Json();
  session->fileId = fileId;
  session->mimeType = call.Header("X-Upload-Content-Type");
  const std::string length = call.Header("X-Upload-Content-Length");
  if (!length.empty()) {
    const auto total = WholeNumber(length);
    if (!total) throw InvalidValue("X-Upload-Content-Length");
    session->total = *total;
  }
  if (fileId.empty()) {
    CheckCreate(service, call, session->metadata, session->total);
  } else {
    CheckUpdate(service, call, fileId, session->total);
  }
  const std::string id = service.uploads.Add(session);
  Reply reply;
  reply.contentType = "text/plain; charset=utf-8";
  reply.headers.emplace_back("X-GUploader-UploadID", id);
  reply.headers.emplace_back("Location", call.baseUrl + call.request.target + "&upload_id=" + id);
  return reply;
}

Reply Finish(Service& service, Call& call, UploadSession& session) {
  session.CommitAll();
  const auto work = service.store.Begin();
  call.user = service.store.UserNumbered(session.owner);
  const NewContent content = session.Content();
  const Item item = session.fileId.empty()
                        ? CreateFromMetadata(service, call, session.metadata, &content)
                        : UpdateFromMetadata(service, call, session.metadata, &content);
  session.Finish(item.id);
  return FileReply(service, call, item);
}

Reply TooLong(UploadSession& session) {
  session.DropRest();
  throw BadRequest("More bytes than the upload was announced with.");
}

// The whole content in one request. Whatever an earlier request left is written over.
Reply ReceiveWhole(Service& service, Call& call, UploadSession& session) {
  session.StartOver();
  const int64_t limit = session.total;
  const bool arrived = call.readBody([&session](const char* data, size_t size) {
    session.Append(data, size);
    return true;
  });
  if (!arrived) {
    session.DropRest();
    return Incomplete(session);
  }
  if (limit >= 0 && session.Arrived() > limit) {
    session.StartOver();
    return TooLong(session);
  }
  if (limit >= 0 && session.Arrived() < limit) {
    session.DropRest();
    return Incomplete(session);
  }
  return Finish(service, call, session);
}

Reply ReceivePart(Service& service, Call& call, UploadSession& session, const UploadRange& range) {
  if (range.first > session.Committed()) throw BadRange();
  // Bytes that are here already are skipped, so that a piece may be sent twice.
  int64_t skip = session.Committed() - range.first;
  int64_t left = range.last - range.first + 1;
  const bool arrived = call.readBody([&](const char* data, size_t size) {
    const auto old = static_cast<size_t>(std::min<int64_t>(skip, static_cast<int64_t>(size)));
    skip -= static_cast<int64_t>(old);
    left -= static_cast<int64_t>(size);
    if (left >= 0) session.Append(data + old, size - old);
    return true;
  });
  if (arrived && left == 0 && session.total >= 0 && session.Arrived() == session.total) {
    return Finish(service, call, session);
  }
  session.DropRest();
  if (arrived && left != 0) throw BadRequest("The body does not have the length of its range.");
  return Incomplete(session);
}

std::shared_ptr<UploadSession> SessionOf(Service& service, const Call& call) {
  auto session = service.uploads.Find(call.Param("upload_id"));
  if (!session) throw ApiError(404, "notFound", "Upload session not found; start a new one.");
  return session;
}

Reply Advance(Service& service, Call& call, UploadSession& session) {
  const std::string header = call.Header("Content-Range");
  const UploadRange range = header.empty() ? UploadRange{} : ParseContentRange(header);
  if (range.total >= 0) {
    if (session.total >= 0 && session.total != range.total) throw BadRange();
    session.total = range.total;
  }
  if (!session.resultId.empty()) {
    const auto work = service.store.Begin();
    call.user = service.store.UserNumbered(session.owner);
    return FileReply(service, call, VisibleItem(service, call, session.resultId));
  }
  if (header.empty()) return ReceiveWhole(service, call, session);
  if (!range.query) return ReceivePart(service, call, session, range);
  if (session.total == session.Committed()) return Finish(service, call, session);
  return Incomplete(session);
}

// ---- simple and multipart --------------------------------------------------------------------

struct Part {
  std::string headers;
  std::string body;
};

std::string Boundary(const std::string& contentType) {
  const size_t at = contentType.find("boundary=");
  if (at == std::string::npos) throw BadRequest("Missing boundary in Content-Type.");
  std::string boundary = contentType.substr(at + 9);
  boundary = boundary.substr(0, boundary.find(';'));
  std::erase(boundary, '"');
  return "--" + boundary;
}

std::vector<Part> SplitParts(const std::string& body, const std::string& boundary) {
  std::vector<Part> parts;
  size_t at = body.find(boundary);
  while (at != std::string::npos) {
    const size_t begin = body.find("\r\n", at);
    const size_t end = body.find("\r\n" + boundary, begin);
    if (begin == std::string::npos || end == std::string::npos) break;
    const size_t blank = body.find("\r\n\r\n", begin);
    if (blank == std::string::npos || blank > end) throw BadRequest("Malformed multipart body.");
    parts.push_back(
        {body.substr(begin + 2, blank - begin), body.substr(blank + 4, end - blank - 4)});
    at = end + 2;
  }
  return parts;
}

std::string PartType(const std::string& headers) {
  std::string lower = headers;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const size_t at = lower.find("content-type:");
  if (at == std::string::npos) return "";
  const size_t begin = headers.find_first_not_of(' ', at + 13);
  return headers.substr(begin, headers.find('\r', begin) - begin);
}

NewContent StoreContent(Service& service, const std::string& bytes, const std::string& type) {
  NewContent content;
  content.size = static_cast<int64_t>(bytes.size());
  content.mimeType = type;
  if (bytes.empty()) return content;
  const auto writer = service.store.Contents().Create(service.store.NewBlob());
  writer->Write(bytes.data(), bytes.size());
  content.md5 = writer->Md5();
  content.blob = writer->Number();
  writer->Keep();
  return content;
}

NewContent SimpleContent(Service& service, const Call& call, Json::Value& metadata) {
  metadata = Json::Value(Json::objectValue);
  if (call.Param("uploadType") == "media") {
    return StoreContent(service, call.body, call.Header("Content-Type"));
  }
  RequireUploadType(call, "multipart");
  const std::vector<Part> parts = SplitParts(call.body, Boundary(call.Header("Content-Type")));
  if (parts.size() != 2) throw BadRequest("A multipart upload has two parts.");
  metadata = ParseObject(parts[0].body);
  return StoreContent(service, parts[1].body, PartType(parts[1].headers));
}

}  // namespace

Reply StartUpload(Service& service, Call& call) { return Start(service, call, ""); }

Reply StartUpdate(Service& service, Call& call) { return Start(service, call, call.captures[0]); }

Reply UploadContent(Service& service, Call& call) {
  const auto session = SessionOf(service, call);
  // The address of the session is a secret of its own; a token that is sent must be valid though.
  if (!call.Header("Authorization").empty()) call.authorise();
  const std::lock_guard lock(session->mutex);
  if (session->cancelled) throw ApiError(410, "deleted", "The upload was cancelled.");
  return Advance(service, call, *session);
}

Reply CancelUpload(Service& service, Call& call) {
  const auto session = SessionOf(service, call);
  const std::lock_guard lock(session->mutex);
  session->Cancel();
  Reply reply = NoContent();
  reply.status = 499;
  return reply;
}

Reply CreateWithContent(Service& service, Call& call) {
  Json::Value metadata;
  const NewContent content = SimpleContent(service, call, metadata);
  const auto work = service.store.Begin();
  return FileReply(service, call, CreateFromMetadata(service, call, metadata, &content));
}

Reply UpdateWithContent(Service& service, Call& call) {
  Json::Value metadata;
  const NewContent content = SimpleContent(service, call, metadata);
  const auto work = service.store.Begin();
  return FileReply(service, call, UpdateFromMetadata(service, call, metadata, &content));
}

}  // namespace emulator
