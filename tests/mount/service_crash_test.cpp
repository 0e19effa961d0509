// The service dies under a mount at work, and comes back with what it had kept: the mount goes on
// meanwhile, and afterwards both have the same.
//
// VORMLANE_SEED chooses the work.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstdlib>
#include <optional>
#include <random>

#include "host/cli/emulator_process.h"
#include "host/core/descriptor.h"
#include "tests/mount/mounted_program.h"
#include "tests/mount/writer.h"

namespace host::mount {
namespace {

namespace fs = std::filesystem;

/// A loopback port that nobody is given while no program listens on it.
class KeptPort {
 public:
  KeptPort() {
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    setsockopt(keeper.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(keeper.Get(), generic, size) == 0 && getsockname(keeper.Get(), generic, &size) == 0)
      number = ntohs(address.sin_port);
  }
  int Number() const { return number; }

 private:
  Descriptor keeper{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  int number = 0;
};

class ServiceCrash : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const std::string why = WhyNoMount(); !why.empty()) GTEST_SKIP() << why;
    ASSERT_NE(port.Number(), 0);
    std::printf("seed %u\n", seed);
    Start();
    token = service->Post("/tokens", Json::objectValue)["accessToken"].asString();
  }

  void Start() {
    service.emplace(std::vector<std::string>{"--seed", "empty", "--listen",
                                             "127.0.0.1:" + std::to_string(port.Number()), "--data",
                                             file.string(), "--rtt", "3"});
  }

  /// At once, with whatever it is doing.
  void Kill() {
    ASSERT_EQ(kill(service->Process(), SIGKILL), 0);
    service.reset();
  }

  int Requests(const std::string& method) const {
    return service->Get("/journal?count=true&method=" + method)["count"].asInt();
  }

  /// Until the service has been asked for so much more.
  void WorkUntil(Writer& writer, int uploads) const {
    for (const int before = Requests("drive.upload.content");
         Requests("drive.upload.content") < before + uploads;)
      ASSERT_TRUE(writer.Work(3)) << std::strerror(errno);
  }

  const unsigned seed = [] {
    const char* const given = std::getenv("VORMLANE_SEED");
    return given == nullptr ? std::random_device{}() >> 1 : static_cast<unsigned>(std::atoi(given));
  }();
  TemporaryDirectory directory{"vormlane-service-"};
  const fs::path file = directory.Path() / "service.db";
  const KeptPort port;
  std::optional<EmulatorProcess> service;
  std::string token;
};

TEST_F(ServiceCrash, LeavesMountAndServiceTheSame) {
  MountedProgram program({{"drive_api_url", service->Address("api")}}, token);
  ASSERT_TRUE(program.Mount());
  const fs::path place = program.Root() / "work";
  ASSERT_EQ(mkdir(place.c_str(), 0755), 0);
  Writer writer(place, seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 4; ++round) {
    ASSERT_NO_FATAL_FAILURE(WorkUntil(writer, 15 + static_cast<int>(random() % 30)));
    ASSERT_NO_FATAL_FAILURE(Kill());
    // While it is away nothing is refused.
    ASSERT_TRUE(writer.Work(static_cast<int>(random() % 40))) << std::strerror(errno);
    ASSERT_NO_THROW(Start());
  }
  ASSERT_TRUE(writer.Work(20)) << std::strerror(errno);
  ASSERT_TRUE(program.Drain());
  std::vector<std::string> faults;
  const Entries shown = Shown(place);
  writer.Compare(shown, faults);
  std::string status;
  program.Run({"status"}, &status);
  EXPECT_THAT(faults, ::testing::IsEmpty()) << status;

  service.reset();
  emulator::Options options;
  options.port = port.Number();
  options.dataFile = file.string();
  emulator::DriveEmulator kept(options);
  EXPECT_THAT(CompareWithService(kept, "work", shown), ::testing::IsEmpty());
  EXPECT_EQ(kept.Children(kept.RootId()).size(), 1U);
  MountedProgram other(kept);
  ASSERT_TRUE(other.Mount());
  EXPECT_TRUE(Shown(other.Root() / "work") == shown);
  std::printf("%d operations, %zu entries\n", writer.operations, shown.size());
}

}  // namespace
}  // namespace host::mount
