#include "tests/plugin/drive/drive_fixture.h"

#include <thread>

FakeClock::FakeClock()
    : now(std::chrono::steady_clock::now()),
      override(
          [this] {
            const std::lock_guard guard(mutex);
            return now;
          },
          [this](std::chrono::milliseconds duration) {
            const std::lock_guard guard(mutex);
            now += duration;
            slept.push_back(std::chrono::duration_cast<std::chrono::seconds>(duration).count());
          }) {}

void FakeClock::Advance(std::chrono::seconds duration) {
  const std::lock_guard guard(mutex);
  now += duration;
}

std::vector<long long> FakeClock::SleptSeconds() const {
  const std::lock_guard guard(mutex);
  return slept;
}

std::string Credential(const std::string& token) {
  return R"({"results": {"access_token": ")" + token + R"("}})";
}

std::string Bytes(size_t size) {
  std::string bytes(size, '\0');
  uint32_t state = 2463534242;
  for (char& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    byte = static_cast<char>(state);
  }
  return bytes;
}

_FS_FILE_V2 Record(const std::string& name, const std::string& id) {
  _FS_FILE_V2 record;
  record.name = name;
  record.id = id;
  return record;
}

DriveTest::DriveTest(emulator::Options options)
    : service(std::move(options)), root(service.RootId()), drive(NewDrive()) {
  profile.Set("drive_api_url", service.ApiUrl());
  authoriser.onRenew = [this](auto&&...) { return Credential(service.AccessToken()); };
  Connect(*drive);
  service.ClearJournal();
}

DriveTest::Drive DriveTest::NewDrive() { return Drive(new GoogleDrive("gdrive", &profile)); }

void DriveTest::Connect(GoogleDrive& target) {
  ASSERT_EQ(target.Connect(&authoriser, Credential(service.AccessToken()).c_str()),
            AERROR::SUCCESS);
}

AERROR DriveTest::List(const std::string& id, ItemList* list) {
  return drive->GetFileList(id.c_str(), list, nullptr);
}

std::vector<std::string> DriveTest::Names(const std::string& folder) {
  ItemList list;
  EXPECT_EQ(List(folder, &list), AERROR::SUCCESS);
  return list.Names();
}

AERROR DriveTest::Info(const std::string& id, _FS_FILE_V2* record) {
  return drive->GetFileInfo(id.c_str(), record, nullptr);
}

AERROR DriveTest::Read(const std::string& id, long long offset, long long length, Fetched* into,
                       std::shared_ptr<_FS_HANDLE> handle) {
  if (!handle) handle = std::make_shared<_FS_HANDLE>();
  const AERROR code = drive->Read(id.c_str(), offset, length, handle, into, nullptr);
  EXPECT_FALSE(into->gap) << "blocks must be in order and without a gap";
  return code;
}

AERROR DriveTest::Upload(const std::string& parent, _FS_FILE_V2* record,
                         const std::string& content) {
  CachedFile cache(content);
  return Upload(parent, record, &cache);
}

AERROR DriveTest::Upload(const std::string& parent, _FS_FILE_V2* record, CachedFile* cache,
                         std::shared_ptr<_FS_HANDLE> handle) {
  if (!handle) handle = std::make_shared<_FS_HANDLE>();
  record->size = static_cast<int64_t>(cache->content.size());
  return drive->Upload(parent.c_str(), handle, cache, record, kUploadDefault, nullptr);
}

std::vector<std::string> DriveTest::Changes() {
  ChangeSink sink;
  EXPECT_EQ(drive->GetChanges(&sink, nullptr), AERROR::SUCCESS);
  return sink.Ids();
}

void DriveTest::CatchUp() {
  (void)Changes();
  service.ClearJournal();
}

void DriveTest::Fault(const std::string& method, const std::string& kind, int64_t at, int times) {
  emulator::Fault fault;
  fault.method = method;
  fault.kind = kind;
  fault.at = at;
  fault.times = times;
  service.Inject(fault);
}

void DriveTest::AnswerNext(const std::string& method, const std::string& body) {
  emulator::Fault fault;
  fault.method = method;
  fault.kind = "garbage";
  fault.body = body;
  service.Inject(fault);
}

void DriveTest::FailAlways(const std::string& method, int status) {
  service.FailNext(method, status, 6);
}

std::vector<emulator::JournalEntry> DriveTest::Log(const std::string& method) const {
  // A request enters the journal once its connection has sent the answer's last byte, which may be
  // after the answer was read here.
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (true) {
    auto entries = service.Journal();
    std::erase_if(entries, [&](const auto& entry) { return entry.method != method; });
    const bool complete = static_cast<int>(entries.size()) >= Requests(method);
    if (complete || std::chrono::steady_clock::now() > end) return entries;
    std::this_thread::yield();
  }
}

emulator::JournalEntry DriveTest::LastRequest(const std::string& method) const {
  const auto entries = Log(method);
  EXPECT_FALSE(entries.empty()) << "no request " << method;
  return entries.empty() ? emulator::JournalEntry() : entries.back();
}

std::string DriveTest::Query(const std::string& method) const { return LastRequest(method).query; }

Json::Value DriveTest::Body(const std::string& method) const {
  const std::string text = LastRequest(method).requestBody;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value body;
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &body, nullptr)) << text;
  return body;
}

WireTest::WireTest() {
  service.Play({Http(200, std::string(R"({"rootFolderId": ")") + kRoot +
                              R"(", "user": {"displayName": "N", "emailAddress": "E"},
                              "quotaBytesTotal": "1", "quotaBytesUsedAggregate": "1"})"),
                Http(200, std::string(R"({"id": ")") + kRoot +
                              R"(", "name": "Root", "mimeType": ")" + kFolderMimeType + R"("})")});
  profile.Set("drive_api_url", service.Origin());
  drive.reset(new GoogleDrive("gdrive", &profile));
  EXPECT_EQ(drive->Connect(&authoriser, Credential("token").c_str()), AERROR::SUCCESS);
}
