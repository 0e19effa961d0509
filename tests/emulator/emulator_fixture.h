// An emulator and one HTTP connection to it, with the words that the tests use.
#pragma once

#include <gtest/gtest.h>
#include <httplib.h>
#include <json/json.h>

#include <memory>
#include <string>

#include "emulator/drive_emulator.h"

namespace emulator_test {

struct Answer {
  int status = 0;  ///< 0: the transfer failed
  std::string body;
  httplib::Headers headers;

  Json::Value Json() const {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string complaint;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    EXPECT_TRUE(reader->parse(body.data(), body.data() + body.size(), &value, &complaint)) << body;
    return value;
  }
  std::string Reason() const { return Json()["error"]["errors"][0]["reason"].asString(); }
  std::string Header(const std::string& name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? "" : found->second;
  }
};

/// Percent-encodes a query value.
inline std::string Encoded(const std::string& text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0) {
      out += c;
    } else {
      out += '%';
      out += kHex[static_cast<unsigned char>(c) >> 4];
      out += kHex[static_cast<unsigned char>(c) & 15];
    }
  }
  return out;
}

class EmulatorTest : public ::testing::Test {
 protected:
  void Start(emulator::Options options = {}) {
    drive = std::make_unique<emulator::DriveEmulator>(options);
    ActAs(emulator::kDemoUser);
  }
  void SetUp() override { Start(); }

  void ActAs(const std::string& user) {
    token = drive->AccessToken(user);
    client = std::make_unique<httplib::Client>(drive->ApiUrl());
    client->set_keep_alive(true);
    client->set_url_encode(false);
  }

  Answer Send(const std::string& method, const std::string& path, const std::string& body = "",
              httplib::Headers headers = {}) {
    httplib::Request request;
    request.method = method;
    // Session addresses come back in full.
    request.path = path.rfind("http", 0) == 0 ? path.substr(path.find('/', 8)) : path;
    request.body = body;
    request.headers = std::move(headers);
    if (!token.empty()) request.set_header("Authorization", "Bearer " + token);
    const httplib::Result result = client->send(request);
    if (!result) return {};
    return {result->status, result->body, result->headers};
  }
  Answer Get(const std::string& path, httplib::Headers headers = {}) {
    return Send("GET", path, "", std::move(headers));
  }

  std::vector<std::string> Names(const std::string& query, const std::string& more = "") {
    const Answer answer =
        Get("/drive/v3/files?fields=files(name)&pageSize=1000&q=" + Encoded(query) + more);
    EXPECT_EQ(answer.status, 200) << answer.body;
    std::vector<std::string> names;
    const Json::Value list = answer.Json();
    for (const Json::Value& file : list["files"]) names.push_back(file["name"].asString());
    return names;
  }

  std::unique_ptr<emulator::DriveEmulator> drive;
  std::unique_ptr<httplib::Client> client;
  std::string token;
};

}  // namespace emulator_test
