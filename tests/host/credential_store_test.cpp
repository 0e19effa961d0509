#include "host/core/credential_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <thread>

#include "host/core/failure.h"
#include "host/core/paths.h"

namespace host {
namespace {

using testing::HasSubstr;

class CredentialStoreTest : public testing::Test {
 protected:
  CredentialStore Store() {
    return CredentialStore(file, [this](const Credential& old) {
      ++renewals;
      if (!refusal.empty()) throw Failure(refusal, {}, refusalCode);
      Credential renewed = old;
      renewed.accessToken = "token" + std::to_string(renewals);
      renewed.expiresAt = std::time(nullptr) + 3600;
      return renewed;
    });
  }
  static Credential Token(const std::string& access, int64_t expiresIn = 3600) {
    return {access, "refresh", std::time(nullptr) + expiresIn, "client", "secret"};
  }
  /// The access token that a renewal gives to the module; empty when refused.
  static std::string Renewed(CredentialStore& store) {
    const char* text = store.Renew(nullptr, "{}");
    const std::string token = text == nullptr ? "" : Credential::FromText(text).accessToken;
    store.Free(text);
    return token;
  }

  TemporaryDirectory directory{"vormlane-test-"};
  std::filesystem::path file = directory.Path() / "new" / "credential.json";
  std::atomic<int> renewals{0};
  std::string refusal;
  AERROR refusalCode = AERROR::AUTH_FAILED;
};

TEST_F(CredentialStoreTest, KeepsEverythingInAFileForTheOwnerOnly) {
  const Credential saved = Token("first");
  const mode_t before = umask(0);
  Store().Save(saved);
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  const auto loaded = Store().Load();
  ASSERT_TRUE(loaded);
  EXPECT_EQ(loaded->ToText(), saved.ToText());
}

TEST_F(CredentialStoreTest, NothingIsThereBeforeAndAfter) {
  CredentialStore store = Store();
  EXPECT_FALSE(store.Load());
  store.Save(Token("first"));
  store.Remove();
  store.Remove();
  EXPECT_FALSE(store.Load());
  EXPECT_THROW(store.Current(), Failure);
}

TEST_F(CredentialStoreTest, RefusesAFileThatOthersCanRead) {
  CredentialStore store = Store();
  store.Save(Token("first"));
  chmod(file.c_str(), 0640);
  EXPECT_THROW(store.Load(), Failure);
}

TEST_F(CredentialStoreTest, RefusesADamagedFile) {
  CredentialStore store = Store();
  store.Save(Token("first"));
  for (const char* text :
       {"", "{", "[]", "{\"results\":7}", "{\"results\":{\"access_token\":3}}"}) {
    std::ofstream(file) << text;
    EXPECT_THROW(store.Load(), Failure) << text;
  }
}

TEST_F(CredentialStoreTest, ATokenAboutToExpireIsRenewedBeforeUse) {
  CredentialStore store = Store();
  store.Save(Token("old", 30));
  EXPECT_EQ(store.Current().accessToken, "token1");
  EXPECT_EQ(store.Load()->accessToken, "token1");
  EXPECT_EQ(store.Load()->refreshToken, "refresh");
  EXPECT_EQ(store.Current().accessToken, "token1");
}

TEST_F(CredentialStoreTest, WithoutANetworkTheOldTokenIsUsed) {
  CredentialStore store = Store();
  store.Save(Token("old", -10));
  refusal = "cannot reach the service";
  refusalCode = AERROR::SOCK_NETWORK_ERROR;
  EXPECT_EQ(store.Current().accessToken, "old");
  refusalCode = AERROR::AUTH_FAILED;
  EXPECT_THROW(store.Current(), Failure);
}

TEST_F(CredentialStoreTest, RenewGivesTheModuleANewTokenAndKeepsIt) {
  CredentialStore store = Store();
  store.Save(Token("old"));
  store.Current();
  EXPECT_EQ(Renewed(store), "token1");
  EXPECT_EQ(Renewed(store), "token2");
  EXPECT_EQ(store.Load()->accessToken, "token2");
}

TEST_F(CredentialStoreTest, RenewTakesWhatAnotherHostHasStored) {
  CredentialStore store = Store();
  store.Save(Token("old"));
  store.Current();
  Store().Save(Token("from another host"));
  EXPECT_EQ(Renewed(store), "from another host");
  EXPECT_EQ(renewals, 0);
}

TEST_F(CredentialStoreTest, ARefusedRenewalSaysWhyAndKeepsTheFile) {
  CredentialStore store = Store();
  store.Save(Token("old"));
  store.Current();
  refusal = "invalid_grant";
  EXPECT_EQ(Renewed(store), "");
  EXPECT_THAT(store.Refusal(), HasSubstr("invalid_grant"));
  EXPECT_EQ(store.Load()->accessToken, "old");
  refusal.clear();
  EXPECT_NE(Renewed(store), "");
  EXPECT_EQ(store.Refusal(), "");
}

TEST_F(CredentialStoreTest, ATokenWithoutRefreshTokenCannotBeRenewed) {
  CredentialStore store = Store();
  store.Save({"only", "", 0, "", ""});
  EXPECT_EQ(store.Current().accessToken, "only");
  EXPECT_EQ(Renewed(store), "");
  EXPECT_EQ(renewals, 0);
}

// A writer is killed at an arbitrary instant, again and again: the reader always finds one of the
// whole credentials.
TEST_F(CredentialStoreTest, AWriterKilledAtAnyInstantLeavesAWholeFile) {
  CredentialStore store = Store();
  const std::string filler(200000, 'x');
  store.Save(Token("token" + filler));
  for (int round = 0; round < 30; ++round) {
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
      for (int i = 0;; ++i) store.Save(Token("token" + std::to_string(i) + filler));
    }
    usleep(static_cast<useconds_t>(500 + round * 977));
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    const auto loaded = store.Load();
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->clientId, "client");
    EXPECT_THAT(loaded->accessToken, testing::EndsWith(filler));
  }
  store.Remove();
  EXPECT_TRUE(std::filesystem::is_empty(file.parent_path())) << "a token was left on the disk";
}

TEST_F(CredentialStoreTest, AFailedSaveLeavesNothingBehind) {
  CredentialStore store = Store();
  store.Save(Token("old"));
  // A folder cannot be replaced by a file, whoever asks.
  std::filesystem::create_directory(file.parent_path() / "blocked");
  CredentialStore blocked(file.parent_path() / "blocked", nullptr);
  EXPECT_THROW(blocked.Save(Token("new")), Failure);
  EXPECT_EQ(store.Load()->accessToken, "old");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(file.parent_path()), {}), 2)
      << "a hidden file was left behind";
}

}  // namespace
}  // namespace host
