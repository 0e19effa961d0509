#include "host/mount/status_text.h"

#include <algorithm>

namespace host::mount {
namespace {

std::string Rate(const Json::Value& bytesPerSecond) {
  return HumanBytes(bytesPerSecond.asInt64()) + "/s";
}

std::string RateIfAny(const Json::Value& bytesPerSecond) {
  return bytesPerSecond.asInt64() == 0 ? "" : " (" + Rate(bytesPerSecond) + ")";
}

std::string TransferLines(const Json::Value& transfers) {
  std::string text;
  for (const Json::Value& transfer : transfers) {
    const int64_t bytes = std::max<int64_t>(transfer["bytes"].asInt64(), 1);
    text += "  " + PadLeft(std::to_string(transfer["done"].asInt64() * 100 / bytes) + " %", 6) +
            "  " + Printable(transfer["name"].asString()) + "  (" + HumanBytes(bytes) + ", " +
            Rate(transfer["bytesPerSecond"]) + ")\n";
  }
  return text;
}

std::string WaitingLines(const Json::Value& status, const Paint& paint) {
  std::string text;
  for (const Json::Value& row : status["waiting"]) {
    if (row["sending"].asBool() && !row.isMember("error")) continue;
    text += "  " + PadRight(row["what"].asString(), 14) + Printable(row["name"].asString());
    if (row.isMember("error")) text += "  " + paint.Yellow(Printable(row["error"].asString()));
    text += "\n";
  }
  return text.empty() ? "" : "waiting\n" + text;
}

std::string Changes(int64_t count) {
  return std::to_string(count) + (count == 1 ? " change" : " changes");
}

}  // namespace

std::string StatusText(const Json::Value& status, const Paint& paint) {
  if (status.isMember("error"))
    return paint.Bold(status["mount"].asString()) + "\n  " +
           paint.Yellow(Printable(status["error"].asString())) + "\n";
  const Json::Value& cache = status["cache"];
  std::string text = paint.Bold(status["mount"].asString()) +
                     (status["connected"].asBool() ? "" : paint.Yellow("  (offline)")) + "\n";
  if (status.isMember("account"))
    text += "  account        " + paint.Yellow(Printable(status["account"].asString())) + "\n";
  text += "  to send        " + Changes(status["pending"].asInt64()) + ", " +
          HumanBytes(cache["pendingBytes"].asInt64()) + "\n";
  text += "  cache          " + HumanBytes(cache["bytes"].asInt64()) + " of " +
          HumanBytes(cache["limit"].asInt64()) + "\n";
  text += "  known items    " + std::to_string(status["items"].asInt64()) + "\n";
  text += "  transferred    " + HumanBytes(status["bytesDown"].asInt64()) + " down" +
          RateIfAny(status["bytesDownPerSecond"]) + ", " + HumanBytes(status["bytesUp"].asInt64()) +
          " up" + RateIfAny(status["bytesUpPerSecond"]) + "\n";
  if (!status["uploads"].empty()) text += "sending\n" + TransferLines(status["uploads"]);
  if (!status["downloads"].empty()) text += "fetching\n" + TransferLines(status["downloads"]);
  text += WaitingLines(status, paint);
  if (!status["events"].empty()) text += "lately\n";
  for (const Json::Value& event : status["events"])
    text += "  " + paint.Faint(event["time"].asString()) + "  " +
            Printable(event["text"].asString()) + "\n";
  return text;
}

}  // namespace host::mount
