// login, logout
#include <httplib.h>
#include <signal.h>

#include <regex>

#include "host/core/failure.h"
#include "host/login/oauth_app.h"
#include "host/login/pkce.h"
#include "tests/host/drive_fixture.h"
#include "tests/host/web_driver.h"

namespace host_test {
namespace {

using testing::HasSubstr;

class Login : public DriveFixture {
 protected:
  Login() {
    Credentials().Remove();
    Output({"profile", "set", "oauth_authorize_url=" + drive.ApiUrl() + "/o/oauth2/v2/auth",
            "oauth_revoke_url=" + drive.ApiUrl() + "/revoke"});
  }
  std::unique_ptr<Process> StartLogin(const Arguments& more = {}) const {
    Arguments arguments = {"login",           "--no-browser",
                           "--client-id",     emulator::kClientId,
                           "--client-secret", emulator::kClientSecret};
    if (more.empty()) arguments.insert(arguments.end(), {"--timeout", "30"});
    arguments.insert(arguments.end(), more.begin(), more.end());
    return Start(arguments);
  }
  /// The address that a running login shows.
  static std::string Address(Process& login) {
    if (!login.WaitForOutput("state=") || !login.WaitForOutput("prompt=consent\n")) return "";
    std::smatch match;
    const std::string text = login.Output();
    return std::regex_search(text, match, std::regex("http://\\S+")) ? match[0].str() : "";
  }

  /// Answers the consent page as a browser without scripts would; the page that it ends on.
  static std::string Consent(const std::string& address, const std::string& decision) {
    const size_t slash = address.find('/', 8);
    httplib::Client client(address.substr(0, slash));
    const auto page = client.Get(address.substr(slash));
    if (!page) return "no page";
    httplib::Params form = {{"consent", decision}};
    const std::regex field("name=\"([a-z_]+)\" value=\"([^\"]*)\"");
    for (std::sregex_iterator i(page->body.begin(), page->body.end(), field), end; i != end; ++i)
      if (form.count((*i)[1]) == 0) form.emplace((*i)[1], Unescaped((*i)[2]));
    const auto answer = client.Post("/o/oauth2/v2/auth", form);
    if (!answer || answer->status != 302) return "no redirect";
    const std::string back = answer->get_header_value("Location");
    const size_t path = back.find('/', 8);
    const auto last = httplib::Client(back.substr(0, path)).Get(back.substr(path));
    return last ? last->body : "no answer";
  }
  static std::string Unescaped(std::string text) {
    for (size_t at; (at = text.find("&amp;")) != std::string::npos;) text.erase(at + 1, 4);
    return text;
  }
  /// Where a login waits for the browser.
  static httplib::Client Listener(const std::string& address) {
    std::smatch match;
    std::regex_search(address, match, std::regex("redirect_uri=http%3A%2F%2F127.0.0.1%3A([0-9]+)"));
    return httplib::Client("http://127.0.0.1:" + match[1].str());
  }
};

TEST_F(Login, AConsentSignsInForGood) {
  const auto login = StartLogin();
  EXPECT_THAT(Consent(Address(*login), "allow"), HasSubstr("Signed in"));
  const Outcome outcome = login->Finish();
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("demo@example.com"));
  const auto credential = Credentials().Load();
  ASSERT_TRUE(credential);
  EXPECT_NE(credential->refreshToken, "");
  drive.ExpireTokens();
  EXPECT_THAT(Output({"whoami"}), HasSubstr("demo@example.com"));
}

TEST_F(Login, ARealBrowserSignsIn) {
  if (const std::string why = WebDriver::Missing(); !why.empty()) GTEST_SKIP() << why;
  WebDriver browser(Home());
  const auto login = StartLogin();
  browser.Open(Address(*login));
  browser.Click("approve");
  browser.AwaitHeading("Signed in");
  const Outcome outcome = login->Finish();
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_THAT(Output({"whoami"}), HasSubstr("demo@example.com"));
}

TEST_F(Login, TheBrowserIsOpenedOnTheAddress) {
  const auto opened = Home() / "opened";
  WriteFile(Home() / "bin/xdg-open", "#!/bin/sh\nprintf %s \"$1\" > " + opened.string() + ".new\n" +
                                         "mv " + opened.string() + ".new " + opened.string() +
                                         "\n");
  std::filesystem::permissions(Home() / "bin/xdg-open", std::filesystem::perms::owner_all);
  auto environment = Environment();
  environment["PATH"] = (Home() / "bin").string() + ":/usr/bin:/bin";
  Process login({program.string(), "login", "--client-id", emulator::kClientId, "--client-secret",
                 emulator::kClientSecret},
                environment);
  while (!std::filesystem::exists(opened) && login.IsRunning()) usleep(1000);
  Consent(ReadFile(opened), "allow");
  const Outcome outcome = login.Finish();
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
}

TEST_F(Login, ADeclinedConsentLeavesNothing) {
  const auto login = StartLogin();
  Consent(Address(*login), "deny");
  EXPECT_THAT(ComplaintOf(login->Finish()), HasSubstr("declined"));
  EXPECT_FALSE(Credentials().Load());
}

TEST_F(Login, AnAnswerWithAnotherStateIsTurnedAway) {
  const auto login = StartLogin();
  const std::string address = Address(*login);
  httplib::Client stranger = Listener(address);
  EXPECT_EQ(stranger.Get("/?code=stolen&state=guessed")->status, 400);
  EXPECT_EQ(stranger.Get("/?error=access_denied")->status, 400);
  EXPECT_EQ(stranger.Get("/elsewhere")->status, 404);
  EXPECT_TRUE(login->IsRunning());
  Consent(address, "allow");
  EXPECT_EQ(login->Finish().exitCode, 0);
}

TEST_F(Login, ACodeThatTheServiceDoesNotKnowIsRefused) {
  const auto login = StartLogin();
  const std::string address = Address(*login);
  std::smatch state;
  std::regex_search(address, state, std::regex("state=([A-Za-z0-9_-]+)"));
  EXPECT_EQ(Listener(address).Get("/?code=invented&state=" + state[1].str())->status, 200);
  EXPECT_THAT(ComplaintOf(login->Finish()), HasSubstr("invalid_grant"));
  EXPECT_FALSE(Credentials().Load());
}

TEST_F(Login, NobodyConsentsOrTheUserGivesUp) {
  EXPECT_THAT(ComplaintOf(StartLogin({"--timeout", "1"})->Finish()), HasSubstr("1 seconds"));
  const auto login = StartLogin();
  Address(*login);
  login->Signal(SIGINT);
  EXPECT_THAT(ComplaintOf(login->Finish()), HasSubstr("stopped"));
}

TEST_F(Login, WithoutAClientItSaysHowToGetOne) {
  EXPECT_THAT(Complaint({"login"}),
              testing::AllOf(HasSubstr("developer console"), HasSubstr("client.json")));
  const auto file = Home() / "config/vormlane/client.json";
  WriteFile(file, "{\"web\":{}}");
  EXPECT_THAT(Complaint({"login"}), HasSubstr("Desktop app"));
  WriteFile(file, R"({"installed":{"client_id":"vormlane-demo","client_secret":"wrong"}})");
  const auto login = Start({"login", "--no-browser"});
  Consent(Address(*login), "allow");
  EXPECT_THAT(ComplaintOf(login->Finish()), HasSubstr("invalid_client"));
}

TEST_F(Login, LogoutEndsTheGrant) {
  const auto login = StartLogin();
  Consent(Address(*login), "allow");
  ASSERT_EQ(login->Finish().exitCode, 0);
  const std::string token = Credentials().Load()->accessToken;
  Output({"logout"});
  EXPECT_FALSE(Credentials().Load());
  httplib::Client client(drive.ApiUrl());
  EXPECT_EQ(client.Get("/drive/v3/files", {{"Authorization", "Bearer " + token}})->status, 401);
  Output({"logout"});
}

TEST_F(Login, AnUnfinishedLogoutKeepsTheCredential) {
  SignIn();
  Output({"profile", "set", "oauth_revoke_url=http://127.0.0.1:1"});
  Complaint({"logout"});
  EXPECT_TRUE(Credentials().Load());
  Output({"logout", "--local"});
  EXPECT_FALSE(Credentials().Load());
}

TEST(ProofKey, IsTheOneOfTheStandardsExample) {
  // RFC 7636, appendix B.
  EXPECT_EQ(host::Pkce::ChallengeOf("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"),
            "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");
  EXPECT_NE(host::Pkce::Make().verifier, host::Pkce::Make().verifier);
  EXPECT_EQ(host::Pkce::Make().verifier.size(), 64u);
}

}  // namespace
}  // namespace host_test
