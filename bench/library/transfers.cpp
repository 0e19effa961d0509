// How fast bytes go through the library, and how much memory they take.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "bench/library/figures.h"
#include "bench/library/measuring.h"
#include "util/platform.h"

namespace bench {
namespace {

constexpr long long kTransfer = 64 * kMiB;

/// How many times as fast as the bare side the library moves `kTransfer` bytes: the median over
/// rounds that each begin with new connections, as the kernel tunes every connection's buffers anew
/// and keeps to what it found.
template <class Bare, class Library>
double TransferSpeed(RawServer& server, Bare&& bare, Library&& library) {
  constexpr int kRounds = 7;
  std::vector<double> speeds;
  for (int round = 0; round < kRounds; ++round) {
    server.HangUp();
    const Pair pair = Compare(WallSeconds, kRepeats, bare, library);
    speeds.push_back(pair.bare / pair.library);
  }
  return Median(speeds);
}

size_t Fill(char* buffer, size_t size, size_t count, void* left) {
  auto& remaining = *static_cast<long long*>(left);
  const auto part = std::min<long long>(remaining, static_cast<long long>(size * count));
  memset(buffer, 0, static_cast<size_t>(part));
  remaining -= part;
  return static_cast<size_t>(part);
}

/// Peak resident memory of one transfer, in MiB.
double Peak(const char* kind, long long size, const std::string& url) {
  const std::string bytes = std::to_string(size);
  const std::string program = ExecutablePath().value_or("");
  const pid_t child = fork();
  if (child == 0) {
    execl(program.c_str(), "library_bench", "--transfer", kind, bytes.c_str(), url.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  Require(wait4(child, &status, 0, &usage) == child && status == 0, "transfer of its own process");
  return static_cast<double>(usage.ru_maxrss) / 1024;
}

void MeasureMemory(const char* kind, const char* what, const std::string& url) {
  const double small = Peak(kind, kTransfer, url);
  const double large = Peak(kind, 2048 * kMiB, url);
  Report(what, "MiB", large - small, "<=", 8);
}

}  // namespace

void BenchRead(GoogleDrive& drive, RawServer& server) {
  const Easy easy = BareHandle(server.Url() + "/drive/v3/files/big?alt=media");
  curl_easy_setopt(easy.get(), CURLOPT_RANGE, ("0-" + std::to_string(kTransfer - 1)).c_str());
  const auto handle = std::make_shared<_FS_HANDLE>();
  const double speed = TransferSpeed(
      server, [&] { Require(curl_easy_perform(easy.get()) == CURLE_OK, "bare download"); },
      [&] {
        NoFetch fetch;
        Require(drive.Read("big", 0, kTransfer, handle, &fetch, nullptr) == AERROR::SUCCESS &&
                    fetch.bytes == kTransfer,
                "Read");
      });
  Report("Read of 64 MiB: speed against a bare handle", "x", speed, ">=", 0.95);
}

/// The bare side sends the bytes and no more; the library's side also opens the session that they
/// go to and reads the item back.
void BenchUpload(GoogleDrive& drive, RawServer& server) {
  const Easy easy = BareHandle(server.Url() + "/session");
  long long left = 0;
  curl_easy_setopt(easy.get(), CURLOPT_POST, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_CUSTOMREQUEST, "PUT");
  curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(kTransfer));
  curl_easy_setopt(easy.get(), CURLOPT_READFUNCTION, &Fill);
  curl_easy_setopt(easy.get(), CURLOPT_READDATA, &left);
  const double speed = TransferSpeed(
      server,
      [&] {
        left = kTransfer;
        Require(curl_easy_perform(easy.get()) == CURLE_OK, "bare PUT");
      },
      [&] {
        Zeroes cache;
        _FS_FILE_V2 file;
        file.name = "big";
        file.size = kTransfer;
        Require(drive.Upload("root", nullptr, &cache, &file, kUploadDefault, nullptr) ==
                    AERROR::SUCCESS,
                "Upload");
      });
  Report("Upload of 64 MiB: speed against a bare PUT", "x", speed, ">=", 0.95);
}

int Transfer(const char* kind, long long size, const char* url) {
  Profile profile;
  const Drive drive = Connected(&profile, url);
  NoFetch fetch;
  Zeroes cache;
  _FS_FILE_V2 file;
  file.size = size;
  const AERROR code =
      strcmp(kind, "read") == 0
          ? drive->Read("big", 0, size, std::make_shared<_FS_HANDLE>(), &fetch, nullptr)
          : drive->Upload("root", nullptr, &cache, &file, kUploadDefault, nullptr);
  return code == AERROR::SUCCESS ? 0 : 1;
}

void BenchMemory(const std::string& url) {
  MeasureMemory("read", "Read: peak memory of 2 GiB over 64 MiB", url);
  MeasureMemory("upload", "Upload: peak memory of 2 GiB over 64 MiB", url);
}

}  // namespace bench
