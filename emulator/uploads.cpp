#include "emulator/uploads.h"

#include <algorithm>

#include "emulator/ids.h"
#include "emulator/times.h"

namespace emulator {

namespace {

constexpr int64_t kLifetimeMilliseconds = 7LL * 24 * 3600 * 1000;

}  // namespace

void UploadSession::Append(const char* data, size_t size) {
  while (size > 0) {
    const size_t room = static_cast<size_t>(kUploadGranule) - pending.size();
    const size_t count = std::min(room, size);
    pending.append(data, count);
    data += count;
    size -= count;
    if (static_cast<int64_t>(pending.size()) == kUploadGranule) CommitAll();
  }
}

void UploadSession::CommitAll() {
  writer->Write(pending.data(), pending.size());
  pending.clear();
}

void UploadSession::StartOver() {
  pending.clear();
  if (writer->Size() > 0) writer->StartOver();
}

NewContent UploadSession::Content() const {
  NewContent content;
  content.size = writer->Size();
  content.md5 = writer->Md5();
  content.mimeType = mimeType;
  content.blob = content.size > 0 ? writer->Number() : 0;
  return content;
}

void UploadSession::Finish(const std::string& id) {
  resultId = id;
  if (writer->Size() > 0) writer->Keep();
  writer.reset();
}

void UploadSession::Cancel() {
  cancelled = true;
  pending.clear();
  writer.reset();
}

std::string Uploads::Add(std::shared_ptr<UploadSession> session) {
  std::string id = RandomText(44);
  session->expires = NowMilliseconds() + kLifetimeMilliseconds;
  const std::lock_guard lock(mutex);
  sessions[id] = std::move(session);
  return id;
}

std::shared_ptr<UploadSession> Uploads::Find(const std::string& id) {
  const std::lock_guard lock(mutex);
  const auto found = sessions.find(id);
  if (found == sessions.end() || found->second->expires < NowMilliseconds()) return nullptr;
  return found->second;
}

void Uploads::ExpireAll() {
  std::map<std::string, std::shared_ptr<UploadSession>> expired;
  const std::lock_guard lock(mutex);
  expired.swap(sessions);
}

}  // namespace emulator
