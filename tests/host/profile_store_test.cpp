#include "host/core/profile_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

namespace host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

class ProfileStoreTest : public testing::Test {
 protected:
  /// What the module sees: the value, or nothing when the answer is not 0.
  static std::optional<std::string> Read(ProfileStore& store, const char* key, int room = 1024) {
    std::vector<char> buffer(static_cast<size_t>(room));
    int length = room;
    if (store.GetValue("me", key, buffer.data(), &length) != 0) return std::nullopt;
    return std::string(buffer.data(), static_cast<size_t>(length));
  }

  TemporaryDirectory directory{"vormlane-test-"};
  ProfilePaths paths = ProfilePaths::Under(directory.Path(), "me");
};

TEST_F(ProfileStoreTest, ValuesOutliveTheProcessAndStayInTheirSection) {
  {
    ProfileStore store(paths);
    ASSERT_EQ(store.SetValue("me", "lastchangeid", "17", 0), 0);
    ASSERT_EQ(store.SetValue("me", "lastchangeid", "18", 1), 0);
    store.SetValue(std::string("host"), "lastchangeid", "other");
  }
  ProfileStore store(paths);
  EXPECT_EQ(Read(store, "lastchangeid"), "18");
  EXPECT_EQ(Read(store, "pid"), std::nullopt);
  EXPECT_THAT(store.Values("me"), ElementsAre(Pair("lastchangeid", "18")));
}

TEST_F(ProfileStoreTest, TheTerminatorNeedsRoomToo) {
  ProfileStore store(paths);
  store.SetValue("me", "key", "12345", 0);
  char buffer[6];
  int length = 5;
  EXPECT_EQ(store.GetValue("me", "key", buffer, &length),
            static_cast<int>(AERROR::INSUFFICIENT_BUFFER));
  EXPECT_EQ(length, 5);
  length = 6;
  EXPECT_EQ(store.GetValue("me", "key", buffer, &length), 0);
  EXPECT_STREQ(buffer, "12345");
}

TEST_F(ProfileStoreTest, NullArgumentsAreRefused) {
  ProfileStore store(paths);
  int length = 10;
  char buffer[10];
  EXPECT_NE(store.SetValue("me", nullptr, "value", 0), 0);
  EXPECT_NE(store.GetValue(nullptr, "key", buffer, &length), 0);
  EXPECT_NE(store.GetValue("me", "key", nullptr, &length), 0);
  EXPECT_NE(store.GetProfileID("module", buffer, nullptr), 0);
}

TEST_F(ProfileStoreTest, TwoConnectionsAndManyThreadsWriteAtOnce) {
  ProfileStore first(paths);
  ProfileStore second(paths);
  constexpr int kWrites = 25;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread)
    threads.emplace_back([&, thread] {
      ProfileStore& store = thread % 2 == 0 ? first : second;
      for (int i = 0; i < kWrites; ++i) {
        const std::string key = std::to_string(thread) + "." + std::to_string(i);
        EXPECT_EQ(store.SetValue("me", key.c_str(), "x", 0), 0);
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(first.Values("me").size(), 4u * kWrites);
}

std::string WhyNot(const ProfilePaths& paths) {
  try {
    ProfileStore store(paths);
    return "opened";
  } catch (const Failure& failure) {
    return failure.what();
  }
}

TEST_F(ProfileStoreTest, ADamagedFileIsNamedAndLeftAlone) {
  MakePrivateDirectory(paths.data);
  const std::string garbage(8192, 'x');
  std::ofstream(paths.Database()) << garbage;
  EXPECT_THAT(WhyNot(paths),
              testing::AllOf(HasSubstr(paths.Database().string()), HasSubstr("damaged")));
  std::ifstream file(paths.Database());
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), garbage);
}

TEST_F(ProfileStoreTest, AFileThatCannotBeOpenedIsNamed) {
  std::filesystem::create_directories(paths.Database());
  EXPECT_THAT(WhyNot(paths), HasSubstr(paths.Database().string()));
}

TEST_F(ProfileStoreTest, AFileOfANewerProgramIsNotTouched) {
  {
    ProfileStore store(paths);
    Database database(paths.Database());
    database.Run("UPDATE schema_version SET version = 99");
  }
  EXPECT_THAT(WhyNot(paths), HasSubstr("newer"));
}

TEST_F(ProfileStoreTest, AMigrationHappensWholeOrNotAtAll) {
  MakePrivateDirectory(paths.data);
  Database database(paths.Database());
  EXPECT_THROW(database.Migrate("part", {"CREATE TABLE one(a)", "no statement at all"}), Failure);
  database.Migrate("part", {"CREATE TABLE one(a)"});
  database.Migrate("part", {"CREATE TABLE one(a)", "ALTER TABLE one ADD COLUMN b"});
  database.Run("INSERT INTO one(a, b) VALUES(1, 2)");
}

TEST_F(ProfileStoreTest, OnlyTheOwnerEntersTheFolder) {
  ProfileStore store(paths);
  const auto mode = std::filesystem::status(paths.data).permissions();
  EXPECT_EQ(mode & (std::filesystem::perms::group_all | std::filesystem::perms::others_all),
            std::filesystem::perms::none);
}

}  // namespace
}  // namespace host
