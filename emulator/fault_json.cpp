#include "emulator/fault_json.h"

#include <stdexcept>

namespace emulator {

Json::Value FaultToJson(const Fault& fault) {
  Json::Value value;
  value["method"] = fault.method;
  value["header"] = fault.header;
  value["headerValue"] = fault.headerValue;
  value["kind"] = fault.kind;
  value["status"] = fault.status;
  value["reason"] = fault.reason;
  value["at"] = Json::Int64(fault.at);
  value["delay"] = Json::Int64(fault.delay.count());
  value["location"] = fault.location;
  value["body"] = fault.body;
  value["retryAfter"] = fault.retryAfter;
  value["times"] = fault.times;
  return value;
}

Fault FaultFromJson(const Json::Value& value) {
  Fault fault;
  const Json::Value known = FaultToJson(fault);
  if (!value.isObject()) throw std::invalid_argument("a fault is an object");
  for (const std::string& name : value.getMemberNames()) {
    if (!known.isMember(name)) throw std::invalid_argument("a fault has no member " + name);
  }
  try {
    fault.method = value.get("method", fault.method).asString();
    fault.header = value.get("header", "").asString();
    fault.headerValue = value.get("headerValue", "").asString();
    fault.kind = value.get("kind", fault.kind).asString();
    fault.status = value.get("status", fault.status).asInt();
    fault.reason = value.get("reason", "").asString();
    fault.at = value.get("at", 0).asInt64();
    fault.delay = std::chrono::milliseconds(value.get("delay", 0).asInt64());
    fault.location = value.get("location", "").asString();
    fault.body = value.get("body", "").asString();
    fault.retryAfter = value.get("retryAfter", -1).asInt();
    fault.times = value.get("times", 1).asInt();
  } catch (const Json::Exception& wrong) {
    throw std::invalid_argument(std::string("fault: ") + wrong.what());
  }
  return fault;
}

Json::Value EntryToJson(const JournalEntry& entry) {
  Json::Value value;
  value["id"] = Json::Int64(entry.id);
  value["method"] = entry.method;
  value["httpMethod"] = entry.httpMethod;
  value["path"] = entry.path;
  value["query"] = entry.query;
  value["user"] = entry.user;
  value["connection"] = Json::UInt64(entry.connection);
  value["status"] = entry.status;
  value["requestBytes"] = Json::Int64(entry.requestBytes);
  value["responseBytes"] = Json::Int64(entry.responseBytes);
  value["startSeconds"] = entry.startSeconds;
  value["seconds"] = entry.seconds;
  value["headers"] = Json::objectValue;
  for (const auto& [name, text] : entry.headers) value["headers"][name] = text;
  value["requestBody"] = entry.requestBody;
  return value;
}

}  // namespace emulator
