// The small parts of the core: addresses, paths, times, options, sinks, log.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "host/core/drive_tree.h"
#include "host/core/failure.h"
#include "host/core/host_log.h"
#include "host/core/item.h"
#include "host/core/json_text.h"
#include "host/core/options.h"
#include "host/core/paths.h"
#include "host/core/plugin_loader.h"
#include "host/core/sinks.h"
#include "host/core/time_text.h"

namespace host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

TEST(Addresses, OnlyRealLoopbackGoesWithoutTls) {
  for (const char* url : {"http://127.0.0.1:8080/x", "ws://localhost/", "HTTP://[::1]:1"})
    EXPECT_TRUE(IsLoopbackUrl(url)) << url;
  for (const char* url : {"http://127.0.0.1.example.com/", "http://127.0.0.1@example.com/",
                          "http://example.com/127.0.0.1", "ftp://127.0.0.1/", "127.0.0.1", "",
                          "http://", "http://[::1", "http://127.0.0.1:80@example.com"})
    EXPECT_FALSE(IsLoopbackUrl(url)) << url;
  EXPECT_TRUE(IsSecureUrl("HTTPS://example.com"));
  EXPECT_FALSE(IsSecureUrl("httpsx://example.com"));
}

TEST(ProfileNames, CannotLeadElsewhere) {
  for (const char* name : {"", ".", "..", "a/b", "../a", "a b", ".hidden"})
    EXPECT_THROW(ProfilePaths::Named(name), Failure) << name;
  EXPECT_EQ(ProfilePaths::Under("/t", "work@example.com").Database(), "/t/data/state.db");
}

TEST(DrivePaths, NamesWithSlashesComeThroughAndBack) {
  const DrivePath path = DrivePath::Parse("//My Drive/a\\/b/c\\\\d/e\\f/");
  EXPECT_THAT(path.names, ElementsAre("My Drive", "a/b", "c\\d", "e\\f"));
  EXPECT_EQ(DrivePath::Parse(path.Text()).names, path.names);
  const DrivePath byId = DrivePath::Parse("id:abc/x");
  EXPECT_EQ(byId.startId, "abc");
  EXPECT_THAT(byId.names, ElementsAre("x"));
  EXPECT_EQ(byId.Text(), "id:abc/x");
  EXPECT_THROW(DrivePath::Parse("id:"), Failure);
}

TEST(Documents, LoseTheirEndingOnTheWayToTheService) {
  Item document;
  document.attributes = kFsFile | kFsInlineContent | kFsSynthesised;
  document.name = "Plan v1.2.Google Docs.webloc";
  EXPECT_EQ(ServiceName(document), "Plan v1.2");
  EXPECT_EQ(ServiceNameFor(document, "New.Google Docs.webloc"), "New");
  EXPECT_EQ(ServiceNameFor(document, "New"), "New");
  Item file;
  file.attributes = kFsFile;
  file.name = "real.Google Docs.webloc";
  EXPECT_EQ(ServiceName(file), file.name);
}

TEST(Times, AreReadAsTheServiceWritesThem) {
  EXPECT_EQ(ParseRfc3339("1970-01-01T00:00:01.500Z"), 1500);
  EXPECT_EQ(ParseRfc3339("1970-01-01T02:00:00+02:00"), 0);
  EXPECT_EQ(ParseRfc3339("2024-02-29T00:00:00.000Z"), 1709164800000);
  EXPECT_EQ(FormatRfc3339(1709164800250), "2024-02-29T00:00:00.250Z");
  EXPECT_EQ(FormatRfc3339(-1), "1969-12-31T23:59:59.999Z");
  for (const char* text :
       {"", "2024-02-30T00:00:00Z", "2024-01-01", "2024-01-01T00:00:00", "2024-01-01T00:00:00+2",
        "2024-01-01T00:00:00Zx", "2024-01-01T25:00:00Z"})
    EXPECT_FALSE(ParseRfc3339(text)) << text;
}

TEST(Times, AreReadAsUsersTypeThem) {
  EXPECT_EQ(ParseUserTime("@12"), 12000);
  EXPECT_EQ(ParseUserTime("2024-03-01 10:30") - ParseUserTime("2024-03-01"), 37800000);
  for (const char* text : {"", "yesterday", "2024-13-01", "2024-02-30", "@", "@1x", "10:30"})
    EXPECT_THROW(ParseUserTime(text), Failure) << text;
}

constexpr char kPage[] = R"({"options":{"type":"group","text":"Options","order":["flag"],
  "controls":{"flag":{"type":"checkbox","text":"A flag","default":true}}},
  "limits":{"type":"group","text":"Limits","order":["speed"],"controls":{"speed":{"type":"edit",
  "label":"KB/s","default":"0","validator":{"type":"integer","min_value":0}}}},
  "order":["options","limits"]})";

TEST(OptionPage, ValuesAreHeldToTheirControls) {
  const auto options = ParseOptionFields(kPage);
  ASSERT_EQ(options.size(), 2u);
  EXPECT_EQ(options[0].group, "Options");
  EXPECT_EQ(OptionValue(options[0], "OFF"), Json::Value(false));
  EXPECT_THROW(OptionValue(options[0], "maybe"), Failure);
  EXPECT_EQ(OptionValue(options[1], "100"), Json::Value("100"));
  // The module counts bytes per second in 32 bits: more would turn negative there.
  for (const char* text : {"-1", "", "1.5", "0x10", "2097152", "99999999999999999999"})
    EXPECT_THROW(OptionValue(options[1], text), Failure) << text;
}

TEST(OptionPage, DamagedPagesAreRefusedOrEmpty) {
  EXPECT_THROW(ParseOptionFields("{"), Failure);
  EXPECT_THROW(ParseOptionFields("[]"), Failure);
  EXPECT_TRUE(ParseOptionFields(R"({"order":["a",3],"a":{"order":["x"],"controls":[]}})").empty());
}

TEST(OptionPage, ChoicesBecomeTheModulesDocument) {
  EXPECT_EQ(OptionDocument({{"flag", "false"}, {"speed", "\"7\""}, {"bad", "{"}}),
            R"({"values":{"flag":{"value":false},"speed":{"value":"7"}}})");
  EXPECT_EQ(OptionDocument({}), R"({"values":{}})");
}

TEST(Proxies, AreReadFromOneText) {
  const Json::Value proxy = ProxyValue("socks5://me:p:w@proxy.example:1080");
  EXPECT_EQ(CompactJson(proxy),
            R"({"host":"proxy.example","password":"p:w","port":1080,"type":"SOCKS5","user":"me"})");
  EXPECT_EQ(ProxyValue("none")["host"], "");
  for (const char* text : {"proxy:80", "ftp://p:80", "http://p", "http://:80", "http://p:0",
                           "http://p:65536", "http://p:8x"})
    EXPECT_THROW(ProxyValue(text), Failure) << text;
}

TEST(Sinks, KeepAnExceptionForTheCallerAndStopTheTransfer) {
  const auto handle = std::make_shared<_FS_HANDLE>();
  int calls = 0;
  FetchSink sink(handle, [&](int64_t, std::span<const char>) {
    ++calls;
    throw Failure("disk full");
  });
  sink.OnData(0, "x", 1, nullptr);
  sink.OnData(1, "y", 1, nullptr);
  EXPECT_EQ(calls, 1);
  EXPECT_GE(handle->status, 3);
  EXPECT_THROW(sink.Rethrow(), Failure);
}

TEST(Sinks, AFailingSourceStopsTheUpload) {
  UploadSource source([](int64_t, std::span<char>) -> uint64_t { throw Failure("gone"); });
  char buffer[4];
  CacheReadRequest request;
  request.buffer = buffer;
  request.wanted = sizeof buffer;
  EXPECT_NE(source.Read(&request), 0);
  EXPECT_THROW(source.Rethrow(), Failure);
}

void Say(HostLog& log, LOGLEVEL level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  log.Write(level, format, arguments);
  va_end(arguments);
}

TEST(Log, TellsTheCallerWhyItsOperationFailed) {
  HostLog log(false, {});
  Say(log, kLogError, "[PROTOCOL  ] %s >> HTTP %d", "GetFileInfo", 404);
  EXPECT_EQ(HostLog::TakeLastError(), "HTTP 404");
  EXPECT_EQ(HostLog::TakeLastError(), "");
  Say(log, kLogInformation, "[PROTOCOL  ] Read >> https GET >> 403 : https://x/y(12) - 5ms");
  Say(log, kLogError, "[PROTOCOL  ] Read >> No more backoff");
  EXPECT_THAT(HostLog::TakeLastError(), HasSubstr("HTTP 403"));
  Say(log, kLogInformation, "[PROTOCOL  ] List >> https GET >> 401 : https://x/y(12) - 5ms");
  Say(log, kLogError, "[PROTOCOL  ] List >> ON HTTP 401 : AERROR::FAILED(0x00000001)");
  EXPECT_EQ(HostLog::TakeLastError(), "HTTP 401");
}

TEST(Log, NeverHoldsATokenAndTakesLinesOfAnyLength) {
  TemporaryDirectory directory("vormlane-test-");
  const auto file = directory.Path() / "log";
  const std::string text(100000, 'x');
  {
    HostLog log(true, file);
    Say(log, kLogDetail, "[NETWORK   ] [HEADER   <<] %s",
        "GET / HTTP/1.1\r\nAuthorization: Bearer geheim\r\nHost: example\r\n");
    Say(log, kLogInformation, "%s", text.c_str());
  }
  std::stringstream written;
  written << std::ifstream(file).rdbuf();
  EXPECT_THAT(written.str(), Not(HasSubstr("geheim")));
  EXPECT_THAT(written.str(), HasSubstr("Host: example"));
  EXPECT_THAT(written.str(), HasSubstr(text));
}

TEST(Log, AnUnwritableFileIsAFailure) {
  EXPECT_THROW(HostLog(false, "/proc/no/such/file"), Failure);
}

TEST(Loading, SaysWhatIsWrongWithAModule) {
  const auto why = [](const std::string& module) -> std::string {
    try {
      Plugin plugin(module, nullptr, nullptr);
      return "loaded";
    } catch (const Failure& failure) {
      return failure.what();
    }
  };
  EXPECT_THAT(why("/no/such/module.so"), HasSubstr("/no/such/module.so"));
  EXPECT_THAT(why("libz.so.1"), HasSubstr("does not export GetSupports"));
}

}  // namespace
}  // namespace host
