#include <gtest/gtest.h>

#include "host/mount/reader.h"
#include "host/mount/times.h"

namespace host::mount {
namespace {

constexpr int64_t kGiB = int64_t{1} << 30;
constexpr int64_t kRead = 128 * 1024;

TEST(ReadPattern, JumpsFetchOnlyThemselves) {
  ReadPattern pattern;
  for (int64_t at = 1; at < 100; ++at) {
    const ReadPattern::Advice advice = pattern.Next(at * 7919 * 1024 % kGiB, 4096, kGiB);
    EXPECT_EQ(advice.now, 4096);
    EXPECT_EQ(advice.ahead, 0);
  }
}

TEST(ReadPattern, GuessesFromTheFirstReadHowMuchFollows) {
  const auto first = [](int64_t length, int64_t fileSize) {
    const ReadPattern::Advice advice = ReadPattern().Next(0, length, fileSize);
    EXPECT_EQ(advice.ahead, 0);  // nothing competes with what is waited for
    return advice.now;
  };
  EXPECT_EQ(first(16 * 1024, kGiB), 512 * 1024);
  EXPECT_EQ(first(kRead, kGiB), 8 << 20);
  EXPECT_EQ(first(kRead, 5 << 20), 5 << 20);
}

TEST(ReadPattern, StreamsGetFurtherAheadUpToALimit) {
  ReadPattern pattern;
  int64_t fetched = 0;
  int64_t largest = 0;
  for (int64_t at = 0; at < kGiB; at += kRead) {
    const ReadPattern::Advice advice = pattern.Next(at, kRead, kGiB);
    ASSERT_GE(std::max(fetched, at + advice.now + advice.ahead), at + kRead);
    fetched = std::max(fetched, at + advice.now + advice.ahead);
    largest = std::max(largest, fetched - at);
    ASSERT_LE(fetched, kGiB);
  }
  EXPECT_EQ(fetched, kGiB);
  EXPECT_GT(largest, 8 << 20);
  EXPECT_LT(largest, 64 << 20);
}

TEST(ReadPattern, FollowsSeveralStreamsAndReorderedReads) {
  ReadPattern pattern;
  int64_t ahead[3] = {0, 0, 0};
  for (int64_t step = 0; step < 64; ++step)
    for (int64_t stream = 0; stream < 3; ++stream) {
      const int64_t swapped = step ^ 1;  // the kernel's read-ahead comes in any order
      const ReadPattern::Advice advice =
          pattern.Next(stream * (kGiB / 4) + swapped * kRead, kRead, kGiB);
      ahead[stream] += advice.ahead;
    }
  for (const int64_t bytes : ahead) EXPECT_GT(bytes, 8 << 20);
}

TEST(Times, SurviveTheWayToTheServiceAndBack) {
  EXPECT_EQ(FromRfc3339("1970-01-01T00:00:00.000Z"), 0);
  EXPECT_EQ(FromRfc3339("2024-02-29T12:00:00.25+02:00"), 1'709'200'800'250'000'000);
  EXPECT_EQ(FromRfc3339("yesterday"), 0);
  EXPECT_EQ(ToRfc3339(1'709'200'800'250'999'999), "2024-02-29T10:00:00.250Z");
  EXPECT_EQ(ToRfc3339(-1), "1969-12-31T23:59:59.999Z");
  EXPECT_EQ(ToNanoseconds(-2, 999'000'000), -1'001'000'000);
  EXPECT_EQ(ToRfc3339(FromRfc3339("9999-12-31T23:59:59Z")), "2262-04-11T23:47:15.000Z");
  EXPECT_EQ(ToRfc3339(FromRfc3339("0001-01-01T00:00:00Z")), "1677-09-21T00:12:45.000Z");
  EXPECT_EQ(FromRfc3339(ToRfc3339(-86'400'000'000'000)), -86'400'000'000'000);
}

}  // namespace
}  // namespace host::mount
