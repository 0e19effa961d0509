// The account record: name, address, quota and root folder.
#include "tests/plugin/drive/drive_fixture.h"

namespace {

class AccountTest : public DriveTest {
 protected:
  static constexpr char kMethod[] = "drive.about.get.v2";

  std::string UserInfo() {
    char buffer[256];
    int length = sizeof(buffer);
    EXPECT_EQ(drive->GetUserInfo(buffer, &length), AERROR::SUCCESS);
    return buffer;
  }

  unsigned long long Used() {
    unsigned long long used = 0;
    EXPECT_EQ(drive->GetQuota(nullptr, &used), AERROR::SUCCESS);
    return used;
  }
};

TEST_F(AccountTest, TheQuotaIsTheServicesAndIsAskedForOnceAMinute) {
  service.SetQuota(emulator::kDemoUser, 1'000'000);
  service.Put("a.bin", std::string(1234, 'a'));
  EXPECT_EQ(Used(), 0u) << "fetched when the drive was connected";
  EXPECT_EQ(Requests(), 0);
  clock.Advance(std::chrono::seconds(60));
  unsigned long long total = 0;
  EXPECT_EQ(drive->GetQuota(&total, nullptr), AERROR::SUCCESS);
  EXPECT_EQ(Used(), 1234u);
  EXPECT_EQ(total, 1'000'000u);
  EXPECT_EQ(Requests(kMethod), 1);
}

TEST_F(AccountTest, AFailedFetchKeepsTheValuesAndIsRepeatedAtOnce) {
  const std::string before = UserInfo();
  for (const char* body :
       {"", "{", "[]", "7", R"({"user": 5})", R"({"user": {"displayName": {}}})"}) {
    clock.Advance(std::chrono::seconds(60));
    AnswerNext(kMethod, body);
    EXPECT_EQ(Used(), 0u);
    EXPECT_EQ(UserInfo(), before);
    EXPECT_EQ(service.PendingFaults().size(), 0u);
  }
  service.Put("a.bin", std::string(99, 'a'));
  EXPECT_EQ(Used(), 99u);
}

TEST_F(AccountTest, WhatStandsBeforeAMissingMemberIsTaken) {
  clock.Advance(std::chrono::seconds(60));
  AnswerNext(kMethod, R"({"user": {"displayName": "Somebody Else"}, "quotaBytesTotal": "5"})");
  (void)Used();
  EXPECT_EQ(UserInfo(), std::string("Somebody Else(") + emulator::kDemoUser + ")");
  EXPECT_EQ(Requests(kMethod), 1);
  (void)Used();
  EXPECT_EQ(Requests(kMethod), 2);
  EXPECT_NE(UserInfo().substr(0, 8), "Somebody");
}

}  // namespace
