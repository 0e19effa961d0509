#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>

#include "util/json_object.h"

namespace {

using testing::ElementsAre;

/// The AERROR that `action` throws.
template <class Action>
std::optional<AERROR> Thrown(Action action) {
  try {
    action();
  } catch (AERROR code) {
    return code;
  }
  return std::nullopt;
}

std::string Text(const JsonObject& object) { return object; }

TEST(JsonPath, WalksMembersOnly) {
  const JsonObject document(R"({"user":{"displayName":"Ann"},"items":[{"id":"1"}],"n":null})");
  EXPECT_EQ(Text(document.GetObject("/user/displayName")), "Ann");
  EXPECT_EQ(Text(document.GetObject("user//displayName/")), "Ann");
  EXPECT_EQ(document.GetObject("/").ToText(), document.ToText());
  EXPECT_TRUE(document.HasObject("/n"));
  EXPECT_FALSE(document.GetObject("/n").IsValid());
  for (const char* path :
       {"/items/0/id", "/user/none", "/none/user", "/user/displayName/x", "/n/x"}) {
    EXPECT_FALSE(document.HasObject(path)) << path;
    EXPECT_EQ(Thrown([&] { document.GetObject(path); }), AERROR::ACCESS_VIOLATION) << path;
  }
}

TEST(JsonOwnership, OwnersCopyDeepAndViewsFollowTheirDocument) {
  JsonObject document(R"({"a":{"b":"1"}})");
  const JsonObject deep = document;
  const JsonObject view = document.GetObject("/a");
  JsonObject viewCopy = view;
  viewCopy["b"] = "2";
  EXPECT_EQ(document.ToText(), R"({"a":{"b":"2"}})");
  EXPECT_EQ(view.ToText(), R"({"b":"2"})");
  EXPECT_EQ(deep.ToText(), R"({"a":{"b":"1"}})");

  JsonObject empty = JsonObject::GetEmptyObject();
  EXPECT_EQ(empty.ToText(), "null");
  JsonObject alias = empty;  // of an empty owner: a view
  alias["x"] = "y";
  EXPECT_EQ(empty.ToText(), R"({"x":"y"})");

  JsonObject moved = std::move(document);
  EXPECT_EQ(Text(moved.GetObject("/a/b")), "2");
  moved = moved.GetObject("/a");  // a part of what it replaces
  EXPECT_EQ(moved.ToText(), R"({"b":"2"})");
}

TEST(JsonParse, ReadsExactlyTheCountedBytes) {
  const std::string text = R"({"a":"x"})";
  const std::unique_ptr<char[]> bytes(new char[text.size()]);
  memcpy(bytes.get(), text.data(), text.size());
  EXPECT_EQ(Text(JsonObject(bytes.get(), static_cast<unsigned>(text.size())).GetObject("a")), "x");
  EXPECT_EQ(Text(JsonObject("/* why */ {\"a\":\"x\\u0000y\"}").GetObject("a")), "x");
}

TEST(JsonParse, BrokenTextsAreOneError) {
  std::string deepArray(100000, '[');
  std::string deepObject;
  for (int i = 0; i < 5000; ++i) deepObject += "{\"a\":";
  for (const std::string& text :
       {std::string(), std::string("{"), std::string(R"({"a":})"), std::string(R"({"a" 1})"),
        std::string("nul"), std::string("[1,,2"), std::string("\"open"), std::string("\xFF\xFE"),
        std::string(R"({"a":"\uD800x"})"), std::string("{\"a\":1"), deepArray, deepObject}) {
    EXPECT_EQ(Thrown([&] { JsonObject(text.data(), static_cast<unsigned>(text.size())); }),
              AERROR::JSON_PARSE_FAILED)
        << text.substr(0, 20);
    EXPECT_EQ(Thrown([&] { JsonObject(text.c_str()); }), AERROR::JSON_PARSE_FAILED)
        << text.substr(0, 20);
  }
  EXPECT_EQ(Thrown([] { JsonObject(nullptr, 0); }), AERROR::JSON_PARSE_FAILED);
}

TEST(JsonParse, BytesThatAreNotUtf8DoNoHarm) {
  for (const std::string bytes : {"\xFF", "\xC3", "\xE2\x82", "\xF0\x9F\x98", "\xED\xA0\x80"}) {
    const std::string text = "{\"a\":\"" + bytes + "\"}";
    const JsonObject document(text.data(), static_cast<unsigned>(text.size()));
    EXPECT_EQ(Text(document.GetObject("/a")), bytes);
    const JsonObject written(document.ToText().c_str());  // what is written can be read again
    EXPECT_FALSE(written.ToStyledText().empty());
  }
  EXPECT_THROW((void)static_cast<std::wstring>(JsonObject("\"\xFF\"")), std::range_error);
}

TEST(JsonWrongKind, MembersOfArraysAndTextsAreAccessViolations) {
  JsonObject array("[1]");
  JsonObject text("\"t\"");
  JsonObject object("{}");
  const auto violates = [](auto action) { return Thrown(action) == AERROR::ACCESS_VIOLATION; };
  for (JsonObject* wrong : {&array, &text}) {
    EXPECT_TRUE(violates([&] { (*wrong)["a"]; }));
    EXPECT_TRUE(violates([&] { wrong->Insert("a", JsonObject("1")); }));
    EXPECT_TRUE(violates([&] { wrong->Insert("a", L"w"); }));
    EXPECT_TRUE(violates([&] { wrong->Remove("a"); }));
    EXPECT_TRUE(violates([&] { wrong->GetKeys(); }));
  }
  for (JsonObject* wrong : {&object, &text}) {
    EXPECT_TRUE(violates([&] { (*wrong)[0]; }));
    EXPECT_TRUE(violates([&] { wrong->InsertArrayItem("x"); }));
    EXPECT_TRUE(violates([&] { wrong->InsertArrayItem(JsonObject("1")); }));
    EXPECT_TRUE(violates([&] { wrong->RemoveArrayItem(0); }));
  }
  EXPECT_EQ(text.GetArraySize(), 0u);
  EXPECT_THROW(Text(object), std::exception);
  EXPECT_THROW((void)static_cast<long long>(text), std::exception);
  EXPECT_THROW((void)static_cast<long long>(JsonObject("1e300")), std::exception);
  EXPECT_THROW(array[-1], std::exception);
}

TEST(JsonValues, Convert) {
  const JsonObject document(
      R"({"big":18446744073709551615,"wide":4294967301,"minus":-7,"half":0.5,"yes":true,
          "text":"\u00e9"})");
  EXPECT_EQ(static_cast<unsigned long long>(document["big"]), 18446744073709551615ULL);
  EXPECT_EQ(static_cast<long long>(document["wide"]), 4294967301LL);
  EXPECT_EQ(static_cast<long>(document["wide"]), 4294967301L);
  EXPECT_EQ(static_cast<int>(document["wide"]), 5);
  EXPECT_EQ(static_cast<AERROR>(JsonObject("7003")), AERROR::AUTH_FAILED);
  EXPECT_EQ(static_cast<int>(document["minus"]), -7);
  EXPECT_EQ(static_cast<double>(document["half"]), 0.5);
  EXPECT_TRUE(static_cast<bool>(document["yes"]));
  EXPECT_EQ(static_cast<std::wstring>(document["text"]), L"\u00e9");
}

TEST(JsonChanges, WriteSortedOnOneLine) {
  JsonObject document = JsonObject::GetEmptyObject();
  document.Insert("z", L"\u00e9");
  document.Insert("a", JsonObject("[1,2,3]"));
  document["a"].RemoveArrayItem(1);
  document["a"].InsertArrayItem("four");
  document["a"].InsertArrayItem(JsonObject(R"({"k":1})"));
  document.Insert("gone", JsonObject("1"));
  document.Remove("gone");
  document["m"]["n"] = "text";
  EXPECT_EQ(document.ToText(), R"({"a":[1,3,"four",{"k":1}],"m":{"n":"text"},"z":"\u00e9"})");
  EXPECT_THAT(document.GetKeys(), ElementsAre("a", "m", "z"));
  EXPECT_EQ(document["a"].GetArraySize(), 4u);
  EXPECT_TRUE(document["a"].IsArray());
  EXPECT_EQ(static_cast<int>(document["a"][1]), 3);
  EXPECT_NE(document.ToStyledText().find("\n"), std::string::npos);
}

}  // namespace
