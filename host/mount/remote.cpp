#include "host/mount/remote.h"

#include "host/core/failure.h"
#include "host/core/host_log.h"
#include "host/core/sinks.h"

namespace host::mount {
namespace {

/// Supplies an upload; a negative answer of the function stops it.
class Source final : public ICacheIO {
 public:
  using Function = std::function<int64_t(int64_t, std::span<char>)>;
  Source(const Function& function, std::atomic<int64_t>& counter) : read(function), sent(counter) {}

  int32_t Read(CacheReadRequest* request) override {
    char* buffer = static_cast<char*>(request->buffer);
    const int64_t count = read(request->offset, {buffer, request->wanted});
    if (count < 0) return 1;
    request->read = static_cast<uint64_t>(count);
    sent += count;
    return 0;
  }

 private:
  const Function& read;
  std::atomic<int64_t>& sent;
};

}  // namespace

template <typename Operation>
AERROR Remote::Call(Operation&& operation) {
  ++traffic.requests;
  HostLog::TakeLastError();
  char* message = nullptr;
  const AERROR code = operation(&message);
  successes += code == AERROR::SUCCESS;
  drive.FreeMsg(message);
  return code;
}

AERROR Remote::List(const std::string& folder, std::vector<RemoteItem>& items) {
  ListSink sink([&](const RemoteItem& item) { items.push_back(item); });
  return Call([&](char** m) { return drive.GetFileList(folder.c_str(), &sink, m); });
}

AERROR Remote::Info(const std::string& id, RemoteItem& item) {
  return Call([&](char** m) { return drive.GetFileInfo(id.c_str(), &item, m); });
}

AERROR Remote::Fetch(const std::string& id, int64_t offset, int64_t length,
                     const Transfer& transfer,
                     const std::function<void(int64_t, std::span<const char>)>& receive) {
  FetchSink sink(transfer, [&](int64_t at, std::span<const char> bytes) {
    traffic.down += static_cast<int64_t>(bytes.size());
    receive(at, bytes);
  });
  return Call([&](char** m) { return drive.Read(id.c_str(), offset, length, transfer, &sink, m); });
}

AERROR Remote::Upload(const std::string& parent, const Transfer& transfer,
                      const std::function<int64_t(int64_t, std::span<char>)>& read,
                      RemoteItem& item) {
  Source source(read, traffic.up);
  Expect(item);
  return Call([&](char** m) {
    return drive.Upload(parent.c_str(), transfer, &source, &item, kUploadDefault, m);
  });
}

AERROR Remote::MakeFolder(const std::string& parent, RemoteItem& item) {
  Expect(item);
  return Call([&](char** m) { return drive.CreateDirectory(parent.c_str(), &item, m); });
}

AERROR Remote::Rename(const std::string& id, const std::string& name, RemoteItem& item) {
  Expect(item);
  return Call([&](char** m) { return drive.Rename(id.c_str(), name.c_str(), &item, m); });
}

AERROR Remote::Move(const std::string& from, const std::string& to, RemoteItem item) {
  item.parent_id = from;
  return Call([&](char** m) {
    return item.attributes & kFsFolder ? drive.MoveDir(item.id.c_str(), to.c_str(), &item, m)
                                       : drive.Move(item.id.c_str(), to.c_str(), &item, m);
  });
}

AERROR Remote::Delete(RemoteItem item) {
  return Call([&](char** m) {
    return item.attributes & kFsFolder ? drive.DeleteDirectory(&item, m) : drive.Delete(&item, m);
  });
}

AERROR Remote::SetModified(const std::string& id, const std::string& time, RemoteItem& item) {
  Expect(item);
  return Call([&](char** m) { return drive.SetFileTime(id.c_str(), "", "", time, &item, m); });
}

std::string Remote::Why(AERROR code) {
  const std::string said = HostLog::TakeLastError();
  return said.empty() ? Meaning(code) : Failure(said, Advice(said, code)).what();
}

std::string Remote::Account() {
  char text[1024];
  int length = sizeof text - 1;
  if (drive.GetUserInfo(text, &length) != AERROR::SUCCESS) return "";
  const std::string user(text, static_cast<size_t>(length));  // "Name(address)"
  const size_t begin = user.rfind('(');
  const size_t end = user.rfind(')');
  return begin < end && end != std::string::npos ? user.substr(begin + 1, end - begin - 1) : "";
}

AERROR Remote::Quota(uint64_t& total, uint64_t& used) {
  unsigned long long totalBytes = 0;
  unsigned long long usedBytes = 0;
  ++traffic.requests;
  const AERROR code = drive.GetQuota(&totalBytes, &usedBytes);
  total = totalBytes;
  used = usedBytes;
  return code;
}

void Remote::Changes(IFileChanges& sink) {
  ++traffic.requests;
  char* message = nullptr;
  drive.GetChanges(&sink, &message);  // answers SUCCESS whatever happens
  drive.FreeMsg(message);
}

}  // namespace host::mount
