// The host's dialogs, and the settings that come back from them.
#include "tests/plugin/drive/push_fixture.h"

namespace {

class OptionsTest : public WireTest {
 protected:
  ~OptionsTest() override { cq.SetProxySettings({}); }

  AERROR Apply(const std::string& values) {
    return drive->SetOpt("option_fields", (R"({"values": )" + values + "}").c_str());
  }
  /// How many entries the top of the drive has: one for the root, one for each that is shown.
  size_t Shown() {
    ItemList list;
    EXPECT_EQ(drive->GetFileList(kVirtualRoot, &list, nullptr), AERROR::SUCCESS);
    return list.items.size();
  }
  std::string LineOfNextRequest() {
    _FS_FILE_V2 record;
    (void)drive->GetFileInfo("x", &record, nullptr);
    return service.Requests().back().Line();
  }
};

TEST_F(OptionsTest, DocumentsFollowTheBufferRule) {
  for (const auto fields : {&GoogleDrive::GetAuthFields, &GoogleDrive::GetOptFields}) {
    int length = 0;
    char small;
    EXPECT_EQ(fields(&small, &length), AERROR::INSUFFICIENT_BUFFER);
    std::string text(static_cast<size_t>(length) + 1, '#');
    int shorter = length - 1;
    EXPECT_EQ(fields(text.data(), &shorter), AERROR::INSUFFICIENT_BUFFER);
    EXPECT_EQ(fields(text.data(), &length), AERROR::SUCCESS);
    EXPECT_EQ(text.back(), '\0');
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(JsonObject(text.c_str()).ToText(), text.substr(0, text.size() - 1));
    EXPECT_EQ(fields(nullptr, &length), AERROR::INVALID_PARAMETER);
  }
}

TEST_F(OptionsTest, TheSettingsPageNamesWhatCanBeSet) {
  char buffer[4096];
  int length = sizeof(buffer);
  ASSERT_EQ(GoogleDrive::GetOptFields(buffer, &length), AERROR::SUCCESS);
  const JsonObject page(buffer);
  EXPECT_EQ(page.GetObject("/order").ToText(), R"(["options","bandwidth_options"])");
  const JsonObject controls = page.GetObject("/options/controls");
  EXPECT_EQ(controls.GetKeys(), (std::vector<std::string>{"show_shared", "use_team_drive"}));
  EXPECT_TRUE(static_cast<bool>(controls.GetObject("show_shared/default")));
  const JsonObject limit = page.GetObject("/bandwidth_options/controls/speedlimit");
  EXPECT_EQ(limit.GetObject("default").ToText(), R"("0")");
  EXPECT_EQ(limit.GetObject("validator").ToText(), R"({"min_value":0,"type":"integer"})");
}

TEST_F(OptionsTest, WhatStandsBeforeAnUnusableValueIsApplied) {
  EXPECT_EQ(Apply(R"({"show_shared": {"value": false}, "speedlimit": {"value": "much"},
                      "use_team_drive": {"value": false}})"),
            AERROR::SUCCESS);
  EXPECT_EQ(Shown(), 2u);
  for (const char* text :
       {"", "{", "[]", "7", R"({"values": 5})", R"({"values": {"show_shared": 1}})"}) {
    EXPECT_EQ(drive->SetOpt("option_fields", text), AERROR::SUCCESS) << text;
  }
  EXPECT_EQ(Shown(), 2u);
  EXPECT_EQ(Apply(R"({"use_team_drive": {"value": 0}, "show_shared": {"value": 1}})"),
            AERROR::SUCCESS);
  EXPECT_EQ(Shown(), 2u);
}

TEST_F(OptionsTest, UnknownSettingsChangeNothing) {
  for (const char* key : {"", "no such key", "ex_info", "Option_Fields "}) {
    EXPECT_EQ(drive->SetOpt(key, "{"), AERROR::SUCCESS) << key;
  }
  EXPECT_EQ(Shown(), 3u);
}

TEST_F(OptionsTest, AProxyCarriesEveryDrivesRequestsUntilItIsTakenBack) {
  service.SetFallback(Http(404));
  EXPECT_EQ(LineOfNextRequest().substr(0, 25), "GET /drive/v3/files/x?sup");
  const std::string port = std::to_string(service.Port());
  const auto proxy = [&](const std::string& type) {
    return R"({"proxy": {"value": {"type": ")" + type + R"(", "host": "127.0.0.1", "port": )" +
           port + R"(, "user": "u", "password": "p"}}})";
  };
  EXPECT_EQ(Apply(proxy("HTTP without TUNNEL")), AERROR::SUCCESS);
  EXPECT_EQ(LineOfNextRequest().substr(0, 18), "GET http://127.0.0");
  EXPECT_EQ(Apply(proxy("http without tunnel")), AERROR::SUCCESS);
  EXPECT_EQ(LineOfNextRequest().substr(0, 25), "GET /drive/v3/files/x?sup");
}

TEST_F(OptionsTest, AnswersAreLoggedWhileTheHostWantsThem) {
  WatchedLog log;
  constexpr char kLogged[] = "GetFileInfo >> 789C";
  const std::pair<const char*, bool> cases[] = {{"on", true},   {"off", false}, {"ON", true},
                                                {"yes", false}, {"On", true},   {"", false}};
  int logged = 0;
  for (const auto& [value, wanted] : cases) {
    drive->SetOpt("VERBOSE", value);
    (void)LineOfNextRequest();
    logged += wanted ? 1 : 0;
    EXPECT_EQ(log.Count(kLogged), logged) << value;
  }
}

TEST_F(OptionsTest, AnotherProfileIsReadAndWritten) {
  drive->SetOpt("pid", "profile-8");
  char buffer[256];
  int length = sizeof(buffer);
  ASSERT_EQ(drive->GetCredential(buffer, &length), AERROR::SUCCESS);
  EXPECT_EQ(profile.Writes().back().profile, "profile-8");
  EXPECT_EQ(profile.Writes().back().value, "profile-8");
}

}  // namespace
