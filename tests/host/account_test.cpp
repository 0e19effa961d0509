// Options, profiles, credentials and what is said when something is wrong with them.
#include "tests/host/drive_fixture.h"

namespace host_test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class Account : public DriveFixture {};

TEST_F(Account, OptionsAreRememberedAndApplied) {
  drive.Put("file.txt", "x");
  EXPECT_EQ(Output({"ls"}), "My Drive\nShared with me\nTeam Drives\n");
  Output({"options", "set", "show_shared=off", "use_team_drive=off", "speedlimit=100"});
  EXPECT_EQ(Output({"ls"}), "file.txt\n") << "the top is then the drive's own root";
  std::map<std::string, Json::Value> values;
  for (const Json::Value& option : JsonOutput({"options"}))
    values[option["key"].asString()] = option["value"];
  EXPECT_EQ(values["show_shared"], Json::Value(false));
  EXPECT_EQ(values["speedlimit"], Json::Value("100"));
  Output({"options", "reset"});
  EXPECT_EQ(Output({"ls"}), "My Drive\nShared with me\nTeam Drives\n");
}

TEST_F(Account, OneWrongOptionChangesNone) {
  EXPECT_THAT(Complaint({"options", "set", "show_shared=off", "speedlimit=fast"}),
              HasSubstr("speedlimit"));
  EXPECT_THAT(Complaint({"options", "set", "no_such=1"}), HasSubstr("no_such"));
  EXPECT_THAT(Output({"ls"}), HasSubstr("Shared with me"));
}

TEST_F(Account, AProxyCarriesEveryRequest) {
  drive.Put("file.txt", "x");
  // The emulator is asked by absolute address, as a plain proxy is.
  const std::string address = drive.ApiUrl().substr(std::string("http://").size());
  Output({"options", "set", "proxy=http-plain://user:geheim@" + address});
  EXPECT_THAT(Output({"options"}), AllOf(HasSubstr(address), Not(HasSubstr("geheim"))));
  // A port where nobody listens: no request may go around it.
  Output({"options", "set", "proxy=socks5://127.0.0.1:1"});
  drive.ClearJournal();
  Complaint({"ls"});
  EXPECT_EQ(drive.Count("*"), 0);
  Output({"options", "set", "proxy=none"});
  EXPECT_THAT(Output({"ls"}), HasSubstr("My Drive"));
}

TEST_F(Account, ProfilesAreApart) {
  EXPECT_THAT(Complaint({"--profile", "other", "ls"}), HasSubstr("vormlane login"));
  EXPECT_EQ(JsonOutput({"--profile", "other", "profile", "show"})["values"].size(), 0u);
}

TEST_F(Account, AProfileRefusesAddressesThatAnyoneCouldAnswer) {
  for (const char* url : {"http://example.com", "ftp://127.0.0.1", "127.0.0.1:80"})
    EXPECT_THAT(Complaint({"profile", "set", std::string("drive_api_url=") + url}),
                HasSubstr("drive_api_url"));
  EXPECT_THAT(Complaint({"profile", "set", "drive_api_uri=x"}), HasSubstr("drive_api_url"));
}

TEST_F(Account, AnExpiredTokenIsRenewedUnnoticedAndKept) {
  const std::string before = Credentials().Load()->accessToken;
  drive.ExpireTokens();
  EXPECT_THAT(Output({"ls"}), HasSubstr("My Drive"));
  const auto after = Credentials().Load();
  EXPECT_NE(after->accessToken, before);
  EXPECT_GT(after->expiresAt, 0);
  drive.ClearJournal();
  Output({"ls"});
  EXPECT_EQ(drive.Count("oauth.token"), 0) << "the stored token is good";
}

TEST_F(Account, ARefusedRenewalSaysToSignInAgain) {
  drive.ExpireTokens();
  drive.RevokeTokens();
  EXPECT_THAT(Complaint({"ls"}), AllOf(HasSubstr("invalid_grant"), HasSubstr("vormlane login")));
}

TEST_F(Account, NobodySignedInSaysToSignIn) {
  Credentials().Remove();
  EXPECT_THAT(Complaint({"ls"}), HasSubstr("vormlane login"));
  WriteFile(Credentials().File(), "{");
  std::filesystem::permissions(Credentials().File(), std::filesystem::perms::owner_read);
  EXPECT_THAT(Complaint({"ls"}), HasSubstr(Credentials().File().string()));
}

TEST_F(Account, ADamagedProfileIsNamed) {
  std::filesystem::remove(Database().string() + "-wal");
  WriteFile(Database(), std::string(5000, 'x'));
  EXPECT_THAT(Complaint({"ls"}), HasSubstr(Database().string()));
  EXPECT_THAT(Complaint({"profile", "show"}), HasSubstr(Database().string()));
}

TEST_F(Account, AServiceThatIsNotThereIsNamedAsTheReason) {
  Output({"profile", "set", "drive_api_url=http://127.0.0.1:1"});
  EXPECT_THAT(Complaint({"ls"}), HasSubstr("connect"));
}

TEST_F(Account, AnswersOfTheServiceAreNamedAsTheReason) {
  const std::string id = drive.Put("file", "x");
  drive.FailNext("drive.files.get.media", 404);
  EXPECT_THAT(Complaint({"cat", "id:" + id}), HasSubstr("HTTP 404"));
  EXPECT_THAT(Complaint({"stat", "id:nonsense"}), HasSubstr("HTTP 404"));
  EXPECT_TRUE(drive.PendingFaults().empty());
}

TEST_F(Account, WrongUseIsOneLineToo) {
  for (const Arguments& arguments : {Arguments{},
                                     {"no-such-command"},
                                     {"cat"},
                                     {"cat", "/x", "--offset", "-1"},
                                     {"ls", "--no-such-option"},
                                     {"--profile", "a/b", "ls"},
                                     {"ls", "/My Drive/none"},
                                     {"cat", "/"},
                                     {"--plugin", "/no/such.so", "ls"},
                                     {"--log-file", "/proc/no/log", "ls"}})
    Complaint(arguments);
}

/// The program with its parts beside it, as installed, but with other certificates.
class Installed : public DriveFixture {
 protected:
  Installed() {
    const auto from = program.parent_path().parent_path();
    for (const char* folder : {"bin", "PlugIns", "Frameworks"})
      std::filesystem::create_directories(Root() / folder);
    std::filesystem::copy_file(program, Root() / "bin/vormlane");
    std::filesystem::copy_file(from / "PlugIns/vormlane_google.so",
                               Root() / "PlugIns/vormlane_google.so");
    program = Root() / "bin/vormlane";
  }
  std::filesystem::path Root() const { return Home() / "installed"; }
  std::filesystem::path Bundle() const { return Root() / "Frameworks/cacert.pem"; }
};

TEST_F(Installed, WithoutCertificatesNoHttps) {
  Output({"profile", "set", "drive_api_url="});
  EXPECT_THAT(Complaint({"ls"}), HasSubstr(Bundle().string()));
  WriteFile(Bundle(), "");
  EXPECT_THAT(Complaint({"ls"}), HasSubstr(Bundle().string()));
}

TEST_F(Installed, OnlyATrustedServerIsTalkedTo) {
  emulator::Options options;
  options.tlsDirectory = (Home() / "tls").string();
  emulator::DriveEmulator secure(options);
  host::Credential credential;
  credential.accessToken = secure.AccessToken();
  Credentials().Save(credential);
  Output({"profile", "set", "drive_api_url=" + secure.ApiUrl()});
  std::filesystem::copy_file("/etc/ssl/certs/ca-certificates.crt", Bundle());
  EXPECT_THAT(Complaint({"whoami"}), HasSubstr("ertificate"));
  EXPECT_EQ(secure.Count("*"), 0);
  std::filesystem::copy_file(Home() / "tls/ca.pem", Bundle(),
                             std::filesystem::copy_options::overwrite_existing);
  EXPECT_THAT(Output({"whoami"}), HasSubstr("demo@example.com"));
}

}  // namespace
}  // namespace host_test
