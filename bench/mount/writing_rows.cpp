#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <random>
#include <stdexcept>

#include "bench/mount/row.h"

namespace bench {
namespace fs = std::filesystem;
namespace {

/// Bytes that do not compress.
std::string RandomBytes(int64_t size) {
  std::mt19937_64 random(1);
  std::string bytes(static_cast<size_t>(size), '\0');
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
  return bytes;
}

/// Writes `block` again and again into a new file and closes it.
void WriteFile(const fs::path& path, const std::string& block, int times) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  bool written = file >= 0;
  for (int i = 0; written && i < times; ++i)
    written = write(file, block.data(), block.size()) == static_cast<ssize_t>(block.size());
  if (file < 0 || close(file) != 0 || !written)
    throw std::runtime_error("cannot write " + path.string());
}

/// A name that nothing at the service has.
std::string NewName(const Contender& contender) {
  static int number = 0;
  return "made/" + contender.Name() + std::to_string(++number);
}

std::vector<double> SmallFiles(Contender& contender, Service& service) {
  constexpr int kFiles = 100;
  constexpr int64_t kBytes = 4096;
  contender.MountCold();
  const std::string name = NewName(contender);
  const std::string content = RandomBytes(kBytes);
  fs::create_directory(contender.Root() / name);
  Until("the folder is made", 30, [&] { return service.drive.Find(name).has_value(); });
  const double start = Now();
  for (int i = 0; i < kFiles; ++i)
    WriteFile(contender.Root() / name / std::to_string(i), content, 1);
  const double closed = Now() - start;
  Until("small files arrive", 120, [&] { return service.CountOf(name, kBytes) == kFiles; });
  const double arrived = Now() - start;
  contender.Settle();
  contender.Unmount();
  return {closed, arrived};
}

std::vector<double> LargeFile(Contender& contender, Service& service) {
  constexpr int kMebibytes = 256;
  contender.MountCold();
  const std::string name = NewName(contender);
  const std::string block = RandomBytes(kMiB);
  Run({"ls", (contender.Root() / "made").string()});
  const double start = Now();
  WriteFile(contender.Root() / name, block, kMebibytes);
  const double closed = Now() - start;
  Until("a large file arrives", 120, [&] { return service.SizeOf(name) == kMebibytes * kMiB; });
  const double arrived = Now() - start;
  contender.Settle();
  contender.Unmount();
  service.drive.Remove(*service.drive.Find(name));
  return {closed, arrived};
}

/// A repository of 100 files in ten folders.
class Repository {
 public:
  Repository() {
    const std::string content = RandomBytes(3000);
    for (int i = 0; i < 100; ++i) {
      const fs::path folder = directory.Path() / ("part" + std::to_string(i / 10));
      fs::create_directories(folder);
      std::ofstream(folder / ("file" + std::to_string(i))) << content << i;
    }
    Git({"init", "--quiet", "."});
    Git({"add", "."});
    Git({"-c", "user.name=bench", "-c", "user.email=bench@example.com", "commit", "--quiet", "-m",
         "All files"});
  }
  std::string Path() const { return directory.Path().string(); }

 private:
  void Git(const Words& arguments) {
    Words command = {"git", "-C", Path()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    Run(command);
  }

  host::TemporaryDirectory directory{"vormlane-bench-git-"};
};

/// Seconds until `rm -rf` returns and until the service holds nothing of the tree; NAN, with a word
/// about it, when it fails.
std::pair<double, double> Remove(Contender& contender, Service& service, const std::string& name) {
  const double start = Now();
  try {
    Run({"rm", "-rf", (contender.Root() / name).string()});
  } catch (const std::runtime_error& failure) {
    std::printf("%s: %s", contender.Name().c_str(), failure.what());
    return {NAN, NAN};
  }
  const double removed = Now() - start;
  Until("the tree goes", 200, [&] { return !service.drive.Find(name).has_value(); });
  return {removed, Now() - start};
}

std::vector<double> CloneAndRemove(Contender& contender, Service& service) {
  const Repository repository;
  contender.MountCold();
  const std::string name = NewName(contender);
  const std::string place = (contender.Root() / name).string();
  Run({"ls", (contender.Root() / "made").string()});
  const double start = Now();
  Run({"git", "clone", "--quiet", "--no-hardlinks", repository.Path(), place});
  const double cloned = Now() - start;
  contender.Settle();
  const double settled = Now() - start;
  Run({"git", "-C", place, "status"});
  const auto [removed, gone] = Remove(contender, service, name);
  contender.Settle();
  contender.Unmount();
  return {cloned, settled, removed, gone};
}

}  // namespace

std::vector<Row> WritingRows() {
  return {
      {"small",
       {{"100 small files: all closed", "s", {{Aim::kAtMost, 0.2}}},
        {"  all on the service", "s", {{Aim::kAtMost, 3}}}},
       SmallFiles},
      {"large",
       {{"256 MiB written: closed", "s", {{Aim::kAtMost, 1}}},
        {"  on the service", "s", {{Aim::kAtMost, 4}}}},
       LargeFile},
      {"git",
       {{"git clone of 100 files", "s", {{Aim::kAtMost, 10}}},
        {"  all on the service", "s", {}},
        {"rm -rf of that tree", "s", {{Aim::kAtMost, 15}}},
        {"  gone at the service", "s", {{Aim::kAtMost, 15}}}},
       CloneAndRemove,
       true},
  };
}

}  // namespace bench
