#include "host/mount/name_map.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

namespace host::mount {
namespace {

TEST(NameMap, ShowsWhatNoFileCanBeCalled) {
  const std::map<std::string, std::string> shown = {
      {"a/b", "a%2Fb"},     {".", "%2E"},           {"..", "%2E%2E"}, {"", "%00"},
      {"a%2Fb", "a%252Fb"}, {"%2E", "%252E"},       {"%00", "%2500"}, {"50%25", "50%25"},
      {"100%", "100%"},     {"...", "..."},         {" a ", " a "},   {"a%252Fb", "a%25252Fb"},
      {"/", "%2F"},         {"%2E%2E", "%252E%2E"},
  };
  for (const auto& [drive, local] : shown) {
    EXPECT_EQ(LocalName(drive), local);
    EXPECT_EQ(DriveName(local), drive);
  }
}

TEST(NameMap, IsTurnedRoundForAnyText) {
  std::mt19937 random(20240229);
  const std::string alphabet = "%%%25FE0/.a";
  for (int round = 0; round < 200'000; ++round) {
    std::string name(random() % 12, ' ');
    for (char& c : name) c = alphabet[random() % alphabet.size()];
    const std::string local = LocalName(name);
    ASSERT_EQ(DriveName(local), name);
    ASSERT_EQ(local.find('/'), std::string::npos) << name;
    ASSERT_TRUE(local != "." && local != ".." && !local.empty()) << name;
    // The other way round, for names that programs choose.
    if (name.find('/') == std::string::npos && name != "." && name != ".." && !name.empty()) {
      ASSERT_EQ(LocalName(DriveName(name)), name);
    }
  }
}

TEST(NameMap, TellsTwinsApartAndCutsToFit) {
  std::set<std::string> taken;
  const auto isTaken = [&](const std::string& name) { return taken.count(name) != 0; };
  const std::string longName = std::string(400, 'x') + ".tar";
  const std::string wide = [] {
    std::string text;
    for (int i = 0; i < 100; ++i) text += "\xE2\x82\xAC";
    return text;
  }();
  for (const std::string& name : {std::string("a.txt"), std::string("a.txt"), std::string("a.txt"),
                                  longName, longName, wide, std::string("b\xff.txt")}) {
    const std::string shown =
        ShownName(name, "1AbCdEfGhIjKlMn" + std::to_string(taken.size()), isTaken);
    EXPECT_LE(shown.size(), kMaxNameBytes);
    EXPECT_TRUE(IsUtf8(shown)) << shown;
    EXPECT_TRUE(taken.insert(shown).second) << shown;
  }
  EXPECT_EQ(taken.count("a.txt"), 1u);
  EXPECT_EQ(taken.count("a~jKlMn1.txt"), 1u);
}

TEST(NameMap, KnowsUtf8) {
  for (const char* good : {"", "a", "\xC3\xA4", "\xF0\x9F\x98\x80", "\xEF\xBF\xBF"})
    EXPECT_TRUE(IsUtf8(good));
  for (const char* bad : {"\x80", "\xC0\xAF", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                          "\xC3", "a\xF0\x9F\x98"})
    EXPECT_FALSE(IsUtf8(bad));
}

}  // namespace
}  // namespace host::mount
