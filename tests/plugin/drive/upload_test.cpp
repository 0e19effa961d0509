// Uploading whole files: what the service holds afterwards, whatever happens on the way.
#include "tests/plugin/drive/drive_fixture.h"

namespace {

class UploadTest : public DriveTest {
 protected:
  static constexpr char kStart[] = "drive.upload.start";
  static constexpr char kContent[] = "drive.upload.content";

  std::string ContentOf(const std::string& id) { return service.Content(id).value_or("(none)"); }
  /// Neither a new item nor a change of the one that was there.
  void ExpectUntouched(const std::string& existing, const std::string& content) {
    EXPECT_EQ(ContentOf(existing), content);
    EXPECT_EQ(service.Children(root), std::vector<std::string>{existing});
  }
};

TEST_F(UploadTest, FilesOfAllSizesArriveByteForByte) {
  for (const size_t size : {0, 1, 524287, 524288, 524289, 64 << 20}) {
    const std::string content = Bytes(size);
    auto record = Record("data.bin");
    const auto handle = std::make_shared<_FS_HANDLE>();
    CachedFile cache(content);
    ASSERT_EQ(Upload(root, &record, &cache, handle), AERROR::SUCCESS) << size;
    EXPECT_TRUE(ContentOf(record.id) == content) << size;
    EXPECT_EQ(record.size, static_cast<int64_t>(size));
    EXPECT_EQ(record.name, "data.bin");
    EXPECT_EQ(handle->transferred, static_cast<int64_t>(size));
    EXPECT_EQ(LastRequest(kStart).headers.at("x-upload-content-length"), std::to_string(size));
  }
}

TEST_F(UploadTest, ANewContentKeepsTheItemsNameParentsAndType) {
  const std::string id = service.Put("folder/doc.txt", "old", "text/x-special");
  auto record = Record("another name.docx", id);
  ASSERT_EQ(Upload(root, &record, "new content"), AERROR::SUCCESS);
  EXPECT_EQ(ContentOf(id), "new content");
  EXPECT_EQ(service.Find("folder/doc.txt"), id);
  EXPECT_EQ(service.Item(id)["mimeType"].asString(), "text/x-special");
  EXPECT_EQ(record.name, "doc.txt");
  EXPECT_EQ(LastRequest(kStart).httpMethod, "PATCH");
  EXPECT_EQ(LastRequest(kStart).requestBody, "null");
  EXPECT_EQ(service.Children(root).size(), 1u);
}

TEST_F(UploadTest, TheTypeFollowsTheExtension) {
  const std::string office = "application/vnd.openxmlformats-officedocument.";
  const std::pair<const char*, std::string> cases[] = {
      {"Report.DOCX", office + "wordprocessingml.document"},
      {"a.b.xlsx", office + "spreadsheetml.sheet"},
      {"one", "application/onenote"},
      {"Report.PDF", ""},
      {"archive.tar.gz", ""},
      {"README", ""},
      {"docx.", ""},
  };
  for (const auto& [name, type] : cases) {
    auto record = Record(name);
    ASSERT_EQ(Upload(root, &record, "x"), AERROR::SUCCESS) << name;
    const auto headers = LastRequest(kStart).headers;
    const auto header = headers.find("x-upload-content-type");
    EXPECT_EQ(header == headers.end() ? "" : header->second, type) << name;
    EXPECT_EQ(Body(kStart).get("mimeType", "").asString(), type) << name;
    EXPECT_EQ(Body(kStart)["name"].asString(), name);
  }
}

TEST_F(UploadTest, AnEmptyParentIsTheRoot) {
  auto record = Record("a.txt");
  ASSERT_EQ(Upload("", &record, "x"), AERROR::SUCCESS);
  EXPECT_EQ(service.Find("a.txt"), record.id);
  EXPECT_EQ(Upload("Shared", &record, "x"), AERROR::SUCCESS) << "no virtual folder";
  auto lost = Record("b.txt");
  EXPECT_EQ(Upload("no such folder", &lost, "x"), AERROR::FILE_WRITE_FAILED);
}

TEST_F(UploadTest, TheSessionsAddressIsUsedAsItIs) {
  const std::string credential = R"({"results": {"access_token": ")" + service.AccessToken() +
                                 R"("}, "args": {"client_id": "abc"}})";
  ASSERT_EQ(drive->Connect(&authoriser, credential.c_str()), AERROR::SUCCESS);
  auto record = Record("a.txt");
  ASSERT_EQ(Upload(root, &record, "x"), AERROR::SUCCESS);
  EXPECT_NE(Query(kStart).find("cid=abc"), std::string::npos);
  EXPECT_EQ(Query(kContent).find("cid=abc", Query(kContent).find("fields=")), std::string::npos);
}

TEST_F(UploadTest, ANegativeSizeIsRefused) {
  auto record = Record("a.txt");
  record.size = -1;
  CachedFile cache("x");
  EXPECT_EQ(drive->Upload(root.c_str(), nullptr, &cache, &record, kUploadDefault, nullptr),
            AERROR::INVALID_PARAMETER);
  EXPECT_EQ(Requests(), 0);
}

TEST_F(UploadTest, ATokenThatExpiresMidwayIsRenewedAndTheContentSentAnew) {
  const std::string content = Bytes(8 << 20);
  Fault(kContent, "expire-token-at", 3 << 20);
  auto record = Record("data.bin");
  CachedFile cache(content);
  const auto handle = std::make_shared<_FS_HANDLE>();
  EXPECT_EQ(Upload(root, &record, &cache, handle), AERROR::SUCCESS);
  EXPECT_EQ(authoriser.renewals, 1);
  EXPECT_EQ(Requests(kContent), 2);
  EXPECT_EQ(std::count(cache.offsets.begin(), cache.offsets.end(), 0), 2);
  EXPECT_TRUE(ContentOf(record.id) == content);
  EXPECT_EQ(service.ChildrenNamed(root, "data.bin").size(), 1u);
}

TEST_F(UploadTest, ARetriedContentStartsAtItsFirstByte) {
  const std::string content = Bytes(2 << 20);
  service.FailNext(kContent, 500, 2);
  auto record = Record("data.bin");
  EXPECT_EQ(Upload(root, &record, content), AERROR::SUCCESS);
  EXPECT_TRUE(ContentOf(record.id) == content);
  EXPECT_EQ(clock.SleptSeconds(), (std::vector<long long>{1, 2}));
}

TEST_F(UploadTest, AnUploadGivenUpLeavesNothingBehind) {
  const std::string existing = service.Put("data.bin", "before");
  const std::string content = Bytes(4 << 20);
  const auto handle = std::make_shared<_FS_HANDLE>();
  using OnRead = std::function<int32_t(CacheReadRequest&)>;
  const std::pair<const char*, OnRead> cases[] = {
      {"cancelled",
       [&](auto& request) {
         if (request.offset > 1 << 20) handle->status = 3;
         return 0;
       }},
      {"cancelled at once",
       [&](auto&) {
         handle->status = 3;
         return 0;
       }},
      {"failing", [](auto& request) { return request.offset > 1 << 20 ? 5 : 0; }},
      {"failing at once", [](auto&) { return 5; }},
      {"throwing",
       [](auto& request) -> int32_t {
         if (request.offset > 1 << 20) throw std::runtime_error("cache gone");
         return 0;
       }},
      {"ending early",
       [](auto& request) {
         if (request.offset > 1 << 20) request.offset = 4 << 20;  // as at the end of the file
         return 0;
       }},
  };
  for (const auto& [name, onRead] : cases) {
    for (const std::string& id : {existing, std::string()}) {
      handle->status = 0;
      auto record = Record("new.bin", id);
      CachedFile cache(content);
      cache.onRead = onRead;
      EXPECT_EQ(Upload(root, &record, &cache, handle), AERROR::FAILED) << name;
      ExpectUntouched(existing, "before");
      EXPECT_EQ(record.id, id);
    }
  }
}

TEST_F(UploadTest, ABrokenConnectionLeavesNoHalfFile) {
  const std::string existing = service.Put("data.bin", "before");
  const std::string content = Bytes(4 << 20);
  for (const int64_t at : {0, 1, 1 << 20, (4 << 20) - 1}) {
    for (const std::string& id : {existing, std::string()}) {
      Fault(kContent, "reset-body", at, 2);  // libcurl tries once more on a fresh connection
      auto record = Record("new.bin", id);
      EXPECT_EQ(Upload(root, &record, content), AERROR::FAILED) << at;
      ExpectUntouched(existing, "before");
      service.ClearFaults();
    }
  }
}

TEST_F(UploadTest, AContentWhoseAnswerIsLostIsThereOnce) {
  Fault(kContent, "applied-not-answered");
  auto record = Record("data.bin");
  const std::string content = Bytes(100'000);
  (void)Upload(root, &record, content);  // the answer may be had on a second try, or not
  const auto found = service.ChildrenNamed(root, "data.bin");
  ASSERT_EQ(found.size(), 1u);
  EXPECT_TRUE(ContentOf(found.front()) == content);
}

TEST_F(UploadTest, ASessionThatHasExpiredFails) {
  const std::string existing = service.Put("data.bin", "before");
  for (const int status : {404, 410}) {
    service.FailNext(kContent, status);
    auto record = Record("x", existing);
    EXPECT_EQ(Upload(root, &record, "after"), AERROR::FAILED);
    ExpectUntouched(existing, "before");
  }
}

TEST_F(UploadTest, AnAnswerThatCannotBeReadIsNoSuccess) {
  for (const char* body : {"", "{", "[]", "{}", R"({"id": {}})"}) {
    AnswerNext(kContent, body);
    auto record = Record("data.bin");
    EXPECT_EQ(Upload(root, &record, "x"), AERROR::FILE_WRITE_FAILED) << body;
  }
}

TEST_F(UploadTest, AFailedReadBackKeepsTheNewItemsId) {
  service.FailNext("drive.files.get", 404);
  auto record = Record("data.bin");
  EXPECT_EQ(Upload(root, &record, "x"), AERROR::SUCCESS);
  EXPECT_EQ(record.id, service.Find("data.bin"));
}

/// The steps of one upload to a scripted service.
class UploadWireTest : public WireTest {
 protected:
  Answer Session(const std::string& header) { return Http(200, "", header); }
  std::string Location(const std::string& path) {
    return "Location: " + service.Origin() + path + "\r\n";
  }
  AERROR Upload(std::vector<Answer> answers) {
    service.Play(std::move(answers));
    auto record = Record("data.bin");
    record.size = static_cast<int64_t>(content.size());
    CachedFile cache(content);
    return drive->Upload("folder", nullptr, &cache, &record, kUploadDefault, nullptr);
  }

  const std::string content = Bytes(300'000);
};

TEST_F(UploadWireTest, OnlyALocationSpeltAsTheServiceSpellsItIsTaken) {
  for (const std::string& header :
       {std::string(), "location: " + service.Origin() + "/s\r\n", std::string("Location:\r\n"),
        "Location: " + service.Origin() + "/s: t\r\n"}) {
    const size_t before = service.Requests().size();
    EXPECT_EQ(Upload({Session(header)}), AERROR::FAILED) << header;
    EXPECT_EQ(service.Requests().size(), before + 1) << header;
  }
}

TEST_F(UploadWireTest, OnlyAWebAddressIsUploadedTo) {
  for (const char* place : {"file:///dev/null", "gopher://127.0.0.1/", "dict://127.0.0.1/"}) {
    EXPECT_EQ(Upload({Session("Location: " + std::string(place) + "\r\n")}), AERROR::FAILED)
        << place;
  }
}

TEST_F(UploadWireTest, AnIncompleteUploadIsNoSuccess) {
  for (const int status : {308, 304, 300}) {
    EXPECT_EQ(Upload({Session(Location("/s")), Http(status, "", "Range: bytes=0-99\r\n")}),
              AERROR::FILE_WRITE_FAILED)
        << status;
  }
}

TEST_F(UploadWireTest, ARedirectedContentIsSentWhole) {
  for (const int status : {301, 302, 303, 307, 308}) {
    EXPECT_EQ(Upload({Session(Location("/s?upload_id=1")), Http(status, "", Location("/t")),
                      Http(200, R"({"id": "new"})"),
                      Http(200, R"({"id": "new", "name": "n", "mimeType": "t", "size": "7"})")}),
              AERROR::SUCCESS);
    const auto requests = service.Requests();
    const auto& content1 = requests[requests.size() - 3];
    const auto& content2 = requests[requests.size() - 2];
    EXPECT_EQ(content1.Line().substr(0, 31), "PUT /s?upload_id=1&fields=id%2C");
    EXPECT_EQ(content2.Line(), "PUT /t HTTP/1.1") << status;
    EXPECT_TRUE(content1.body == content) << status;
    EXPECT_TRUE(content2.body == content) << status;
  }
}

}  // namespace
