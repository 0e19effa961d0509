// The program against an emulated drive: the words that the tests of the commands are written in.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "emulator/drive_emulator.h"
#include "host/core/credential_store.h"
#include "host/core/json_text.h"
#include "host/core/paths.h"
#include "tests/host/program.h"

namespace host_test {

using Arguments = std::vector<std::string>;

inline std::string ReadFile(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

inline void WriteFile(const std::filesystem::path& file, const std::string& content) {
  std::filesystem::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary) << content;
}

/// `size` bytes that do not repeat soon.
inline std::string Bytes(size_t size, uint32_t seed = 1) {
  std::string bytes(size, '\0');
  uint32_t state = seed;
  for (char& c : bytes) {
    state = state * 1664525u + 1013904223u;
    c = static_cast<char>(state >> 24);
  }
  return bytes;
}

class DriveFixture : public testing::Test {
 protected:
  explicit DriveFixture(const std::string& seed = "empty") : drive(Seeded(seed)) {
    SignIn();
    EXPECT_EQ(Run({"profile", "set", "drive_api_url=" + drive.ApiUrl(),
                   "oauth_token_url=" + drive.ApiUrl() + "/token"})
                  .exitCode,
              0);
  }

  static emulator::Options Seeded(const std::string& seed) {
    emulator::Options options;
    options.seed = seed;
    return options;
  }

  /// Stores a credential that is good for an hour and can be renewed.
  void SignIn() {
    host::Credential credential;
    credential.accessToken = drive.AccessToken();
    credential.refreshToken = drive.RefreshToken();
    credential.clientId = emulator::kClientId;
    credential.clientSecret = emulator::kClientSecret;
    Credentials().Save(credential);
  }
  host::CredentialStore Credentials() const {
    return host::CredentialStore(Home() / "config/vormlane/default/credential.json", nullptr);
  }

  std::filesystem::path Home() const { return home.Path(); }
  std::filesystem::path Database() const { return Home() / "data/vormlane/default/state.db"; }
  std::map<std::string, std::string> Environment() const {
    return {{"HOME", Home().string()},
            {"PATH", "/usr/bin:/bin"},
            {"XDG_CONFIG_HOME", (Home() / "config").string()},
            {"XDG_DATA_HOME", (Home() / "data").string()},
            {"XDG_CACHE_HOME", (Home() / "cache").string()}};
  }
  std::unique_ptr<Process> Start(const Arguments& arguments, const std::string& input = {}) const {
    Arguments command = {program.string()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<Process>(command, Environment(), input);
  }
  Outcome Run(const Arguments& arguments, const std::string& input = {}) const {
    return Start(arguments, input)->Finish();
  }
  /// The output of a command that succeeds and says nothing else.
  std::string Output(const Arguments& arguments) const {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }
  Json::Value JsonOutput(Arguments arguments) const {
    arguments.push_back("--json");
    const auto value = host::ParseJson(Output(arguments));
    EXPECT_TRUE(value);
    return value.value_or(Json::Value());
  }
  /// The one line that a failing command says. Everything else is a test failure.
  std::string Complaint(const Arguments& arguments) const { return ComplaintOf(Run(arguments)); }
  static std::string ComplaintOf(const Outcome& outcome) {
    EXPECT_NE(outcome.exitCode, 0);
    EXPECT_LT(outcome.exitCode, 128) << "ended by a signal";
    EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
    EXPECT_EQ(outcome.err.rfind("vormlane: ", 0), 0u) << outcome.err;
    return outcome.err;
  }

  host::TemporaryDirectory home{"vormlane-test-"};
  std::filesystem::path program = VORMLANE_PROGRAM;
  emulator::DriveEmulator drive;
};

}  // namespace host_test
