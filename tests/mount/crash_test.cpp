// Kills the program at random moments under load, again and again, with a service that loses
// answers, and compares what programs were promised with what the mount shows after each restart
// and with what the service has in the end.
//
// VORMLANE_CRASH_ROUNDS and VORMLANE_SEED choose how long and which.
#include <chrono>
#include <climits>
#include <cstdlib>
#include <random>
#include <thread>

#include "tests/mount/mounted_program.h"
#include "tests/mount/writer.h"

namespace host::mount {
namespace {

namespace fs = std::filesystem;

int FromEnvironment(const char* name, int otherwise) {
  const char* text = std::getenv(name);
  return text == nullptr ? otherwise : std::atoi(text);
}

class Crash : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const std::string why = WhyNoMount(); !why.empty()) GTEST_SKIP() << why;
    service.SetRoundTrip(std::chrono::milliseconds(2));
    std::printf("seed %u\n", seed);
  }

  void InjectFaults() {
    static const char* const kMethods[] = {"drive.upload.start", "drive.upload.content",
                                           "drive.files.create", "drive.files.update",
                                           "drive.files.delete", "drive.files.get",
                                           "drive.files.list",   "drive.files.get.media"};
    static const char* const kKinds[] = {"applied-not-answered", "reset-before", "truncate",
                                         "garbage", "reset-after"};
    service.ClearFaults();
    for (unsigned i = random() % 6; i > 0; --i) {
      emulator::Fault fault;
      fault.method = kMethods[random() % std::size(kMethods)];
      fault.kind = kKinds[random() % std::size(kKinds)];
      // A download of as many other bytes than the service holds cannot be told from a file that
      // differs; nothing in the boundary carries a checksum.
      if (fault.kind == "garbage" && fault.method == "drive.files.get.media") continue;
      fault.times = 1 + static_cast<int>(random() % 3);
      service.Inject(fault);
    }
  }

  emulator::DriveEmulator service;
  const unsigned seed = static_cast<unsigned>(
      FromEnvironment("VORMLANE_SEED", static_cast<int>(std::random_device{}() >> 1)));
  std::mt19937 random{seed};
};

TEST_F(Crash, LosesNothingDoublesNothingChangesNothing) {
  constexpr int kWriters = 3;
  constexpr int kRoundsBetweenDrains = 8;
  const int rounds = FromEnvironment("VORMLANE_CRASH_ROUNDS", 40);
  MountedProgram program(service);
  std::vector<Writer> writers;
  std::vector<fs::path> places;
  for (int i = 0; i < kWriters; ++i) {
    const std::string name = "writer" + std::to_string(i);
    service.MakeFolder(name);
    places.push_back(program.Root() / name);
    writers.emplace_back(places.back(), seed + static_cast<unsigned>(i));
  }
  int drains = 0;
  for (int round = 0; round < rounds; ++round) {
    ASSERT_TRUE(program.Mount()) << "round " << round;
    service.ClearFaults();  // what follows is about bytes, not about reading them under faults
    std::vector<std::string> faults;
    for (size_t i = 0; i < writers.size(); ++i) writers[i].Compare(Shown(places[i]), faults);
    if (round % kRoundsBetweenDrains == kRoundsBetweenDrains - 1 || round == rounds - 1) {
      ASSERT_TRUE(program.Drain());
      ++drains;
      for (const fs::path& place : places)
        for (const std::string& fault :
             CompareWithService(service, place.filename().string(), Shown(place)))
          faults.push_back(fault);
    }
    for (const std::string& fault : faults) ADD_FAILURE() << "round " << round << ": " << fault;
    if (!faults.empty()) program.Keep("/tmp/vormlane-crash");
    ASSERT_TRUE(faults.empty());
    InjectFaults();
    std::vector<std::thread> threads;
    for (Writer& writer : writers) threads.emplace_back([&] { writer.Work(INT_MAX); });
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 300'000));
    program.Kill();
    for (std::thread& thread : threads) thread.join();
    if (random() % 2 == 0) program.Detach();  // else the next mount takes the dead one away
  }
  int operations = 0;
  for (const Writer& writer : writers) operations += writer.operations;
  std::printf(
      "%d kills, %d operations, %d comparisons with the service: missing 0, wrong 0, "
      "duplicate 0\n",
      rounds, operations, drains);
}

}  // namespace
}  // namespace host::mount
