// What the library costs over the bare means that it is made of. Every figure is a ratio of medians
// over interleaved repeats in one process, so that it means the same on any machine.
#include <cstring>
#include <string>

#include "bench/library/canned_service.h"
#include "bench/library/figures.h"
#include "bench/library/measuring.h"

int main(int argc, char** argv) {
  using namespace bench;
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
  BenchMemory(server.Url());
  Stay(Place::kAnywhere);
  BenchPush();
  BenchEmulator();
  BenchThreads();
  return AllMet() ? 0 : 1;
}
