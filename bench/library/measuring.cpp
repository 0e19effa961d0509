#include "bench/library/measuring.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace bench {
namespace {

bool allMet = true;

double Seconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

size_t Drop(const char*, size_t size, size_t count, void*) { return size * count; }

}  // namespace

double WallSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double CpuSeconds() { return Seconds(CLOCK_THREAD_CPUTIME_ID); }

double OthersCpuSeconds() { return Seconds(CLOCK_PROCESS_CPUTIME_ID) - CpuSeconds(); }

double Median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

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

void Report(const char* what, const char* unit, double value, const char* relation, double aim) {
  const bool met = relation[0] == '>' ? value >= aim : value <= aim;
  allMet = allMet && met;
  std::printf("%-62s %9.3f %-3s aim %s %.2f  %s\n", what, value, unit, relation, aim,
              met ? "met" : "MISSED");
  std::fflush(stdout);
}

bool AllMet() { return allMet; }

void Require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "library_bench: %s failed, its figure would mean nothing\n", what);
  std::exit(1);
}

Easy BareHandle(const std::string& url) {
  Easy easy(curl_easy_init());
  curl_easy_setopt(easy.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, &Drop);
  curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
  return easy;
}

}  // namespace bench
