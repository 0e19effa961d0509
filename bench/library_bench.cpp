// What the library costs over the bare means that it is made of. Every figure is a ratio of medians
// over interleaved repeats in one process, so that it means the same on any machine.
#include <curl/curl.h>
#include <json/reader.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bench/raw_server.h"
#include "emulator/drive_emulator.h"
#include "gdrive/google_drive.h"
#include "util/platform.h"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"  // the reader that the library uses

namespace {

constexpr long long kMiB = 1 << 20;
constexpr long long kTransfer = 64 * kMiB;
constexpr int kRepeats = 15;

// A host that keeps nothing.

struct Profile final : IProtocolManager {
  int GetProfileID(const char*, char* buffer, int*) override {
    strcpy(buffer, "bench");
    return 0;
  }
  int SetValue(const char*, const char* key, const char* value, int) override {
    const std::lock_guard guard(mutex);
    values[key] = value;
    return 0;
  }
  int GetValue(const char*, const char* key, char* buffer, int*) override {
    const std::lock_guard guard(mutex);
    const auto found = values.find(key);
    if (found == values.end()) return 1;
    strcpy(buffer, found->second.c_str());
    return 0;
  }
  std::map<std::string, std::string> values;
  std::mutex mutex;
};

struct NoFetch final : IFetchCallback {
  void OnData(long long, const char*, unsigned long long length, long long*) override {
    bytes += length;
  }
  unsigned long long bytes = 0;
};

struct Counter final : IFileList {
  void Add(_FS_FILE_V2*) override { ++count; }
  int count = 0;
};

struct Zeroes final : ICacheIO {
  int32_t Read(CacheReadRequest* request) override {
    request->read = std::min<uint64_t>(request->wanted, request->fileSize - request->offset);
    memset(request->buffer, 0, request->read);
    return 0;
  }
};

struct Changes final : IFileChanges {
  void Reserved0() override {}
  void Reserved1() override {}
  void Reserved2() override {}
  void Changed(const char*) override {
    const std::lock_guard guard(mutex);
    ++count;
    arrived.notify_all();
  }
  bool WaitFor(int wanted) {
    std::unique_lock guard(mutex);
    return arrived.wait_for(guard, std::chrono::seconds(10), [&] { return count >= wanted; });
  }
  std::mutex mutex;
  std::condition_variable arrived;
  int count = 0;
};

struct End {
  void operator()(GoogleDrive* drive) const { drive->Release(); }
};
using Drive = std::unique_ptr<GoogleDrive, End>;

Drive Connected(Profile* profile, const std::string& url, const std::string& token = "t") {
  profile->values["drive_api_url"] = url;
  Drive drive(new GoogleDrive("gdrive", profile));
  drive->Connect(nullptr, (R"({"results": {"access_token": ")" + token + R"("}})").c_str());
  return drive;
}

// The service.

std::string Item(int number) {
  const std::string n = std::to_string(number);
  return R"({"id": "1aBcDeFgHiJkLmNoPqRsTuVwXyZ)" + n + R"(", "name": "Some document )" + n +
         R"(.pdf", "mimeType": "application/pdf", "createdTime": "2024-01-02T03:04:05.678Z",)"
         R"( "modifiedTime": "2024-05-06T07:08:09.123Z", "size": "123456", "webViewLink":)"
         R"( "https://drive.example/file/d/1aBcDeFgHiJkLmNoPqRsTuVwXyZ/view?usp=drivesdk",)"
         R"( "version": "42", "shared": false, "parents": ["folder"]})";
}

/// 10,000 items in pages of a hundred; the token of a page is its number.
std::vector<std::string> Pages(const std::string& list, const std::string& prefix,
                               const std::string& suffix, const std::string& lastToken) {
  std::vector<std::string> pages;
  for (int page = 0; page < 100; ++page) {
    std::string text =
        page < 99 ? R"({"nextPageToken": ")" + std::to_string(page + 1) + "\", " : "{" + lastToken;
    text += "\"" + list + "\": [";
    for (int i = 0; i < 100; ++i) {
      text += (i > 0 ? ", " : "") + prefix + Item(page * 100 + i) + suffix;
    }
    pages.push_back(text + "]}");
  }
  return pages;
}

const std::vector<std::string> kListing = Pages("files", "", "", "");
const std::vector<std::string> kChanges = Pages("changes", R"({"kind": "drive#change", "file": )",
                                                "}", R"("newStartPageToken": "end", )");

RawServer::Reply Range(const std::string& head) {
  const size_t at = head.find("Range: bytes=") + 13;
  const long long first = std::stoll(head.substr(at));
  const long long last = std::stoll(head.substr(head.find('-', at) + 1));
  return {"HTTP/1.1 206 Partial Content\r\nContent-Length: " + std::to_string(last - first + 1) +
              "\r\n\r\n",
          "", last - first + 1};
}

RawServer::Reply Page(const std::vector<std::string>& pages, const std::string& line) {
  const size_t at = line.find("pageToken=");
  if (at == std::string::npos) return RawServer::Ok(pages.front());
  if (line.compare(at + 10, 3, "end") == 0) {
    return RawServer::Ok(R"({"newStartPageToken": "end", "changes": []})");
  }
  return RawServer::Ok(pages.at(std::stoul(line.substr(at + 10))));
}

RawServer::Reply Answer(const std::string& line, const std::string& head) {
  const auto has = [&line](const char* part) { return line.find(part) != std::string::npos; };
  if (has("alt=media")) return Range(head);
  if (has("/drive/v3/changes?")) return Page(kChanges, line);
  if (has("uploadType=resumable")) {
    const size_t host = head.find("Host: ") + 6;
    const std::string server = head.substr(host, head.find("\r\n", host) - host);
    return RawServer::Ok("", "Location: http://" + server + "/session\r\n");
  }
  if (has("/drive/v3/files?")) return Page(kListing, line);
  if (has("/about")) {
    return RawServer::Ok(R"({"rootFolderId": "root", "quotaBytesTotal": "1",)"
                         R"( "quotaBytesUsedAggregate": "1",)"
                         R"( "user": {"displayName": "n", "emailAddress": "e"}})");
  }
  return RawServer::Ok(Item(1));
}

// Measuring.

double WallSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double Seconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// CPU time of the calling thread, in user and kernel.
double CpuSeconds() { return Seconds(CLOCK_THREAD_CPUTIME_ID); }

/// CPU time of all threads but the calling one.
double OthersCpuSeconds() { return Seconds(CLOCK_PROCESS_CPUTIME_ID) - CpuSeconds(); }

template <class Work>
double Took(double (*clock)(), Work&& work) {
  const double start = clock();
  work();
  return clock() - start;
}

double Median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

struct Pair {
  double bare, library;  ///< medians, seconds
};

template <class Bare, class Library>
Pair Compare(double (*clock)(), int repeats, Bare&& bare, Library&& library) {
  bare();  // connections and buffers are there from the second time on
  library();
  std::vector<double> bareTimes, libraryTimes;
  for (int i = 0; i < repeats; ++i) {
    bareTimes.push_back(Took(clock, bare));
    libraryTimes.push_back(Took(clock, library));
  }
  return {Median(bareTimes), Median(libraryTimes)};
}

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

/// Keeps this thread, and those that it starts from here on, to the first processor or to the
/// others: where the scheduler puts the two ends of a connection decides what a wake-up costs, and
/// must be the same for both sides of a comparison.
enum class Place { kFirst, kOthers, kAnywhere };

void Stay([[maybe_unused]] Place place) {
#ifdef CPU_SET
  const auto count = static_cast<unsigned>(sysconf(_SC_NPROCESSORS_ONLN));
  if (count < 2) return;
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  for (unsigned i = 0; i < count; ++i) {
    if (place == Place::kAnywhere || (place == Place::kFirst) == (i == 0)) CPU_SET(i, &allowed);
  }
  (void)sched_setaffinity(0, sizeof(allowed), &allowed);
#endif
}

bool allMet = true;

void Report(const char* what, const char* unit, double value, const char* relation, double aim) {
  const bool met = relation[0] == '>' ? value >= aim : value <= aim;
  allMet = allMet && met;
  std::printf("%-62s %9.3f %-3s aim %s %.2f  %s\n", what, value, unit, relation, aim,
              met ? "met" : "MISSED");
  std::fflush(stdout);
}

struct EasyFree {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
using Easy = std::unique_ptr<CURL, EasyFree>;

size_t Drop(const char*, size_t size, size_t count, void*) { return size * count; }
size_t Keep(const char* data, size_t size, size_t count, void* text) {
  static_cast<std::string*>(text)->append(data, size * count);
  return size * count;
}
size_t Fill(char* buffer, size_t size, size_t count, void* left) {
  auto& remaining = *static_cast<long long*>(left);
  const auto part = std::min<long long>(remaining, static_cast<long long>(size * count));
  memset(buffer, 0, static_cast<size_t>(part));
  remaining -= part;
  return static_cast<size_t>(part);
}

Easy BareHandle(const std::string& url) {
  Easy easy(curl_easy_init());
  curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, &Drop);
  curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
  return easy;
}

void Require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "library_bench: %s failed, its figure would mean nothing\n", what);
  std::exit(1);
}

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

void BenchSmallRequest(const std::string& url) {
  constexpr int kRequests = 500;
  const std::string address = url + "/drive/v3/files/small";
  const std::string fields = "?supportsTeamDrives=true&fields=id%2Cname";
  const Easy easy = BareHandle(address + fields);
  const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
      curl_slist_append(nullptr, "Authorization: Bearer t"), &curl_slist_free_all);
  curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, &Keep);
  curl_easy_setopt(easy.get(), CURLOPT_ACCEPT_ENCODING, "");
  const RequestBuilder builder(
      [&](std::shared_ptr<GoogleCURL> request) {
        request->SetURL(address.c_str());
        request->AddQuery("supportsTeamDrives", "true");
        request->AddQuery("fields", "id,name");
        request->AddHeader("Authorization", "Bearer t");
        return request->PerformGet(nullptr, nullptr);
      },
      "small");
  const Pair pair = Compare(
      CpuSeconds, kRepeats,
      [&] {
        for (int i = 0; i < kRequests; ++i) {
          std::string text;
          curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &text);
          Require(curl_easy_perform(easy.get()) == CURLE_OK, "bare request");
        }
      },
      [&] {
        for (int i = 0; i < kRequests; ++i) {
          Require(QueryWithBackoff<GoogleDriveExponentialBackoff>(cq, builder, {}, {}, {}) ==
                      AERROR::SUCCESS,
                  "small request");
        }
      });
  Report("Small request through the driver: CPU against a bare handle", "x",
         pair.library / pair.bare, "<=", 1.15);
}

void ParseAll(const std::vector<std::string>& pages) {
  for (const std::string& page : pages) {
    Json::Value root;
    Require(Json::Reader().parse(page.data(), page.data() + page.size(), root, false), "parsing");
  }
}

void BenchListing(GoogleDrive& drive) {
  const Pair pair = Compare(
      CpuSeconds, kRepeats, [] { ParseAll(kListing); },
      [&] {
        Counter counter;
        Require(drive.GetFileList("folder", &counter, nullptr) == AERROR::SUCCESS &&
                    counter.count == 10000,
                "GetFileList");
      });
  Report("Listing of 10,000 children: CPU against parsing alone", "x", pair.library / pair.bare,
         "<=", 2.0);
}

void BenchPoll(Profile& profile, const std::string& url) {
  const Drive drive = Connected(&profile, url);
  const Pair pair = Compare(
      CpuSeconds, kRepeats, [] { ParseAll(kChanges); },
      [&] {
        Changes sink;
        profile.values["lastchangeid"] = "0";
        drive->GetLargestChangeId();
        Require(drive->GetChanges(&sink, nullptr) == AERROR::SUCCESS && sink.count == 1,
                "GetChanges");
      });
  Report("Poll of 10,000 changes: CPU against parsing alone", "x", pair.library / pair.bare,
         "<=", 2.0);
}

/// What the emulator spends on a large listing, against what the library does: it must not be what
/// a measurement of the library measures.
void BenchEmulator() {
  emulator::DriveEmulator service;
  const std::string folder = service.MakeFolder("large");
  service.AddChildren(folder, 20'000, "file");
  Profile profile;
  const Drive drive = Connected(&profile, service.ApiUrl(), service.AccessToken());
  drive->SetOpt("list_page_size", "1000");
  const auto list = [&] {
    Counter counter;
    Require(drive->GetFileList(folder.c_str(), &counter, nullptr) == AERROR::SUCCESS &&
                counter.count == 20'000,
            "GetFileList");
  };
  std::vector<double> ratios;
  for (int i = 0; i < kRepeats; ++i) {
    const double begin = OthersCpuSeconds();
    const double library = Took(CpuSeconds, list);
    ratios.push_back(library / (OthersCpuSeconds() - begin));
  }
  Report("Pages of 1,000 from the emulator: CPU of library over emulator", "x", Median(ratios),
         ">=", 3);
}

/// Milliseconds from a change at the service to the sink's call.
void BenchPush() {
  emulator::DriveEmulator service;
  Profile profile;
  profile.values = {{"user_token", service.PushUserToken()},
                    {"api_server_url", service.PushApiUrl()},
                    {"push_server_url", service.PushUrl()},
                    {"drive_id", "drive"},
                    {"device_id", "device"}};
  Changes sink;
  const Drive drive = Connected(&profile, service.ApiUrl(), service.AccessToken());
  Require(drive->SetChangesCallback(&sink) == AERROR::SUCCESS, "SetChangesCallback");
  std::vector<double> times;
  for (int i = 0; i < 51; ++i) {
    times.push_back(Took(WallSeconds, [&] {
      service.Put("file" + std::to_string(i), "x");
      Require(sink.WaitFor(i + 1), "push");
    }));
  }
  Report("Change to sink over push, median", "ms", Median(times) * 1000, "<=", 50);
}

// Many threads on one session.

constexpr int kThreads = 64;
constexpr auto kBusyTime = std::chrono::minutes(1);

/// What one user does in a folder of their own, and what must be there afterwards.
class User {
 public:
  User(GoogleDrive& shared, int number) : drive(shared), random(static_cast<unsigned>(number)) {
    folder.name = "folder" + std::to_string(number);
    Check(drive.CreateDirectory("", &folder, nullptr) == AERROR::SUCCESS);
  }

  void Work() {
    const auto end = std::chrono::steady_clock::now() + kBusyTime;
    while (std::chrono::steady_clock::now() < end) {
      const unsigned what = random() % 8;
      if (files.size() < 4 || (what < 2 && files.size() < 40)) {
        Upload();
      } else if (what < 4) {
        Read();
      } else if (what == 4) {
        Rename();
      } else if (what == 5) {
        Delete();
      } else if (what == 6) {
        List();
      } else {
        Changes sink;
        Check(drive.GetChanges(&sink, nullptr) == AERROR::SUCCESS);
      }
    }
  }

  /// Items of the folder that should not be there, or should and are not.
  size_t Misplaced(const emulator::DriveEmulator& service) const {
    std::multiset<std::string> found, expected;
    for (const std::string& id : service.Children(folder.id)) {
      found.insert(id + service.Item(id)["name"].asString());
    }
    for (const _FS_FILE_V2& file : files) expected.insert(file.id + file.name);
    std::vector<std::string> different;
    std::set_symmetric_difference(found.begin(), found.end(), expected.begin(), expected.end(),
                                  std::back_inserter(different));
    return different.size();
  }

  long operations = 0, errors = 0;

 private:
  struct Fetched final : IFetchCallback {
    void OnData(long long, const char* data, unsigned long long length, long long*) override {
      bytes.append(data, length);
    }
    std::string bytes;
  };

  void Check(bool right) {
    ++operations;
    if (!right) ++errors;
  }
  size_t Any() { return random() % files.size(); }
  std::string NewName() { return "file" + std::to_string(++names); }

  void Upload() {
    Zeroes cache;
    _FS_FILE_V2 file;
    file.name = NewName();
    file.size = random() % 100'000;
    Check(drive.Upload(folder.id.c_str(), nullptr, &cache, &file, kUploadDefault, nullptr) ==
          AERROR::SUCCESS);
    files.push_back(file);
  }
  void Read() {
    const _FS_FILE_V2& file = files[Any()];
    Fetched fetched;
    const auto handle = std::make_shared<_FS_HANDLE>();
    Check(drive.Read(file.id.c_str(), 0, file.size, handle, &fetched, nullptr) == AERROR::SUCCESS &&
          fetched.bytes == std::string(static_cast<size_t>(file.size), '\0'));
  }
  void Rename() {
    _FS_FILE_V2& file = files[Any()];
    const std::string name = NewName();
    Check(drive.Rename(file.id.c_str(), name.c_str(), &file, nullptr) == AERROR::SUCCESS &&
          file.name == name);
  }
  void Delete() {
    const size_t at = Any();
    Check(drive.Delete(&files[at], nullptr) == AERROR::SUCCESS);
    files.erase(files.begin() + static_cast<std::ptrdiff_t>(at));
  }
  void List() {
    Counter counter;
    Check(drive.GetFileList(folder.id.c_str(), &counter, nullptr) == AERROR::SUCCESS &&
          counter.count == static_cast<int>(files.size()));
  }

  GoogleDrive& drive;
  std::minstd_rand random;
  _FS_FILE_V2 folder;
  std::vector<_FS_FILE_V2> files;
  int names = 0;
};

void BenchThreads() {
  emulator::DriveEmulator service;
  Profile profile;
  const Drive drive = Connected(&profile, service.ApiUrl(), service.AccessToken());
  std::vector<std::unique_ptr<User>> users;
  for (int i = 0; i < kThreads; ++i) users.push_back(std::make_unique<User>(*drive, i));
  std::vector<std::thread> threads;
  for (const auto& user : users) threads.emplace_back([&user] { user->Work(); });
  for (std::thread& thread : threads) thread.join();
  long operations = 0, errors = 0;
  size_t misplaced = 0;
  for (const auto& user : users) {
    operations += user->operations;
    errors += user->errors;
    misplaced += user->Misplaced(service);
  }
  std::printf("64 threads on one session for a minute: %ld operations\n", operations);
  Report("  errors", "", static_cast<double>(errors), "<=", 0);
  Report("  items lost, doubled or changed", "", static_cast<double>(misplaced), "<=", 0);
  Report("  connections", "", service.Connections(), "<=", kThreads);
}

// Memory is measured in processes of their own, told by "--transfer read|upload BYTES URL".

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

void BenchMemory(const char* kind, const char* what, const std::string& url) {
  const double small = Peak(kind, kTransfer, url);
  const double large = Peak(kind, 2048 * kMiB, url);
  Report(what, "MiB", large - small, "<=", 8);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5 && strcmp(argv[1], "--transfer") == 0) {
    return Transfer(argv[2], std::stoll(argv[3]), argv[4]);
  }
  Stay(Place::kOthers);
  RawServer server(Answer);
  Stay(Place::kFirst);
  Profile profile;
  {
    const Drive drive = Connected(&profile, server.Url());
    BenchRead(*drive, server);
    BenchUpload(*drive, server);
    BenchSmallRequest(server.Url());
    BenchListing(*drive);
    BenchPoll(profile, server.Url());
  }
  BenchMemory("read", "Read: peak memory of 2 GiB over 64 MiB", server.Url());
  BenchMemory("upload", "Upload: peak memory of 2 GiB over 64 MiB", server.Url());
  Stay(Place::kAnywhere);
  BenchPush();
  BenchEmulator();
  BenchThreads();
  return allMet ? 0 : 1;
}
