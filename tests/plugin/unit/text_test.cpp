// Texts: splitting, widths, UUIDs, compression for the log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <set>
#include <stdexcept>

#include "plugin/fs_file.h"
#include "util/compress.h"
#include "util/strings.h"

namespace {

using testing::ElementsAre;

TEST(Strings, SplitKeepsEmptyPieces) {
  EXPECT_THAT(Split("a\r\n\r\nb\r\n", "\r\n"), ElementsAre("a", "", "b", ""));
  EXPECT_THAT(Split("", "/"), ElementsAre(""));
  EXPECT_THAT(Split("aaa", "aa"), ElementsAre("", "a"));
}

TEST(Strings, TrimAndLowerTouchAsciiOnly) {
  EXPECT_EQ(Trim(" \t\r\n a b \v\f"), "a b");
  EXPECT_EQ(Trim(" \n"), "");
  EXPECT_EQ(ToLower("AZ\xC3\x84[@`"), "az\xC3\x84[@`");
}

TEST(Strings, WideTextRoundTripsAndMalformedTextIsRefused) {
  const std::string text = "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
  EXPECT_EQ(ToWide(text), L"\u00e9\u20ac\U0001F600");
  EXPECT_EQ(ToNarrow(ToWide(text)), text);
  EXPECT_THROW(ToWide("\xFF\xFE"), std::range_error);
  EXPECT_THROW(ToNarrow(std::wstring(1, static_cast<wchar_t>(0x7fffffff))), std::range_error);
}

TEST(Strings, UuidsAreRandomOnesOfVersionFour) {
  const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    const std::string id = NewUUID();
    EXPECT_TRUE(std::regex_match(id, form)) << id;
    EXPECT_TRUE(seen.insert(id).second) << id;
  }
}

std::string RandomBytes(size_t size) {
  std::mt19937 generator(7);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator());
  return bytes;
}

TEST(Compression, GivesBackWhatItWasGiven) {
  for (const std::string& text : {std::string(), std::string("a"), std::string("a\0b", 3),
                                  std::string(200000, 'x'), RandomBytes(100000)}) {
    const std::string packed = compress_string(text.data(), text.size());
    EXPECT_EQ(packed.substr(0, 4), "789C");
    EXPECT_EQ(packed.find_first_not_of("0123456789ABCDEF"), std::string::npos);
    EXPECT_TRUE(decompress_string(packed) == text) << text.size();
  }
  EXPECT_LT(compress_string(std::string(200000, 'x').data(), 200000).size(), 1000u);
  EXPECT_EQ(compress_string(nullptr, 0), compress_string("", 0));
}

TEST(Compression, PlainTextPassesAndDamageIsReported) {
  EXPECT_EQ(decompress_string("789d00"), "789d00");
  EXPECT_EQ(decompress_string(""), "");
  const std::string packed = compress_string(RandomBytes(3000).data(), 3000);
  for (size_t length = 4; length < packed.size(); length += packed.size() / 7) {
    EXPECT_THROW(decompress_string(packed.substr(0, length)), std::runtime_error) << length;
  }
  std::string flipped = packed;
  flipped[flipped.size() / 2] = flipped[flipped.size() / 2] == '0' ? '1' : '0';
  EXPECT_THROW(decompress_string(flipped), std::runtime_error);
  EXPECT_THROW(decompress_string("789CZZ??"), std::runtime_error);
}

TEST(FileRecord, CopiesAreIndependentAndSelfAssignmentChangesNothing) {
  _FS_FILE_V2 file;
  file.id = "1";
  file.attributes = kFsFile | kFsSynthesised;
  file.size = 1LL << 40;
  file.time1 = "a", file.time2 = "b", file.time3 = "c";
  file.name = "n", file.content = "text";
  file.parents = {"third", "second", "first"};
  file.parent_id = "p";
  _FS_FILE_V2 copy;
  copy.parents = {"old"};
  copy = file;
  file.parents.clear();
  file.name = "other";
  EXPECT_THAT(copy.parents, ElementsAre("third", "second", "first"));
  _FS_FILE_V2& same = copy;
  copy = same;
  EXPECT_THAT(copy.parents, ElementsAre("third", "second", "first"));
  EXPECT_EQ(
      copy.id + copy.time1 + copy.time2 + copy.time3 + copy.name + copy.content + copy.parent_id,
      "1abcntextp");
  EXPECT_EQ(copy.attributes, 0x41u);
  EXPECT_EQ(copy.size, 1LL << 40);
}

}  // namespace
