// Kills the program at random moments under load, again and again, with a service that loses
// answers, and compares what programs were promised with what the mount shows after each restart
// and with what the service has in the end.
//
// VORMLANE_CRASH_ROUNDS and VORMLANE_SEED choose how long and which.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "tests/mount/mounted_program.h"

namespace host::mount {
namespace {

namespace fs = std::filesystem;

/// What a name in the reference tree stands for: a file's content, or a folder.
constexpr char kFolder[] = "\x01folder";
constexpr char kNothing[] = "\x01nothing";

int FromEnvironment(const char* name, int otherwise) {
  const char* text = std::getenv(name);
  return text == nullptr ? otherwise : std::atoi(text);
}

std::string Slurp(const fs::path& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0)
    return std::string(
               "\x01"
               "cannot open: ") +
           std::strerror(errno);
  std::string text;
  std::array<char, 65536> buffer;
  ssize_t count = 0;
  while ((count = read(file, buffer.data(), buffer.size())) > 0)
    text.append(buffer.data(), static_cast<size_t>(count));
  const int error = errno;
  close(file);
  return count < 0 ? std::string(
                         "\x01"
                         "cannot read: ") +
                         std::strerror(error)
                   : text;
}

/// One program that works in a folder of its own and remembers what it was promised.
class Writer {
 public:
  Writer(fs::path place, unsigned seed) : root(std::move(place)), random(seed) {}

  /// Works until an operation fails.
  void Work() {
    while (Operate()) ++operations;
  }

  /// What the tree must be: for each name the values it may have (two where the crash decided).
  const std::map<std::string, std::set<std::string>>& Promised() const { return promised; }

  /// Takes up what the mount shows after the crash; complains about what was promised otherwise.
  void Compare(const std::map<std::string, std::string>& shown, std::vector<std::string>& faults) {
    for (const auto& [name, allowed] : promised) {
      const auto at = shown.find(name);
      const std::string value = at == shown.end() ? kNothing : at->second;
      if (allowed.count(value) == 0 && !IsInterruptedWrite(name, value))
        faults.push_back((value == kNothing ? "missing " : "wrong ") + (root / name).string() +
                         " (" + std::to_string(value.size()) + " bytes, " + value.substr(0, 40) +
                         ")");
    }
    for (const auto& [name, value] : shown)
      if (promised.count(name) == 0 && name.find(" (recovered ") == std::string::npos)
        faults.push_back("unexpected " + (root / name).string());
    promised.clear();
    for (const auto& [name, value] : shown) promised[name] = {value};
    writing.name.clear();
  }

  int operations = 0;

 private:
  std::string Content() {
    std::string text(random() % 3 == 0 ? random() % 100'000 : random() % 300, '\0');
    for (char& c : text) c = static_cast<char>('a' + random() % 26);
    return text;
  }

  std::string Pick(bool folder) {
    std::vector<std::string> names;
    for (const auto& [name, values] : promised)
      if ((*values.begin() == kFolder) == folder) names.push_back(name);
    return names.empty() ? "" : names[random() % names.size()];
  }

  std::string NewName() {
    const std::string parent = random() % 2 == 0 ? "" : Pick(true);
    return (parent.empty() ? "" : parent + "/") + "n" + std::to_string(counter++);
  }

  /// The value of a name changes from what it is to `value`: until `done` either is allowed.
  template <typename Function>
  bool Change(const std::string& name, const std::string& value, Function&& act,
              std::set<std::string> between = {}) {
    const auto before = promised.find(name);
    std::set<std::string> allowed =
        before == promised.end() ? std::set<std::string>{kNothing} : before->second;
    allowed.insert(value);
    allowed.insert(between.begin(), between.end());
    promised[name] = allowed;
    if (!act()) return false;
    promised[name] = {value};
    if (value == kNothing) promised.erase(name);
    return true;
  }

  /// A write that neither fsync nor close has returned for.
  struct Write {
    std::string name;  ///< empty when there is none
    std::string base;  ///< the content that it began on
    std::string piece;
    size_t offset = 0;
  };

  /// Nothing is promised of such a write. The kernel hands a long one over in runs of whole pages,
  /// so the crash may have let any number of them through.
  bool IsInterruptedWrite(const std::string& name, const std::string& value) const {
    constexpr size_t kPage = 4096;
    if (name != writing.name) return false;
    if (value == writing.base) return true;
    for (size_t end = (writing.offset / kPage + 1) * kPage;
         end < writing.offset + writing.piece.size(); end += kPage) {
      std::string content = writing.base;
      if (content.size() < end) content.resize(end);
      content.replace(writing.offset, end - writing.offset, writing.piece, 0, end - writing.offset);
      if (value == content) return true;
    }
    return false;
  }

  bool Put(const std::string& name, const std::string& content, int flags, off_t offset,
           const std::string& base = "") {
    writing = {name, base, content, static_cast<size_t>(offset)};
    const int file = open((root / name).c_str(), flags | O_CLOEXEC, 0644);
    if (file < 0) return false;
    const bool written = pwrite(file, content.data(), content.size(), offset) ==
                         static_cast<ssize_t>(content.size());
    const bool synced = random() % 4 != 0 || fsync(file) == 0;
    const bool kept = close(file) == 0 && written && synced;
    if (kept) writing.name.clear();
    return kept;
  }

  bool Make() {
    const std::string name = NewName();
    const std::string content = Content();
    return Change(name, content, [&] { return Put(name, content, O_CREAT | O_WRONLY | O_EXCL, 0); },
                  {""});
  }

  bool Rewrite() {
    const std::string name = Pick(false);
    if (name.empty()) return Make();
    const std::string content = Content();
    return Change(name, content, [&] { return Put(name, content, O_WRONLY | O_TRUNC, 0); });
  }

  bool Patch() {
    const std::string name = Pick(false);
    if (name.empty()) return Make();
    const std::string base = *promised[name].begin();
    std::string content = base;
    const std::string piece = Content();
    const size_t offset = content.empty() ? 0 : random() % content.size();
    content.resize(std::max(content.size(), offset + piece.size()));
    content.replace(offset, piece.size(), piece);
    return Change(name, content,
                  [&] { return Put(name, piece, O_WRONLY, static_cast<off_t>(offset), base); });
  }

  /// Saves as editors do.
  bool Save() {
    const std::string name = Pick(false);
    if (name.empty()) return Make();
    const std::string temporary = name + "~" + std::to_string(counter++);
    const std::string content = Content();
    if (!Change(temporary, content,
                [&] { return Put(temporary, content, O_CREAT | O_WRONLY | O_EXCL, 0); }, {""}))
      return false;
    return Move(temporary, name);
  }

  bool Move(const std::string& from, const std::string& to) {
    const std::string value = *promised[from].begin();
    const std::set<std::string> old =
        promised.count(to) != 0 ? promised[to] : std::set<std::string>{kNothing};
    return Change(from, kNothing, [&] {
      return Change(to, value,
                    [&] { return rename((root / from).c_str(), (root / to).c_str()) == 0; });
    });
  }

  bool Rename() {
    const std::string name = Pick(false);
    return name.empty() ? Make() : Move(name, NewName());
  }

  bool Delete() {
    const std::string name = Pick(false);
    if (name.empty()) return Make();
    return Change(name, kNothing, [&] { return unlink((root / name).c_str()) == 0; });
  }

  bool MakeFolder() {
    const std::string name = NewName();
    return Change(name, kFolder, [&] { return mkdir((root / name).c_str(), 0755) == 0; });
  }

  bool DeleteFolder() {
    const std::string name = Pick(true);
    const auto next = promised.upper_bound(name + "/");
    if (name.empty() || (next != promised.end() && next->first.starts_with(name + "/")))
      return Make();
    return Change(name, kNothing, [&] { return rmdir((root / name).c_str()) == 0; });
  }

  bool Operate() {
    switch (random() % 12) {
      case 0:
      case 1:
      case 2:
        return Make();
      case 3:
      case 4:
        return Rewrite();
      case 5:
        return Patch();
      case 6:
      case 7:
        return Save();
      case 8:
        return Rename();
      case 9:
        return Delete();
      case 10:
        return MakeFolder();
      default:
        return DeleteFolder();
    }
  }

  const fs::path root;
  std::mt19937 random;
  std::map<std::string, std::set<std::string>> promised;
  Write writing;
  int counter = 0;
};

std::map<std::string, std::string> Shown(const fs::path& root) {
  std::map<std::string, std::string> shown;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
    const std::string name = entry.path().lexically_relative(root).string();
    shown[name] = entry.is_directory() ? kFolder : Slurp(entry.path());
  }
  return shown;
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

  /// The service's tree below a folder, twins counted as faults.
  void CompareService(const std::string& id, const std::string& prefix,
                      const std::map<std::string, std::string>& shown, std::set<std::string>& seen,
                      std::vector<std::string>& faults) {
    for (const std::string& child : service.Children(id)) {
      const Json::Value item = service.Item(child);
      const std::string name = prefix + item["name"].asString();
      if (!seen.insert(name).second) faults.push_back("duplicate at the service: " + name);
      const auto at = shown.find(name);
      const bool folder = item["mimeType"].asString() == "application/vnd.google-apps.folder";
      const std::string value = folder ? kFolder : service.Content(child).value_or("");
      if (at == shown.end())
        faults.push_back("unexpected at the service: " + name);
      else if (at->second != value)
        faults.push_back("wrong at the service: " + name);
      if (folder) CompareService(child, name + "/", shown, seen, faults);
    }
  }

  std::vector<std::string> CompareWithService(const fs::path& place) {
    std::vector<std::string> faults;
    std::set<std::string> seen;
    const std::map<std::string, std::string> shown = Shown(place);
    const std::string folder = place.filename().string();
    CompareService(service.Find(folder).value_or(""), "", shown, seen, faults);
    for (const auto& [name, value] : shown)
      if (seen.count(name) == 0) faults.push_back("missing at the service: " + name);
    return faults;
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
        for (const std::string& fault : CompareWithService(place)) faults.push_back(fault);
    }
    for (const std::string& fault : faults) ADD_FAILURE() << "round " << round << ": " << fault;
    if (!faults.empty()) program.Keep("/tmp/vormlane-crash");
    ASSERT_TRUE(faults.empty());
    InjectFaults();
    std::vector<std::thread> threads;
    for (Writer& writer : writers) threads.emplace_back([&] { writer.Work(); });
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
