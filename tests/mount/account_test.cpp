// Who is signed in to a profile, and whose drive its tables are about.
#include <gmock/gmock.h>

#include "tests/mount/drive_fixture.h"

namespace host::mount {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class Account : public DriveFixture {
 protected:
  static constexpr char kOther[] = "other@example.com";

  Account() { service.AddUser(kOther, "Other"); }
  void SignIn(const std::string& user) {
    Credential credential;
    credential.accessToken = service.AccessToken(user);
    CredentialStore(paths.Credential(), nullptr).Save(credential);
  }
};

TEST_F(Account, AnotherOneIsShownItsOwnDrive) {
  Start();
  ASSERT_EQ(Write("mine.txt", "mine"), 0);
  Drain();
  EXPECT_EQ(drive->Pin(Find("mine.txt"), true), 0);
  Stop();
  SignIn(kOther);
  Start();
  EXPECT_THAT(Names(), IsEmpty());
  ASSERT_EQ(Write("theirs.txt", "theirs"), 0);
  EXPECT_EQ(Read("theirs.txt"), "theirs");
  Drain();
  Stop();
  SignIn(emulator::kDemoUser);
  Start();
  EXPECT_THAT(Names(), ElementsAre("mine.txt"));
  EXPECT_EQ(Read("mine.txt"), "mine");
  SignIn(kOther);
  EXPECT_TRUE(drive->IsOwnAccount());
  session->Connect();
  EXPECT_FALSE(drive->IsOwnAccount());
}

TEST_F(Account, NobodyElseIsLetInWhileSomethingIsOwed) {
  Settings later = QuickSettings();
  later.uploadDelay = std::chrono::hours(1);
  Start(later);
  ASSERT_EQ(Write("owed.txt", "owed"), 0);
  Stop();
  SignIn(kOther);
  try {
    Start();
    FAIL() << "it was let in";
  } catch (const Failure& failure) {
    EXPECT_THAT(failure.what(), HasSubstr("1 change for demo@example.com"));
  }
  SignIn(emulator::kDemoUser);
  Start();
  Drain();
  EXPECT_EQ(AtService("owed.txt"), "owed");
}

}  // namespace
}  // namespace host::mount
