// The service refuses for long: nothing is lost meanwhile, and status can say why.
#include <gmock/gmock.h>

#include "tests/mount/drive_fixture.h"

namespace host::mount {
namespace {

class Trouble : public DriveFixture {
 protected:
  void SetUp() override { Start(); }
};

TEST_F(Trouble, AFullDriveGetsTheFileOnceThereIsRoom) {
  service.SetQuota(emulator::kDemoUser, service.QuotaUsed() + 1000);
  ASSERT_EQ(Write("large.bin", std::string(50'000, 'l')), 0);
  EXPECT_THAT(Refusal("large.bin"), ::testing::HasSubstr("not uploaded"));
  EXPECT_EQ(Read("large.bin"), std::string(50'000, 'l'));
  EXPECT_EQ(AtService("large.bin"), "(none)");
  service.SetQuota(emulator::kDemoUser, service.QuotaUsed() + 1'000'000);
  Drain();
  EXPECT_EQ(AtService("large.bin"), std::string(50'000, 'l'));
}

TEST_F(Trouble, AWithdrawnTokenWaitsForTheNextSignIn) {
  ASSERT_EQ(Write("kept.txt", "before"), 0);
  Drain();
  service.RevokeTokens();
  ASSERT_EQ(Write("kept.txt", "after"), 0);
  ASSERT_EQ(Write("new.txt", "new"), 0);
  EXPECT_NE(Refusal("kept.txt"), "(it was sent)");
  EXPECT_NE(Refusal("new.txt"), "(it was sent)");
  Stop();
  Credential credential;
  credential.accessToken = service.AccessToken();
  CredentialStore(paths.Credential(), nullptr).Save(credential);
  Start();
  Drain();
  EXPECT_EQ(AtService("kept.txt"), "after");
  EXPECT_EQ(AtService("new.txt"), "new");
  EXPECT_THAT(NamesAtService(), ::testing::UnorderedElementsAre("kept.txt", "new.txt"));
}

}  // namespace
}  // namespace host::mount
