// Reading byte ranges of a file.
#include <climits>

#include "net/cache_callbacks.h"
#include "tests/plugin/drive/drive_fixture.h"

namespace {

class ReadTest : public DriveTest {
 protected:
  static constexpr char kMedia[] = "drive.files.get.media";
  static constexpr long long kBlock = kStagingSize;

  ReadTest() : content(Bytes(3 * kBlock + 4567)), id(service.Put("data.bin", content)) {}

  /// Reads a range and says whether it is the file's.
  bool IsRight(long long offset, long long length, Fetched* fetched) {
    EXPECT_EQ(Read(id, offset, length, fetched), AERROR::SUCCESS);
    return fetched->bytes == content.substr(offset, length);
  }
  bool IsRight(long long offset, long long length) {
    Fetched fetched;
    return IsRight(offset, length, &fetched);
  }

  const std::string content;
  const std::string id;
};

struct Range {
  long long offset, length;
  std::vector<unsigned long long> blocks;
};

TEST_F(ReadTest, RangesArriveInBlocks) {
  const Range ranges[] = {
      {0, 1, {1}},
      {0, kBlock - 1, {kBlock - 1}},
      {0, kBlock, {kBlock}},
      {0, kBlock + 1, {kBlock, 1}},
      {12345, kBlock + 1, {kBlock, 1}},
      {kBlock - 1, 2 * kBlock + 3, {kBlock, kBlock, 3}},
      {777, 1, {1}},
      {3 * kBlock, 4567, {4567}},
      {3 * kBlock, 99999, {4567}},  // ends where the file does
      {3 * kBlock + 4566, LLONG_MAX, {1}},
  };
  for (const auto& [offset, length, blocks] : ranges) {
    Fetched fetched;
    EXPECT_TRUE(IsRight(offset, length, &fetched)) << offset << "+" << length;
    std::vector<unsigned long long> lengths;
    for (const auto& block : fetched.blocks) lengths.push_back(block.second);
    EXPECT_EQ(lengths, blocks) << offset << "+" << length;
    EXPECT_EQ(fetched.blocks.front().first, offset);
    EXPECT_FALSE(fetched.inMemory);
  }
  EXPECT_EQ(service.Connections(), 1);
}

TEST_F(ReadTest, TheRangeIsAskedForInclusively) {
  EXPECT_TRUE(IsRight(10, 1048576));
  EXPECT_EQ(LastRequest(kMedia).headers.at("range"), "bytes=10-1048585");
  EXPECT_EQ(LastRequest(kMedia).responseBytes, 1048576);
}

TEST_F(ReadTest, WhatCannotBeReadIsNotAskedFor) {
  Fetched fetched;
  EXPECT_EQ(Read(id, 5, 0, &fetched), AERROR::SUCCESS);
  EXPECT_EQ(Read(id, -1, 5, &fetched), AERROR::FILE_READ_FAILED);
  EXPECT_EQ(Read(id, 0, -1, &fetched), AERROR::FILE_READ_FAILED);
  EXPECT_EQ(Requests(), 0);
  EXPECT_TRUE(fetched.blocks.empty());
}

TEST_F(ReadTest, AnOpenHandlesContentIsServedFromMemory) {
  const auto handle = std::make_shared<_FS_HANDLE>();
  handle->content = "0123456789";
  const std::pair<Range, std::string> cases[] = {
      {{0, 10, {}}, "0123456789"},
      {{3, 4, {}}, "3456"},
      {{8, 100, {}}, "89"},
      {{10, 5, {}}, ""},
      {{LLONG_MAX, LLONG_MAX, {}}, ""},
  };
  handle->status = 3;  // not consulted
  for (const auto& [range, bytes] : cases) {
    Fetched fetched;
    EXPECT_EQ(Read(id, range.offset, range.length, &fetched, handle), AERROR::SUCCESS);
    EXPECT_EQ(fetched.bytes, bytes);
    EXPECT_EQ(fetched.blocks.size(), 1u);
    EXPECT_TRUE(fetched.inMemory);
  }
  EXPECT_EQ(Requests(), 0);
}

TEST_F(ReadTest, AnErrorTextIsNeverTakenForContent) {
  for (const int status : {400, 403, 404, 416, 429, 500, 503}) {
    emulator::Fault fault;
    fault.method = kMedia;
    fault.status = status;
    fault.body = std::string(2 * kBlock, 'E');
    fault.times = 6;
    service.Inject(fault);
    Fetched fetched;
    EXPECT_EQ(Read(id, 0, kBlock, &fetched), AERROR::FILE_READ_FAILED) << status;
    EXPECT_TRUE(fetched.blocks.empty()) << status;
    service.ClearFaults();
    EXPECT_TRUE(IsRight(0, kBlock)) << status;
  }
}

TEST_F(ReadTest, ARetriedReadIsTheFilesContent) {
  service.FailNext(kMedia, 500, 2);
  EXPECT_TRUE(IsRight(1, kBlock + 1));
  EXPECT_EQ(clock.SleptSeconds(), (std::vector<long long>{1, 2}));
}

TEST_F(ReadTest, AnExpiredTokenIsRenewedInBetween) {
  service.ExpireTokens();
  EXPECT_TRUE(IsRight(1, kBlock + 1));
  EXPECT_EQ(authoriser.renewals, 1);
}

TEST_F(ReadTest, PastTheEndThereIsNothing) {
  Fetched fetched;
  EXPECT_EQ(Read(id, static_cast<long long>(content.size()), 10, &fetched),
            AERROR::FILE_READ_FAILED);
  EXPECT_TRUE(fetched.blocks.empty());
}

TEST_F(ReadTest, AnAbandonedReadStops) {
  const std::string big = service.PutSynthetic("big.bin", 1 << 30);
  const auto handle = std::make_shared<_FS_HANDLE>();
  Fetched fetched;
  fetched.onBlock = [&] { handle->status = 3; };
  EXPECT_EQ(Read(big, 0, 1 << 30, &fetched, handle), AERROR::READ_CANCELED);
  EXPECT_EQ(fetched.blocks.size(), 1u);
  EXPECT_EQ(Read(id, 0, 10, &fetched, handle), AERROR::READ_CANCELED);
  EXPECT_EQ(fetched.blocks.size(), 1u);
  EXPECT_TRUE(IsRight(0, 10));
}

TEST_F(ReadTest, AHostThatThrowsEndsTheReadAlone) {
  for (const long long length : {2 * kBlock, kBlock / 2}) {
    Fetched fetched;
    fetched.onBlock = [] { throw std::runtime_error("disk full"); };
    EXPECT_EQ(Read(id, 0, length, &fetched), AERROR::FILE_READ_FAILED);
    EXPECT_EQ(fetched.blocks.size(), 1u);
    EXPECT_TRUE(IsRight(0, length));
  }
}

TEST_F(ReadTest, AnAnswerThatBreaksOffFails) {
  for (const char* kind : {"reset-before", "reset-body", "truncate", "content-length"}) {
    for (const long long at : {1LL, kBlock - 1, kBlock + 0, kBlock + 1}) {
      Fault(kMedia, kind, at);
      if (std::string(kind) == "reset-before") Fault(kMedia, kind);  // libcurl tries a fresh one
      Fetched fetched;
      EXPECT_EQ(Read(id, 0, 2 * kBlock, &fetched), AERROR::FILE_READ_FAILED) << kind << at;
      EXPECT_EQ(fetched.bytes, content.substr(0, fetched.bytes.size())) << kind << at;
      service.ClearFaults();
      EXPECT_TRUE(IsRight(0, 2 * kBlock)) << kind << at;
    }
  }
}

TEST_F(ReadTest, ADownloadFollowsARedirection) {
  emulator::Fault fault;
  fault.method = kMedia;
  fault.kind = "redirect";
  fault.status = 302;
  fault.location = service.ApiUrl() + "/drive/v3/files/" + id + "?alt=media";
  service.Inject(fault);
  EXPECT_TRUE(IsRight(3, kBlock));
}

TEST_F(ReadTest, ProgressIsReportedToTheHandle) {
  const auto handle = std::make_shared<_FS_HANDLE>();
  long long last = 0;
  handle->progressUser = &last;
  handle->progress = [](long long, long long now, void* user, double) {
    *static_cast<long long*>(user) = now;
  };
  Fetched fetched;
  EXPECT_EQ(Read(id, 0, kBlock, &fetched, handle), AERROR::SUCCESS);
  EXPECT_EQ(last, kBlock);
}

}  // namespace
