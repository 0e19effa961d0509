#include "bench/mount/service.h"

namespace bench {
namespace {

emulator::Options OptionsFor(const std::filesystem::path& tlsDirectory) {
  emulator::Options options;
  options.tlsDirectory = tlsDirectory.string();
  if (!tlsDirectory.empty()) options.port = 443;
  return options;
}

}  // namespace

Service::Service(const std::filesystem::path& tlsDirectory) : drive(OptionsFor(tlsDirectory)) {
  const std::string content(4096, 'c');
  for (int i = 0; i < kTreeWidth * kTreeWidth; ++i)
    drive.AddChildren(
        drive.MakeFolder("tree/" + std::to_string(i / kTreeWidth) + "/" + std::to_string(i)),
        kTreeWidth, "file");
  drive.AddChildren(drive.MakeFolder("many"), kManyFiles, "file");
  for (int i = 0; i < kKnownFolders; ++i)
    drive.AddChildren(drive.MakeFolder("known/" + std::to_string(i)), kKnownFiles, "file");
  // Asked for once, so that no program waits for their digests.
  drive.Item(drive.PutSynthetic("big", kBigBytes));
  for (int i = 0; i < kParallelFiles; ++i)
    drive.Item(drive.PutSynthetic("parallel/" + std::to_string(i), kParallelBytes));
  for (int i = 0; i < kSmallFiles; ++i)
    drive.Item(drive.PutSynthetic("small/" + std::to_string(i), kMiB));
  drive.MakeFolder("made");
  drive.MakeFolder("watched");
  drive.SetRoundTrip(std::chrono::milliseconds(kRoundTripMilliseconds));
  drive.SetBandwidth(kBytesPerSecond);
}

int64_t Service::BytesFetched() const {
  int64_t bytes = 0;
  for (const emulator::JournalEntry& entry : drive.Journal())
    if (entry.method == "drive.files.get.media") bytes += entry.responseBytes;
  return bytes;
}

int Service::CountOf(const std::string& folder, int64_t size) const {
  const std::optional<std::string> id = drive.Find(folder);
  int count = 0;
  if (!id) return count;
  for (const std::string& child : drive.Children(*id))
    count += drive.Item(child)["size"].asString() == std::to_string(size);
  return count;
}

int64_t Service::SizeOf(const std::string& path) const {
  const std::optional<std::string> id = drive.Find(path);
  if (!id) return -1;
  return std::strtoll(drive.Item(*id)["size"].asCString(), nullptr, 10);
}

}  // namespace bench
