// What outlives the process, TLS, and sizes.
#include <gmock/gmock.h>

#include <filesystem>

#include "tests/emulator/emulator_fixture.h"
#include "tests/emulator/web_socket_client.h"

namespace emulator_test {
namespace {

class State : public EmulatorTest {
 protected:
  void SetUp() override {
    place =
        std::filesystem::temp_directory_path() / ("emulator-state-" + std::to_string(::getpid()));
    std::filesystem::create_directories(place);
  }
  void TearDown() override {
    drive.reset();
    std::filesystem::remove_all(place);
  }

  std::filesystem::path place;
};

TEST_F(State, ComesBackAsItWas) {
  emulator::Options options;
  options.dataFile = (place / "state.db").string();
  options.seed = "demo";
  Start(options);
  const std::string kept = drive->Put("kept.bin", std::string(100'000, 'k'));
  const std::string shared = drive->Put("shared.txt", "s");
  drive->ShareWith(shared, "ada@example.com", "writer");
  drive->Remove(*drive->Find("Welcome.txt"));
  const Answer watch =
      Send("POST", "/drive/v3/changes/watch?pageToken=1",
           "{\"id\":\"c\",\"type\":\"web_hook\",\"address\":\"https://example.com/hook\"}");
  const std::string cursor =
      Get("/drive/v3/changes/startPageToken").Json()["startPageToken"].asString();
  const Json::Value tree = drive->DumpTree();
  const std::string oldToken = token;
  const int64_t used = drive->QuotaUsed();
  drive.reset();

  Start(options);
  EXPECT_EQ(drive->DumpTree(), tree);
  EXPECT_EQ(drive->Content(kept), std::string(100'000, 'k'));
  EXPECT_EQ(drive->QuotaUsed(), used);
  EXPECT_EQ(drive->OpenChannels(), 1);
  token = oldToken;
  EXPECT_EQ(Get("/drive/v3/changes?pageToken=" + cursor).Json()["changes"].size(), 0u);
  drive->Put("after.txt", "x");
  EXPECT_EQ(Get("/drive/v3/changes?pageToken=" + cursor).Json()["changes"].size(), 1u);
  drive->Remove(kept);
  drive.reset();
  int contents = 0;
  for (const auto& entry : std::filesystem::directory_iterator(options.dataFile + ".contents")) {
    EXPECT_NE(entry.file_size(), 100'000u) << "the content of a deleted file is still there";
    ++contents;
  }
  EXPECT_GT(contents, 0);
}

TEST_F(State, TlsWithItsOwnAuthority) {
  emulator::Options options;
  options.tlsDirectory = (place / "tls").string();
  Start(options);
  ASSERT_EQ(drive->ApiUrl().rfind("https://", 0), 0u);
  EXPECT_EQ(Get("/drive/v2/about").status, 0) << "nobody trusts it by itself";
  ActAs(emulator::kDemoUser);
  client->set_ca_cert_path((place / "tls/ca.pem").c_str());
  EXPECT_EQ(Get("/drive/v2/about").status, 200);
  const std::string big(3'000'000, 'b');
  const Answer session = Send("POST", "/upload/drive/v3/files?uploadType=resumable", "{}");
  EXPECT_EQ(session.Header("Location").rfind(drive->ApiUrl(), 0), 0u);
  const Answer done = Send("PUT", session.Header("Location"), big);
  ASSERT_EQ(done.status, 200);
  EXPECT_EQ(Get("/drive/v3/files/" + done.Json()["id"].asString() + "?alt=media").body, big);
}

TEST_F(State, PushOverTls) {
  emulator::Options options;
  options.tlsDirectory = (place / "tls").string();
  options.pushTls = true;
  Start(options);
  const std::string authority = (place / "tls/ca.pem").string();
  ASSERT_EQ(drive->PushUrl().rfind("wss://", 0), 0u);
  {
    WebSocketClient listener(drive->PushUrl() + "channel", authority);
    ASSERT_TRUE(listener.Open());
    client->set_ca_cert_path(authority.c_str());
    EXPECT_EQ(Send("POST", "/drive/v3/changes/watch?pageToken=1",
                   "{\"id\":\"c\",\"type\":\"web_hook\",\"address\":\"" + drive->PushApiUrl() +
                       "/webhook/channel\"}")
                  .status,
              200);
    drive->Put("a.txt", "x");
    EXPECT_THAT(listener.Receive(), ::testing::HasSubstr("change"));
    drive->SetPushBehaviour(emulator::PushBehaviour::kFlood);
    WebSocketClient flooded(drive->PushUrl() + "flood", authority);
    for (int i = 0; i < 5000; ++i) ASSERT_EQ(flooded.Receive(), "flood");
  }
  options.tlsDirectory.clear();
  EXPECT_THROW(emulator::DriveEmulator{options}, std::invalid_argument);
}

TEST_F(State, RefusesWhatItCannotServe) {
  emulator::Options options;
  options.seed = "everything";
  EXPECT_THROW(emulator::DriveEmulator{options}, std::invalid_argument);
  options.seed = "empty";
  options.dataFile = (place / "no/such/folder/state.db").string();
  EXPECT_THROW(emulator::DriveEmulator{options}, std::runtime_error);
  options.dataFile.clear();
  Start(options);
  const std::string url = drive->ApiUrl();
  options.port = std::stoi(url.substr(url.rfind(':') + 1));
  EXPECT_THROW(emulator::DriveEmulator{options}, std::runtime_error) << "the port is taken";
}

// The database must walk its indexes, whatever page is asked for.
TEST_F(State, LargeFoldersAreListedPageByPage) {
  Start();
  const std::string folder = drive->MakeFolder("large");
  drive->AddChildren(folder, 100'000, "f");
  EXPECT_EQ(drive->Items(), 100'002);
  std::string page;
  size_t found = 0;
  do {
    const Answer answer = Get("/drive/v3/files?pageSize=1000&fields=nextPageToken,files(id)&q=" +
                              Encoded("'" + folder + "' in parents") +
                              (page.empty() ? "" : "&pageToken=" + Encoded(page)));
    ASSERT_EQ(answer.status, 200);
    const Json::Value list = answer.Json();
    found += list["files"].size();
    page = list.get("nextPageToken", "").asString();
  } while (!page.empty());
  EXPECT_EQ(found, 100'000u);
}

}  // namespace
}  // namespace emulator_test
