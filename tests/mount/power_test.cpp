// Power cuts under load, again and again: the host dies, and its disk forgets a random part of what
// was not synced. What close and fsync had returned for must all the same reach the service, once.
//
// VORMLANE_POWER_ROUNDS and VORMLANE_SEED choose how long and which.
#include <fcntl.h>
#include <unistd.h>

#include <future>
#include <map>
#include <optional>
#include <random>
#include <thread>

#include "tests/mount/forgetful_disk.h"
#include "tests/mount/mounted_program.h"

namespace host::mount {
namespace {

namespace fs = std::filesystem;
using Value = std::optional<std::string>;  ///< a file's content, or that there is none

int FromEnvironment(const char* name, int otherwise) {
  const char* text = std::getenv(name);
  return text == nullptr ? otherwise : std::atoi(text);
}

/// A program that works in a folder of its own and remembers what it was promised.
class Author {
 public:
  Author(fs::path place, unsigned seed) : root(std::move(place)), random(seed) {}

  /// Works until an operation fails, or for a while; last it removes files, which nothing makes
  /// safe.
  void Work() {
    for (unsigned left = random() % 60; left > 0; --left, ++operations)
      if (!Operate()) return;
    for (unsigned left = random() % 4; left > 0; --left)
      if (const std::string name = Pick(); name.empty() || !Delete(name)) return;
  }

  /// `found` at the service is what the next round begins with.
  std::vector<std::string> Compare(const std::map<std::string, std::string>& found) {
    std::vector<std::string> faults;
    for (const auto& [name, values] : may) {
      const auto at = found.find(name);
      const Value value = at == found.end() ? Value() : at->second;
      if (std::find(values.begin(), values.end(), value) == values.end() &&
          !IsUnfinished(name, value))
        faults.push_back((value ? "wrong " : "missing ") + name + " (" +
                         std::to_string(value ? value->size() : 0) + " bytes of " +
                         std::to_string(values.back() ? values.back()->size() : 0) + ")");
    }
    for (const Rename& rename : renames)
      if (found.count(rename.from) == 0 &&
          (found.count(rename.to) == 0 || found.at(rename.to) == rename.before))
        faults.push_back("lost between two names: " + rename.from + ", " + rename.to);
    for (const auto& [name, content] : found)
      if (may.count(name) == 0 && name.find(" (recovered ") == std::string::npos)
        faults.push_back("unexpected " + name);
    may.clear();
    renames.clear();
    unfinished.reset();
    for (const auto& [name, content] : found) may[name] = {content};
    return faults;
  }

  int operations = 0;

 private:
  /// A rename that nothing has made safe yet.
  struct Rename {
    std::string from, to;
    Value before;
  };
  /// A write that neither fsync nor close has returned for: each byte is old, new, or never came.
  struct Write {
    std::string name, before, after;
  };

  bool IsUnfinished(const std::string& name, const Value& value) const {
    if (!unfinished || unfinished->name != name || !value) return false;
    const auto& [written, before, after] = *unfinished;
    for (size_t i = 0; i < value->size(); ++i) {
      const char byte = (*value)[i];
      const bool old = i < before.size() && byte == before[i];
      const bool fresh =
          i < after.size() && (byte == after[i] || (byte == 0 && i >= before.size()));
      if (!old && !fresh) return false;
    }
    return value->size() >= before.size();
  }

  std::string Content() {
    const size_t kinds[] = {0, random() % 3000, random() % 70'000, random() % 200'000};
    std::string text(kinds[random() % std::size(kinds)], '\0');
    for (char& c : text) c = static_cast<char>('a' + random() % 26);
    return text;
  }

  std::string Pick() {
    std::vector<std::string> names;
    for (const auto& [name, values] : may)
      if (values.back()) names.push_back(name);
    return names.empty() ? "" : names[random() % names.size()];
  }

  /// Whatever was done before is safe, too.
  void Promised() {
    for (auto& [name, values] : may) values = {values.back()};
    renames.clear();
    unfinished.reset();
  }

  bool Put(const std::string& name, const std::string& content, int flags, off_t offset = 0) {
    const int file = open((root / name).c_str(), O_WRONLY | O_CLOEXEC | flags, 0644);
    if (file < 0) return false;
    const auto size = static_cast<ssize_t>(content.size());
    const bool written = pwrite(file, content.data(), content.size(), offset) == size;
    const bool synced = written && random() % 4 == 0 && fsync(file) == 0;
    if ((close(file) != 0 || !written) && !synced) return false;
    Promised();
    return true;
  }

  bool SyncFolder() {
    const int folder = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return false;
    const bool synced = fsync(folder) == 0;
    close(folder);
    if (synced) Promised();
    return synced;
  }

  bool Make(const std::string& name) {
    const std::string content = Content();
    may[name] = {Value(), content};
    unfinished = {name, "", content};
    return Put(name, content, O_CREAT | O_EXCL);
  }

  bool Rewrite(const std::string& name) {
    const std::string content = Content();
    may[name].push_back(content);
    return Put(name, content, O_TRUNC);
  }

  bool Patch(const std::string& name) {
    const std::string before = *may[name].back();
    const std::string piece = Content();
    const size_t offset = random() % (before.size() + 1);
    std::string after = before;
    after.replace(offset, std::min(piece.size(), after.size() - offset), piece);
    unfinished = {name, before, after};
    may[name].push_back(after);
    return Put(name, piece, 0, static_cast<off_t>(offset));
  }

  bool Save(const std::string& name) {
    const std::string temporary = "t" + std::to_string(counter++);
    if (!Make(temporary)) return false;
    const std::string content = *may[temporary].back();
    if (content != may[name].back()) renames.push_back({temporary, name, may[name].back()});
    may[name].push_back(content);
    may[temporary].push_back(Value());
    if (rename((root / temporary).c_str(), (root / name).c_str()) != 0) return false;
    return random() % 2 == 0 || SyncFolder();
  }

  bool Delete(const std::string& name) {
    std::erase_if(renames, [&](const Rename& rename) { return rename.to == name; });
    may[name].push_back(Value());
    return unlink((root / name).c_str()) == 0;
  }

  bool Operate() {
    const std::string name = Pick();
    const unsigned kind = random() % 8;
    if (name.empty() || kind < 3) return Make("n" + std::to_string(counter++));
    if (kind == 3) return Rewrite(name);
    if (kind == 4) return Patch(name);
    if (kind == 5) return Delete(name) && (random() % 2 == 0 || SyncFolder());
    return Save(name);
  }

  const fs::path root;
  std::mt19937 random;
  std::map<std::string, std::vector<Value>> may;  ///< what a name may be, the latest last
  std::vector<Rename> renames;
  std::optional<Write> unfinished;
  int counter = 0;
};

class Power : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const std::string why = WhyNoMount(); !why.empty()) GTEST_SKIP() << why;
    ASSERT_TRUE(disk.Mounted());
    program.emplace(service, disk.Path() / "data");
    ASSERT_TRUE(disk.SyncAll());
    service.SetRoundTrip(std::chrono::milliseconds(2));
    std::printf("seed %u\n", seed);
  }

  /// The power is cut, or at times only the host is killed.
  void EndBadly() {
    program->Kill();
    program->Detach();
    ASSERT_TRUE(random() % 4 == 0 || disk.CutPower());
  }

  /// At random the service is away, so that everything stays on the disk, or answers get lost.
  void DisturbService() {
    emulator::Fault fault;
    const bool away = random() % 2 == 0;
    fault.kind = away ? "reset-before" : "applied-not-answered";
    fault.times = away ? 1'000'000 : 1 + static_cast<int>(random() % 3);
    service.Inject(fault);
  }

  /// A drain that never ends is ended.
  bool Drained() {
    auto drained = std::async(std::launch::async, [&] { return program->Drain(); });
    const bool ended = drained.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    if (!ended) {
      std::string status;
      program->Run({"status"}, &status);
      ADD_FAILURE() << status;
      program->Kill();
    }
    return drained.get() && ended;
  }

  std::map<std::string, std::string> AtService(const std::string& folder) {
    std::map<std::string, std::string> found;
    for (const std::string& child : service.Children(*service.Find(folder))) {
      const std::string name = service.Item(child)["name"].asString();
      EXPECT_EQ(found.count(name), 0U) << "a second " << name;
      found[name] = service.Content(child).value_or("");
    }
    return found;
  }

  const unsigned seed = static_cast<unsigned>(
      FromEnvironment("VORMLANE_SEED", static_cast<int>(std::random_device{}() >> 1)));
  std::mt19937 random{seed};
  ForgetfulDisk disk{seed};  // before the service, which has threads
  emulator::DriveEmulator service;
  std::optional<MountedProgram> program;
};

TEST_F(Power, CutLosesNothingThatWasPromised) {
  const int rounds = FromEnvironment("VORMLANE_POWER_ROUNDS", 10);
  std::vector<Author> authors;
  for (const std::string name : {"one", "two", "three"}) {
    service.MakeFolder(name);
    authors.emplace_back(program->Root() / name, seed + static_cast<unsigned>(authors.size()));
  }
  for (int round = 0; round < rounds; ++round) {
    ASSERT_TRUE(program->Mount()) << "round " << round;
    DisturbService();
    std::vector<std::thread> threads;
    for (Author& author : authors) threads.emplace_back([&] { author.Work(); });
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 400'000));
    EndBadly();
    for (std::thread& thread : threads) thread.join();
    service.ClearFaults();
    for (unsigned again = random() % 3; again > 0; --again) {  // while it comes back
      ASSERT_TRUE(program->Mount()) << "round " << round;
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 50'000));
      EndBadly();
    }
    ASSERT_TRUE(program->Mount()) << "round " << round;
    ASSERT_TRUE(Drained()) << "round " << round;
    size_t at = 0;
    for (const char* name : {"one", "two", "three"})
      for (const std::string& fault : authors[at++].Compare(AtService(name)))
        ADD_FAILURE() << "round " << round << ": " << name << ": " << fault;
    for (const auto& entry : fs::directory_iterator(program->Data()))
      EXPECT_FALSE(entry.path().filename().string().starts_with("damaged")) << entry.path();
    EndBadly();
    ASSERT_FALSE(HasFailure());
  }
  int operations = 0;
  for (const Author& author : authors) operations += author.operations;
  std::printf("%d rounds, %d operations\n", rounds, operations);
}

}  // namespace
}  // namespace host::mount
