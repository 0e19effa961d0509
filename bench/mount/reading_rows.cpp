#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <stdexcept>
#include <thread>

#include "bench/mount/row.h"

namespace bench {
namespace fs = std::filesystem;

double Percentile(std::vector<double> values, double share) {
  if (values.empty()) return NAN;
  std::sort(values.begin(), values.end());
  const double last = static_cast<double>(values.size() - 1);
  return values[static_cast<size_t>(std::lround(last * share))];
}

double Median(std::vector<double> values) { return Percentile(std::move(values), 0.5); }

namespace {

/// A file that is open for reading. Throws std::runtime_error.
class Input {
 public:
  explicit Input(const fs::path& file) : descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (descriptor < 0) throw std::runtime_error("cannot open " + file.string());
  }
  ~Input() { close(descriptor); }
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  ssize_t Read(std::vector<char>& buffer, int64_t offset) const {
    const ssize_t count = pread(descriptor, buffer.data(), buffer.size(), offset);
    if (count < 0) throw std::runtime_error("cannot read");
    return count;
  }

 private:
  int descriptor;
};

int64_t ReadWhole(const fs::path& path) {
  const Input file(path);
  std::vector<char> buffer(kMiB);
  int64_t at = 0;
  while (const ssize_t count = file.Read(buffer, at)) at += count;
  return at;
}

void Require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

template <typename Work>
double Seconds(Work&& work) {
  const double start = Now();
  work();
  return Now() - start;
}

std::vector<double> Find(Contender& contender, Service& service) {
  contender.MountCold();
  service.drive.ClearJournal();
  const double took = Seconds([&] { Run({"find", (contender.Root() / "tree").string()}); });
  const double requests = service.drive.Count("drive.files.list");
  contender.Unmount();
  return {took, requests};
}

std::vector<double> LongListing(Contender& contender, Service&) {
  contender.MountCold();
  const auto list = [&] { Run({"ls", "-l", (contender.Root() / "many").string()}); };
  const double cold = Seconds(list);
  const double warm = Seconds(list);
  contender.Unmount();
  return {cold, warm};
}

std::vector<double> Sequential(Contender& contender, Service&) {
  contender.MountCold();
  Run({"ls", contender.Root().string()});
  int64_t bytes = 0;
  const double took = Seconds([&] { bytes = ReadWhole(contender.Root() / "big"); });
  Require(bytes == kBigBytes, "the file was not read whole");
  contender.Unmount();
  return {static_cast<double>(bytes) / took / 1e6};
}

std::vector<double> FirstByte(Contender& contender, Service&) {
  contender.MountCold();
  const fs::path folder = contender.Root() / "small";
  Run({"ls", folder.string()});
  std::vector<double> times;
  std::vector<char> byte(1);
  for (int i = 0; i < kSmallFiles; ++i)
    times.push_back(Seconds([&] { Input(folder / std::to_string(i)).Read(byte, 0); }));
  contender.Unmount();
  return {Median(times) * 1000 / kRoundTripMilliseconds};
}

std::vector<double> Random(Contender& contender, Service& service) {
  constexpr int kReads = 100;
  contender.MountCold();
  Run({"ls", contender.Root().string()});
  service.drive.ClearJournal();
  std::mt19937_64 random(1);
  std::vector<double> times;
  {
    const Input file(contender.Root() / "big");
    std::vector<char> buffer(4096);
    for (int i = 0; i < kReads; ++i) {
      const auto page = static_cast<int64_t>(random() % (kBigBytes / 4096));
      times.push_back(Seconds([&] { file.Read(buffer, page * 4096); }));
    }
  }
  contender.Unmount();
  return {Percentile(times, 0.95) * 1000, static_cast<double>(service.BytesFetched()) / 1e6};
}

std::vector<double> Parallel(Contender& contender, Service&) {
  contender.MountCold();
  const fs::path folder = contender.Root() / "parallel";
  Run({"ls", folder.string()});
  const double took = Seconds([&] {
    std::vector<std::jthread> readers;
    for (int i = 0; i < kParallelFiles; ++i)
      readers.emplace_back([&, i] { ReadWhole(folder / std::to_string(i)); });
  });
  contender.Unmount();
  return {kParallelFiles * static_cast<double>(kParallelBytes) / took / 1e6};
}

}  // namespace

std::vector<Row> ReadingRows() {
  constexpr double kLine = kBytesPerSecond / 1e6;
  return {
      {"find",
       {{"cold find, 9 x 9 x 9 tree", "s", {{Aim::kTimesBetter, 5}}},
        {"  listing requests", "", {}}},
       Find},
      {"ls",
       {{"ls -l of 10,000 files, cold", "s", {{Aim::kTimesBetter, 1}}},
        {"  warm", "s", {{Aim::kAtMost, 0.2}}}},
       LongListing},
      {"sequential",
       {{"cold sequential read, 1 GiB",
         "MB/s",
         {{Aim::kAtLeast, 0.9 * kLine}, {Aim::kTimesBetter, 1}},
         true}},
       Sequential},
      {"first", {{"first byte of a cold file, p50", "trips", {{Aim::kAtMost, 1.1}}}}, FirstByte},
      {"random",
       {{"100 random 4 KiB reads of 1 GiB, p95", "ms", {{Aim::kAtMost, 60}}},
        {"  fetched", "MB", {{Aim::kAtMost, 60}}}},
       Random},
      {"parallel",
       {{"8 cold files at once, in sum", "MB/s", {{Aim::kAtLeast, 0.95 * kLine}}, true}},
       Parallel},
  };
}

}  // namespace bench
