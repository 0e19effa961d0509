// An encrypted push connection is held to the certificate bundle beside the program. The emulator's
// API port stands for the push server: it says whether anything was sent to it.
#include <filesystem>
#include <fstream>

#include "gdrive/push_connection.h"
#include "tests/plugin/drive/push_fixture.h"

namespace {

namespace fs = std::filesystem;

class PushVerificationTest : public testing::Test {
 protected:
  PushVerificationTest() : directory(fs::temp_directory_path() / "vormlane-push-XXXXXX") {
    std::string name = directory;
    directory = mkdtemp(name.data());
    bundle = fs::read_symlink("/proc/self/exe").parent_path() / "../Frameworks/cacert.pem";
    fs::create_directories(bundle.parent_path());
  }
  ~PushVerificationTest() override { fs::remove_all(directory); }

  /// Requests that arrive at `host` when the authority of `trusted` is the one in the bundle.
  int RequestsAt(const std::string& host, const std::string& trusted) {
    emulator::Options options;
    options.host = host;
    options.tlsDirectory = directory / "server";
    const emulator::DriveEmulator service(options);
    options.tlsDirectory = directory / "other";
    const emulator::DriveEmulator other(options);
    fs::copy_file(directory / trusted / "ca.pem", bundle, fs::copy_options::overwrite_existing);
    WatchedLog log;
    const std::string url = "wss" + service.ApiUrl().substr(5) + "/channel";
    const auto connection = std::make_shared<PushConnection>(nullptr, nullptr, url);
    connection->Open();
    EXPECT_TRUE(log.WaitFor("Push returns error"));  // it is no push server
    connection->Close();
    EXPECT_TRUE(log.WaitFor("Push loop done"));
    return service.Count("*");
  }

  fs::path directory, bundle;
};

TEST_F(PushVerificationTest, NothingIsSentToAServerThatIsNotTheOneItShouldBe) {
  EXPECT_EQ(RequestsAt("127.0.0.1", "server"), 1);
  EXPECT_EQ(RequestsAt("127.0.0.1", "other"), 0) << "unknown authority";
  EXPECT_EQ(RequestsAt("127.0.0.2", "server"), 0) << "certificate for another name";
}

}  // namespace
