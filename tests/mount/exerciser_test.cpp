// Random writes, truncates, reads and mappings of one file against a buffer in memory, while that
// file and others beside it are on their way to the service.
//
// VORMLANE_SEED chooses the operations.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <random>
#include <thread>

#include "tests/mount/mounted_program.h"
#include "tests/rounds.h"

namespace host::mount {
namespace {

constexpr size_t kLargest = 4 << 20;
constexpr size_t kPiece = 60'000;

class Exerciser : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const std::string why = WhyNoMount(); !why.empty()) GTEST_SKIP() << why;
    std::printf("seed %u\n", seed);
    service.SetRoundTrip(std::chrono::milliseconds(2));
    service.SetBandwidth(20 << 20);
    ASSERT_TRUE(program.Mount({"--poll", "3600", "--no-push", "--upload-delay", "0", "--retry",
                               "0.02", "--settle", "0.05"}));
    Open(O_CREAT);
  }

  void Open(int flags) {
    file = open(path.c_str(), O_RDWR | O_CLOEXEC | flags, 0644);
    ASSERT_GE(file, 0);
  }
  void Close() { ASSERT_EQ(close(file), 0); }

  std::string Bytes(size_t length) { return std::string(length, static_cast<char>(random())); }

  void Check(size_t offset, size_t length) {
    std::string bytes(length, '\0');
    const std::string expected = offset < model.size() ? model.substr(offset, length) : "";
    const ssize_t count = pread(file, bytes.data(), length, static_cast<off_t>(offset));
    ASSERT_EQ(count, static_cast<ssize_t>(expected.size()));
    ASSERT_EQ(bytes.compare(0, expected.size(), expected), 0);
  }

  void Write(size_t offset, size_t length) {
    Note("write", offset, length);
    const std::string bytes = Bytes(length);
    ASSERT_EQ(pwrite(file, bytes.data(), length, static_cast<off_t>(offset)),
              static_cast<ssize_t>(length));
    model.resize(std::max(model.size(), offset + length));
    model.replace(offset, length, bytes);
  }

  /// Changes a mapping, which at times outlives the descriptor that it was made with.
  void Map(size_t offset, size_t length, char value) {
    if (model.empty()) return;
    const bool outlives = random() % 8 == 0;
    const size_t from = offset % model.size();
    const size_t count = std::min(length, model.size() - from);
    Note(outlives ? "map that outlives" : "map", from, count);
    void* const mapped = mmap(nullptr, model.size(), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ASSERT_NE(mapped, MAP_FAILED);
    if (outlives) Close();
    char* const bytes = static_cast<char*>(mapped);
    ASSERT_EQ(std::memcmp(bytes + from, model.data() + from, count), 0);
    std::memset(bytes + from, value, count);
    std::memset(model.data() + from, value, count);
    ASSERT_EQ(munmap(mapped, model.size()), 0);
    if (outlives) Open(0);
  }

  /// A file beside it, whole.
  void WriteAside() {
    const std::string name = "aside " + std::to_string(random() % 5);
    asides[name] = Bytes(1 + random() % kPiece);
    std::ofstream out(program.Root() / name, std::ios::binary);
    out << asides[name];
    out.close();
    ASSERT_TRUE(out);
  }

  /// Begun by then are most of the uploads that are due; the time is a limit.
  void AwaitUploads() {
    const int before = service.Count("drive.upload.content");
    ASSERT_NO_FATAL_FAILURE(WriteAside());
    for (int i = 0; service.Count("drive.upload.content") == before; ++i) {
      ASSERT_LT(i, 10'000);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  /// A new file is written and takes the place of the old one.
  void Replace() {
    model = Bytes(random() % kPiece);
    std::ofstream out(program.Root() / "exerciser~", std::ios::binary);
    out << model;
    out.close();
    ASSERT_TRUE(out);
    ASSERT_EQ(rename((program.Root() / "exerciser~").c_str(), path.c_str()), 0);
  }

  void Reopen(size_t offset) {
    Close();
    const unsigned way = random() % 8;
    Note("reopen", way, way == 1 ? offset : 0);
    switch (way) {
      case 0:
        model.clear();
        return Open(O_TRUNC);
      case 1:
        ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(offset)), 0);
        model.resize(offset);
        break;
      case 2:
        ASSERT_NO_FATAL_FAILURE(Replace());
        break;
      case 3:
        ASSERT_NO_FATAL_FAILURE(WriteAside());
        break;
      case 4:
      case 5:
        ASSERT_NO_FATAL_FAILURE(AwaitUploads());
        break;
      default:
        break;
    }
    Open(0);
  }

  void Operate(int number) {
    const size_t offset = random() % (kLargest >> random() % 7);  // small files as well
    const size_t length = 1 + random() % std::min(kLargest - offset, kPiece);
    switch (random() % 20) {
      case 0:
        Note("ftruncate", offset);
        ASSERT_EQ(ftruncate(file, static_cast<off_t>(offset)), 0);
        model.resize(offset);
        break;
      case 1:
      case 2:
      case 3:
        Map(offset, length, static_cast<char>(number));
        break;
      case 4:
        Reopen(offset);
        break;
      case 5:
        Note("fsync", 0);
        ASSERT_EQ(fsync(file), 0);
        break;
      case 6:
      case 7:
      case 8:
      case 9:
      case 10:
        Write(offset, length);
        break;
      default:
        Check(offset, length);
    }
    struct stat status {};
    ASSERT_EQ(fstat(file, &status), 0);
    ASSERT_EQ(static_cast<size_t>(status.st_size), model.size());
  }

  void CompareWithService() {
    ASSERT_TRUE(program.Drain());
    std::map<std::string, std::string> expected = asides;
    expected["exerciser"] = model;
    std::map<std::string, std::string> found;
    for (const std::string& child : service.Children(service.RootId()))
      ASSERT_TRUE(
          found.emplace(service.Item(child)["name"].asString(), *service.Content(child)).second);
    ASSERT_TRUE(found == expected);
  }

  /// For whoever has to find out why.
  void Note(const std::string& what, size_t offset, size_t length = 0) {
    lately.push_back(what + " " + std::to_string(offset) + "+" + std::to_string(length));
    if (lately.size() > 12) lately.pop_front();
  }

  const unsigned seed = [] {
    const char* const given = std::getenv("VORMLANE_SEED");
    return given == nullptr ? 1U : static_cast<unsigned>(std::atoi(given));
  }();
  std::mt19937 random{seed};
  emulator::DriveEmulator service;
  MountedProgram program{service};
  const std::filesystem::path path = program.Root() / "exerciser";
  int file = -1;
  std::deque<std::string> lately;
  std::string model;
  std::map<std::string, std::string> asides;
};

TEST_F(Exerciser, KeepsOneFileTrueThroughRandomOperations) {
  constexpr int kOperations = Rounds(20'000);
  constexpr int kBetweenComparisons = Rounds(4'000);
  for (int number = 1; number <= kOperations; ++number) {
    ASSERT_NO_FATAL_FAILURE(Operate(number))
        << "operation " << number << ": " << ::testing::PrintToString(lately);
    if (number % kBetweenComparisons != 0) continue;
    Close();
    ASSERT_NO_FATAL_FAILURE(CompareWithService()) << "operation " << number;
    Open(0);
  }
  // Larger than any that lie beside it.
  const std::vector<emulator::JournalEntry> journal = service.Journal();
  const auto uploads = std::count_if(journal.begin(), journal.end(), [](const auto& entry) {
    return entry.method == "drive.upload.content" && entry.requestBytes > int64_t{kPiece};
  });
  std::printf("%ld uploads of it\n", static_cast<long>(uploads));
  EXPECT_GE(uploads, Rounds(20));
}

}  // namespace
}  // namespace host::mount
