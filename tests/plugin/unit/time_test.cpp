#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include "util/time_convert.h"

namespace {

/// The process's time zone for a scope, as a POSIX rule that needs no zone files.
class Zone {
 public:
  explicit Zone(const char* rule) {
    if (const char* old = getenv("TZ")) before = old;
    setenv("TZ", rule, 1);
    tzset();
  }
  ~Zone() {
    before ? setenv("TZ", before->c_str(), 1) : unsetenv("TZ");
    tzset();
  }
  Zone(const Zone&) = delete;
  Zone& operator=(const Zone&) = delete;

 private:
  std::optional<std::string> before;
};

constexpr time_t kWinter = 1577934245;  // 2020-01-02T03:04:05Z
constexpr time_t kSummer = 1593604800;  // 2020-07-01T12:00:00Z
constexpr char kWinterText[] = "2020-01-02T03:04:05.000Z";
constexpr char kSummerText[] = "2020-07-01T12:00:00.000Z";

struct ZoneCase {
  const char* rule;
  time_t offset;               // standard time, seconds east
  const char* winterAdjusted;  // AdjustServerTimeOffset of the texts
  const char* summerAdjusted;
  const char* winterForServer;  // AdjustOffsetForServerTime of the instants
  const char* summerForServer;
};

const ZoneCase kZones[] = {
    {"UTC0", 0, kWinterText, kSummerText, kWinterText, kSummerText},
    {"XYZ-1", 3600, "2020-01-02T01:04:05.000Z", "2020-07-01T10:00:00.000Z",
     "2020-01-02T04:04:05.000Z", "2020-07-01T13:00:00.000Z"},
    {"CET-1CEST,M3.5.0,M10.5.0/3", 3600, "2020-01-02T01:04:05.000Z", "2020-07-01T10:00:00.000Z",
     "2020-01-02T04:04:05.000Z", "2020-07-01T13:00:00.000Z"},
    {"EST5EDT,M3.2.0,M11.1.0", -18000, "2020-01-02T13:04:05.000Z", "2020-07-01T22:00:00.000Z",
     "2020-01-01T22:04:05.000Z", "2020-07-01T07:00:00.000Z"},
    {"IST-5:30", 19800, "2020-01-01T16:04:05.000Z", "2020-07-01T01:00:00.000Z",
     "2020-01-02T08:34:05.000Z", "2020-07-01T17:30:00.000Z"}};

class TimeConversion : public testing::TestWithParam<ZoneCase> {};
INSTANTIATE_TEST_SUITE_P(Zones, TimeConversion, testing::ValuesIn(kZones));

TEST_P(TimeConversion, FollowsTheZone) {
  const ZoneCase& expected = GetParam();
  const Zone zone(expected.rule);
  EXPECT_EQ(TimeToRFC3339(kSummer), kSummerText);
  EXPECT_EQ(TimeToUTCRFC3339(kWinter), kWinterText);
  EXPECT_EQ(NoAdjustOffsetForServerTime(kWinter), kWinterText);
  EXPECT_EQ(RFC3339ToTM(kWinterText), kWinter - expected.offset);
  EXPECT_EQ(RFC3339ToTM("2020-07-01T12:00:00.456+02:00"), kSummer - expected.offset);
  EXPECT_EQ(RFC3339ToLocalTM(kWinterText), kWinter);
  EXPECT_EQ(RFC3339ToLocalTM(kSummerText), kSummer);
  EXPECT_EQ(AdjustServerTimeOffset("2020-01-02T03:04:05Z"), expected.winterAdjusted);
  EXPECT_EQ(AdjustServerTimeOffset(kSummerText), expected.summerAdjusted);
  EXPECT_EQ(AdjustOffsetForServerTime(kWinter), expected.winterForServer);
  EXPECT_EQ(AdjustOffsetForServerTime(kSummer), expected.summerForServer);
}

TEST(TimeText, FieldsAreWrittenAsTheyAreOrNormalised) {
  const Zone zone("XYZ-1");
  tm fields{};
  fields.tm_year = 120;
  fields.tm_mday = 2;
  fields.tm_hour = 4;
  fields.tm_min = 3;
  fields.tm_sec = 65;
  EXPECT_EQ(TMToRFC3339(&fields), "2020-01-02T04:03:65.000Z");
  EXPECT_EQ(TMToUTCRFC3339(&fields), kWinterText);
  EXPECT_EQ(fields.tm_min, 4);
  EXPECT_EQ(fields.tm_sec, 5);
  EXPECT_EQ(NoAdjustServerTimeOffset("any text"), "any text");
}

TEST(TimeText, NowHasMillisecondsAndNoZone) {
  const Zone zone("IST-5:30");
  // time() reads a coarser clock, which may still be in the second before.
  using Clock = std::chrono::system_clock;
  const time_t before = Clock::to_time_t(Clock::now());
  const std::string text = GetSystemTimeRfc3339();
  const time_t after = Clock::to_time_t(Clock::now());
  ASSERT_EQ(text.size(), 23u) << text;
  EXPECT_EQ(text[19], '.');
  EXPECT_GE(RFC3339ToLocalTM(text), before);
  EXPECT_LE(RFC3339ToLocalTM(text), after);
}

TEST(TimeText, HostileTextsAndInstantsOverflowNothing) {
  const Zone zone("EST5EDT,M3.2.0,M11.1.0");
  for (const char* text : {"", "soon", "2020", "-999999999-999999999-999999999T9:9:9",
                           "99999999999999999999-01-01T00:00:00Z",
                           "999999999-999999999-999999999T999999999:999999999:999999999"}) {
    EXPECT_FALSE(AdjustServerTimeOffset(text).empty());
    (void)RFC3339ToLocalTM(text);
  }
  for (const time_t instant : {INT64_MAX / 2, INT64_MIN / 2}) {
    EXPECT_FALSE(TimeToRFC3339(instant).empty());
    EXPECT_FALSE(AdjustOffsetForServerTime(instant).empty());
  }
}

}  // namespace
