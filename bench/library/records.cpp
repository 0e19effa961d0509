// What the library spends on requests, listings and changes.
#include <json/reader.h>

#include "bench/library/canned_service.h"
#include "bench/library/figures.h"
#include "bench/library/measuring.h"
#include "emulator/drive_emulator.h"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"  // the reader that the library uses

namespace bench {
namespace {

size_t Keep(const char* data, size_t size, size_t count, void* text) {
  static_cast<std::string*>(text)->append(data, size * count);
  return size * count;
}

void ParseAll(const std::vector<std::string>& pages) {
  for (const std::string& page : pages) {
    Json::Value root;
    Require(Json::Reader().parse(page.data(), page.data() + page.size(), root, false), "parsing");
  }
}

}  // namespace

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

}  // namespace bench
