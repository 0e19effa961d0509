// The module as a separately built host meets it: names by dlsym, objects by slots.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/plugin/unit/module_mirror.h"
#include "tests/plugin/unit/wire_server.h"

namespace {

using mirror::Code;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

struct HostLog final : ILog {
  bool IsVerbose() override { return false; }
  void Write(int32_t level, const char* format, va_list arguments) override {
    char text[1000];
    vsnprintf(text, sizeof(text), format, arguments);
    lines.push_back(std::to_string(level) + " " + text);
  }
  std::vector<std::string> lines;
};

struct HostManager final : IProtocolManager {
  int GetProfileID(const char* module, char* buffer, int* length) override {
    EXPECT_STREQ(module, "Vormlane3_google.dll_3.6.344.0");
    EXPECT_EQ(*length, 256);
    strcpy(buffer, "profile");
    *length = 7;
    return 0;
  }
  int SetValue(const char* profile, const char* key, const char* value, int) override {
    EXPECT_STREQ(profile, "profile");
    values[key] = value;
    return 0;
  }
  int GetValue(const char* profile, const char* key, char* buffer, int* length) override {
    EXPECT_STREQ(profile, "profile");
    EXPECT_EQ(*length, 1024);
    if (values.count(key) == 0) return 1;
    strcpy(buffer, values[key].c_str());
    return 0;
  }
  std::map<std::string, std::string> values;
};

struct HostAuth final : IProtocolAuth {
  const char* Renew(void*, const char* credential) override {
    EXPECT_STREQ(credential, R"({"results":{"access_token":"old"}})");
    ++given;
    return strdup(R"({"results":{"access_token":"new"}})");
  }
  void Free(const char* credential) override {
    --given;
    free(const_cast<char*>(credential));
  }
  int given = 0;
};

struct HostList final : IFileList {
  void Add(mirror::Record* file) override { files.push_back(*file); }
  std::vector<mirror::Record> files;
};

struct ThrowingList final : IFileList {
  void Add(mirror::Record*) override { throw std::runtime_error("host"); }
};

struct HostChanges final : IFileChanges {
  void Changed(const char* folder) override { folders.push_back(folder); }
  std::vector<std::string> folders;
};

struct HostFetch final : IFetchCallback {
  void OnData(long long offset, const char* data, unsigned long long length,
              long long* extra) override {
    text = std::to_string(offset) + (extra ? " local " : " remote ") + std::string(data, length);
  }
  std::string text;
};

struct HostCache final : ICacheIO {
  int32_t Read(mirror::CacheRequest* request) override {
    EXPECT_EQ(request->fileSize, 5);
    EXPECT_NE(request->handle, nullptr);
    request->read = std::string("hello").copy(static_cast<char*>(request->buffer), request->wanted,
                                              static_cast<size_t>(request->offset));
    return 0;
  }
};

struct HostJob final : IAsyncObj {
  Code Process(void* context) override { return *static_cast<Code*>(context); }
  void Canceled(void*) override {}
};

struct HostQueue final : IAsyncQueue {
  Code Enqueue(IAsyncObj* job, void* context) override {
    jobs.push_back(job);
    return context ? 77 : 78;
  }
  std::vector<IAsyncObj*> jobs;
};

struct Module : testing::Test {
  void* library = dlopen(VORMLANE_MODULE, RTLD_NOW | RTLD_LOCAL);
  HostManager manager;

  void SetUp() override { ASSERT_NE(library, nullptr) << dlerror(); }
  void TearDown() override {
    if (library) dlclose(library);
  }
  template <class Type>
  Type* Symbol(const char* name) {
    void* found = dlsym(library, name);
    EXPECT_NE(found, nullptr) << name;
    return reinterpret_cast<Type*>(found);
  }
  IProtocol_V2* NewDrive() {
    void* made = nullptr;
    EXPECT_TRUE(
        Symbol<bool(const char*, IProtocolManager*, void**)>("GetProtocol")("x", &manager, &made));
    return static_cast<IProtocol_V2*>(made);
  }
};

TEST_F(Module, AnswersDiscovery) {
  EXPECT_EQ(Symbol<int()>("GetSupports")(), 3);
  EXPECT_EQ(Symbol<int()>("GetAuthType")(), 2);
  EXPECT_STREQ(Symbol<const char*()>("GetProtocolVersion")(), "1.0.0");
  EXPECT_STREQ(*Symbol<const char*>("protocol_version"), "1.0.0");
  Symbol<void()>("_Z6OnLoadv")();
  EXPECT_STREQ(Symbol<const char*(Code)>("GetAERRORA")(19), "AERROR::FILE_NOT_FOUND");
  EXPECT_EQ(Symbol<int32_t(Code)>("ConvertAERROR")(19), -2);
  auto* freeP = Symbol<void(void*)>("FreeP");
  auto* supports = Symbol<char*(char**)>("GetSupportProtocol");
  char* name = nullptr;
  EXPECT_EQ(supports(&name), name);
  EXPECT_STREQ(name, "gdrive");
  freeP(name);
  freeP(supports(nullptr));
  freeP(nullptr);
  EXPECT_FALSE(Symbol<bool(const char*, IProtocolManager*, void**)>("GetProtocol")(nullptr, nullptr,
                                                                                   nullptr));
}

TEST_F(Module, FieldSchemasFollowTheBufferRule) {
  for (const char* name : {"GetAuthFields", "GetOptFields"}) {
    auto* get = Symbol<Code(char*, int*)>(name);
    char buffer[4096];
    int length = 3;
    EXPECT_EQ(get(buffer, &length), 5);
    const int needed = length;
    EXPECT_EQ(get(buffer, &length), 0);
    EXPECT_EQ(length, needed);
    EXPECT_EQ(strlen(buffer), static_cast<size_t>(needed));
    EXPECT_EQ(buffer[0], '{');
    length = -1;
    EXPECT_EQ(get(buffer, &length), 5);
    EXPECT_EQ(get(nullptr, &length), 6);
    EXPECT_EQ(get(buffer, nullptr), 6);
  }
}

// Each C++ library has its own spelling of a function that takes a text or returns one.
#ifdef _LIBCPP_VERSION
#define TAKES_TEXT "RKNSt3__112basic_stringIcNS_11char_traitsIcEENS_9allocatorIcEEEE"
#define RETURNS_TEXT ""
#else
#define TAKES_TEXT "RKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"
#define RETURNS_TEXT "B5cxx11"
#endif

TEST_F(Module, TimeFunctionsAreReachableByTheirNames) {
  using Text = std::string;
  tm winter{};
  winter.tm_year = 120, winter.tm_mday = 2;
  tm same = winter;
  const Text text = "2020-01-02T00:00:00.000Z";
  EXPECT_EQ(Symbol<Text(tm*)>("_Z11TMToRFC3339" RETURNS_TEXT "P2tm")(&winter), text);
  const time_t local = mktime(&same);
  EXPECT_EQ(Symbol<time_t(const Text&)>("_Z11RFC3339ToTM" TAKES_TEXT)(text), local);
  const time_t instant = Symbol<time_t(const Text&)>("_Z16RFC3339ToLocalTM" TAKES_TEXT)(text);
  for (const char* name :
       {"_Z13TimeToRFC3339" RETURNS_TEXT "l", "_Z16TimeToUTCRFC3339" RETURNS_TEXT "l",
        "_Z27NoAdjustOffsetForServerTime" RETURNS_TEXT "l"}) {
    EXPECT_EQ(Symbol<Text(time_t)>(name)(instant), text) << name;
  }
  EXPECT_EQ(Symbol<Text(const Text&)>("_Z24NoAdjustServerTimeOffset" TAKES_TEXT)(text), text);
  EXPECT_EQ(Symbol<Text()>("_Z20GetSystemTimeRfc3339" RETURNS_TEXT "v")().size(), 23u);
}

TEST_F(Module, JobsRunAtOnceUntilAQueueIsBound) {
  auto* bind = Symbol<bool(IAsyncQueue*)>("BindAsyncQ");
  auto* unbind = Symbol<void()>("UnbindAsyncQ");
  auto* run = Symbol<Code(IAsyncObj*, void*)>("_Z10QueueAsyncP9IAsyncObjPv");
  HostJob job;
  HostQueue queue;
  Code result = 41;
  EXPECT_EQ(run(&job, &result), 41);
  EXPECT_EQ(run(nullptr, nullptr), 1001);
  EXPECT_TRUE(bind(&queue));
  EXPECT_FALSE(bind(nullptr));  // the queue stays
  EXPECT_EQ(*Symbol<IAsyncQueue*>("aq"), &queue);
  EXPECT_EQ(run(&job, &result), 77);
  unbind();
  EXPECT_EQ(run(&job, &result), 41);
  EXPECT_THAT(queue.jobs, ElementsAre(&job));
}

TEST_F(Module, EverySlotTakesNullsBeforeConnect) {
  IProtocol_V2* drive = NewDrive();
  mirror::Record record;
  const mirror::HandlePtr none;
  char* type = nullptr;
  char buffer[64];
  int length = sizeof(buffer);
  EXPECT_EQ(drive->GetUserInfo(nullptr, &length), 6);
  EXPECT_EQ(drive->GetUserInfo(buffer, nullptr), 6);
  EXPECT_EQ(drive->GetUserInfo(buffer, &length), 0);
  EXPECT_STREQ(buffer, "()");
  EXPECT_EQ(length, 2);
  EXPECT_EQ(drive->GetQuota(nullptr, nullptr), 2014);
  EXPECT_EQ(drive->SetQuota(1, 1), 8);
  EXPECT_NE(drive->GetType(nullptr), 0);
  EXPECT_EQ(drive->GetType(&type), 0);
  EXPECT_STREQ(type, "gdrive");
  for (const char* id : {static_cast<const char*>(nullptr), "id"}) {
    EXPECT_NE(drive->GetFileList(id, nullptr, nullptr), 0);
    EXPECT_NE(drive->GetFileInfo(id, nullptr, nullptr), 0);
    for (mirror::Record* file : {static_cast<mirror::Record*>(nullptr), &record}) {
      EXPECT_NE(drive->Rename(id, id, file, nullptr), 0);
      EXPECT_NE(drive->Move(id, id, file, nullptr), 0);
      EXPECT_NE(drive->MoveDir(id, id, file, nullptr), 0);
      EXPECT_NE(drive->CreateDirectory(id, file, nullptr), 0);
      EXPECT_NE(drive->Delete(file, nullptr), 0);
      EXPECT_NE(drive->DeleteDirectory(file, nullptr), 0);
      EXPECT_NE(drive->Upload(id, none, nullptr, file, 0, nullptr), 0);
      EXPECT_NE(drive->SetFileTime(id, "", "", "", file, nullptr), 0);
    }
    EXPECT_NE(drive->Read(id, 0, 1, none, nullptr, nullptr), 0);
    EXPECT_EQ(drive->SetOpt(id, nullptr), 0);
    EXPECT_EQ(drive->SetOpt(nullptr, id), 0);
  }
  EXPECT_NE(drive->GetChanges(nullptr, nullptr), 0);
  EXPECT_EQ(drive->GetCredential(nullptr, nullptr), 2014);
  EXPECT_EQ(drive->GetFeature(), 69);
  EXPECT_EQ(drive->SetQuotaCallback(nullptr, nullptr), 0);
  drive->FreeMsg(nullptr);
  drive->FreeMsg(strdup("message"));
  EXPECT_EQ(drive->Connect(nullptr, nullptr), 7003);
  EXPECT_EQ(drive->Connect(nullptr, "no json"), 7003);
  EXPECT_EQ(drive->GetIdentifier(nullptr, nullptr), 0);
  EXPECT_EQ(drive->GetRootID(nullptr, nullptr), 24);
  EXPECT_EQ(drive->GetRootID(nullptr, &length), 6);
  EXPECT_NE(drive->SetChangesCallback(nullptr), 0);
  drive->Release();
}

constexpr char kAbout[] =
    R"({"user":{"displayName":"Ann","emailAddress":"a@b.c"},"quotaBytesTotal":"10",
        "quotaBytesUsedAggregate":"3","rootFolderId":"root1"})";
constexpr char kFile[] =
    R"({"id":"f1","mimeType":"text/plain","name":"A","size":"5","parents":["p1","p2"],
        "modifiedTime":"2020-01-02T03:04:05.678Z"})";

TEST_F(Module, HostObjectsAreCalledThroughTheirSlots) {
  WireServer server;
  HostLog log;
  HostAuth auth;
  EXPECT_TRUE(Symbol<bool(ILog*)>("BindLogger")(&log));
  manager.values["drive_api_url"] = server.Origin();
  manager.values["lastchangeid"] = "7";
  IProtocol_V2* drive = NewDrive();
  server.Play({Http(401, "{}"), Http(200, kAbout), Http(200, kFile)});
  EXPECT_EQ(drive->Connect(&auth, R"({"results":{"access_token":"old"}})"), 0);
  EXPECT_EQ(auth.given, 0);
  EXPECT_EQ(server.Requests()[1].Header("Authorization"), "Authorization: Bearer new");
  EXPECT_THAT(log.lines, Contains(HasSubstr("2 [PROTOCOL  ] ")));
  unsigned long long total = 0, used = 0;
  EXPECT_EQ(drive->GetQuota(&total, &used), 0);
  EXPECT_EQ(total * 100 + used, 1003u);

  HostList list;
  server.Play({Http(200, std::string("{\"files\":[") + kFile + "]}")});
  EXPECT_EQ(drive->GetFileList("p1", &list, nullptr), 0);
  ASSERT_EQ(list.files.size(), 1u);
  EXPECT_EQ(list.files[0].id + list.files[0].name + list.files[0].time3,
            "f1A2020-01-02T03:04:05.678Z");
  EXPECT_EQ(list.files[0].attributes, 1u);
  EXPECT_EQ(list.files[0].size, 5);
  EXPECT_THAT(list.files[0].parents, ElementsAre("p2", "p1"));
  ThrowingList throwing;
  server.Play({Http(200, std::string("{\"files\":[") + kFile + "]}")});
  EXPECT_EQ(drive->GetFileList("p1", &throwing, nullptr), 1);

  HostFetch fetch;
  const auto handle = std::make_shared<mirror::Handle>();
  server.Play({Http(206, "ell")});
  EXPECT_EQ(drive->Read("f1", 1, 3, handle, &fetch, nullptr), 0);
  EXPECT_EQ(fetch.text, "1 remote ell");
  handle->content = "inline";
  EXPECT_EQ(drive->Read("f1", 2, 3, handle, &fetch, nullptr), 0);
  EXPECT_EQ(fetch.text, "2 local lin");
  handle->content.clear();

  HostCache cache;
  server.Play({Http(200, "", "Location: " + server.Origin() + "/session\r\n"), Http(200, kFile),
               Http(200, kFile)});
  mirror::Record file;
  file.name = "A";
  file.size = 5;
  EXPECT_EQ(drive->Upload("p1", handle, &cache, &file, 0, nullptr), 0);
  EXPECT_EQ(handle->transferred, 5);
  EXPECT_EQ(file.id, "f1");

  HostChanges changes;
  server.Play({Http(
      200, std::string("{\"newStartPageToken\":\"8\",\"changes\":[{\"file\":") + kFile + "}]}")});
  EXPECT_EQ(drive->GetChanges(&changes, nullptr), 0);
  EXPECT_THAT(changes.folders, ElementsAre("p2", "p1"));
  EXPECT_EQ(manager.values["lastchangeid"], "8");
  char buffer[100];
  int length = sizeof(buffer);
  EXPECT_EQ(drive->GetCredential(buffer, &length), 0);
  EXPECT_EQ(manager.values["pid"], "profile");
  drive->Release();
  Symbol<void()>("UnbindLogger")();
  EXPECT_EQ(*Symbol<ILog*>("logger"), nullptr);
}

TEST_F(Module, ManyThreadsMakeAndReleaseDrives) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 100; ++i) {
    threads.emplace_back([this] {
      IProtocol_V2* drive = NewDrive();
      EXPECT_EQ(drive->GetFeature(), 69);
      drive->Release();
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(Module, StaysMappedWhenItIsClosed) {
  auto* version = Symbol<const char*()>("GetProtocolVersion");
  dlclose(library);
  library = dlopen(VORMLANE_MODULE, RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(library, nullptr) << "a thread of the module would have lost its code";
  EXPECT_STREQ(version(), "1.0.0");
}

}  // namespace
