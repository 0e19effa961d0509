#include "emulator/dispatcher.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <optional>
#include <utility>

#include "emulator/api_error.h"
#include "emulator/responder.h"
#include "emulator/tokens.h"

namespace emulator {

namespace {

constexpr size_t kJournalledBody = 64 * 1024;
constexpr size_t kLargestBody = 256 << 20;

std::map<std::string, std::string> LowerHeaders(const httplib::Request& request) {
  static const std::vector<std::string> kOwn{"REMOTE_ADDR", "REMOTE_PORT", "LOCAL_ADDR",
                                             "LOCAL_PORT"};
  std::map<std::string, std::string> headers;
  for (const auto& [name, value] : request.headers) {
    if (std::find(kOwn.begin(), kOwn.end(), name) != kOwn.end()) continue;
    std::string lower;
    for (const char c : name)
      lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    headers.emplace(std::move(lower), value);
  }
  return headers;
}

bool AnnouncesBody(const httplib::Request& request) {
  return request.has_header("Content-Length") || request.has_header("Transfer-Encoding");
}

std::string BearerToken(const httplib::Request& request) {
  const std::string header = request.get_header_value("Authorization");
  static constexpr std::string_view kScheme = "Bearer ";
  if (header.size() > kScheme.size() &&
      std::equal(kScheme.begin(), kScheme.end(), header.begin(), [](char a, char b) {
        return std::tolower(a) == std::tolower(static_cast<unsigned char>(b));
      })) {
    return header.substr(kScheme.size());
  }
  return request.get_param_value("access_token");
}

Reply ErrorReply(const ApiError& error) {
  Reply reply = JsonReply(ErrorDocument(error), error.status);
  if (error.status == 401) {
    reply.headers.emplace_back("WWW-Authenticate",
                               "Bearer realm=\"https://accounts.google.com/\", "
                               "error=\"invalid_token\"");
  }
  return reply;
}

Reply FaultReply(const Fault& fault) {
  const std::string reason = fault.reason.empty() ? UsualReason(fault.status) : fault.reason;
  Reply reply = ErrorReply(ApiError(fault.status, reason, StatusPhrase(fault.status)));
  if (!fault.body.empty()) reply.body = fault.body;
  if (fault.retryAfter >= 0) {
    reply.headers.emplace_back("Retry-After", std::to_string(fault.retryAfter));
  }
  if (fault.kind == "redirect") {
    reply.headers.emplace_back("Location", fault.location);
    reply.body = fault.body;
  }
  return reply;
}

}  // namespace

struct Dispatcher::Exchange {
  Exchange(Connection& carrier, const httplib::Request& asked, const httplib::ContentReader* body,
           const Route* matched)
      : connection(carrier), request(asked), reader(body), route(matched), call(asked) {}

  Connection& connection;
  const httplib::Request& request;
  const httplib::ContentReader* reader;
  const Route* route;
  Call call;
  JournalEntry entry;
  std::optional<Fault> fault;
  bool bodyRead = false;
  bool tokenExpired = false;
  bool entryEnded = false;

  bool FaultIs(const char* kind) const { return fault && fault->kind == kind; }
};

Dispatcher::Dispatcher(Parts shared, const std::vector<Route>& served, const char* urlScheme)
    : parts(shared), routes(served), scheme(urlScheme) {}

void Dispatcher::Handle(Connection& connection, const httplib::Request& request,
                        const httplib::ContentReader* body) {
  std::vector<std::string> captures;
  Exchange exchange(connection, request, body, FindRoute(routes, request, captures));
  exchange.call.captures = std::move(captures);
  exchange.call.baseUrl = scheme + "://" + request.get_header_value("Host");
  exchange.entry = parts.journal.Begin(exchange.route != nullptr ? exchange.route->name : "unknown",
                                       connection.Number(), parts.countsConnections);
  exchange.entry.httpMethod = request.method;
  exchange.entry.path = request.path;
  const size_t query = request.target.find('?');
  if (query != std::string::npos) exchange.entry.query = request.target.substr(query + 1);
  exchange.entry.headers = LowerHeaders(request);
  exchange.call.readBody = [this, &exchange](const Call::Sink& sink) {
    const bool complete = ReadBody(exchange, sink);
    if (exchange.tokenExpired) throw Unauthorized();
    return complete;
  };
  exchange.call.authorise = [this, &exchange] { Authorise(exchange); };
  Run(exchange);
  EndEntry(exchange);
}

// Once: before the client has the whole response, so that whoever has it finds the entry.
void Dispatcher::EndEntry(Exchange& exchange) {
  if (!std::exchange(exchange.entryEnded, true)) parts.journal.End(std::move(exchange.entry));
}

void Dispatcher::Run(Exchange& exchange) {
  exchange.fault = parts.faults.Take(exchange.entry.method, exchange.entry.headers);
  if (!parts.stopper.WaitFor(std::chrono::milliseconds(roundTrip))) return;
  try {
    StrikeOrAnswer(exchange);
  } catch (const std::exception& failure) {
    // Only the response itself can fail here; the connection is of no more use.
    exchange.connection.Reset();
  }
}

void Dispatcher::StrikeOrAnswer(Exchange& exchange) {
  if (exchange.FaultIs("reset-before")) return exchange.connection.Reset();
  if (exchange.FaultIs("delay") && !parts.stopper.WaitFor(exchange.fault->delay)) return;
  Reply reply = Answer(exchange);
  if (!exchange.bodyRead) ReadBody(exchange, [](const char*, size_t) { return true; });
  if (exchange.connection.Broken()) return;
  if (exchange.FaultIs("applied-not-answered")) return exchange.connection.Reset();
  Respond(exchange, std::move(reply));
}

Reply Dispatcher::Answer(Exchange& exchange) {
  try {
    return Invoke(exchange);
  } catch (const ApiError& error) {
    return ErrorReply(error);
  } catch (const Json::Exception& wrong) {
    return ErrorReply(BadRequest(wrong.what()));  // a member of another type than it must be
  } catch (const std::exception& failure) {
    return ErrorReply(ApiError(500, "backendError", failure.what()));
  }
}

Reply Dispatcher::Invoke(Exchange& exchange) {
  Call& call = exchange.call;
  const Route* route = exchange.route;
  const bool answersItself = exchange.FaultIs("status") || exchange.FaultIs("redirect");
  if (route == nullptr || !route->streams || answersItself) {
    ReadBody(exchange, [&call, answersItself](const char* data, size_t size) {
      if (answersItself) return true;
      call.body.append(data, size);
      return call.body.size() <= kLargestBody;
    });
  }
  if (answersItself) return FaultReply(*exchange.fault);
  if (route == nullptr) throw ApiError(404, "notFound", "Not Found");
  if (route->needsToken) Authorise(exchange);
  if (exchange.connection.Broken()) return Reply();
  const auto limit = parts.faults.OverLimit(route->name, call.user.email, FaultQueue::Clock::now());
  if (limit) {
    Fault over = *limit;
    if (over.reason.empty()) over.reason = "userRateLimitExceeded";
    return FaultReply(over);
  }
  return route->handler(parts.service, call);
}

void Dispatcher::Authorise(Exchange& exchange) {
  exchange.call.token = BearerToken(exchange.request);
  if (exchange.call.token.empty()) {
    throw ApiError(401, "required", "Login Required.").At("header", "Authorization");
  }
  const auto work = parts.service.store.Begin();
  const auto found = parts.service.tokens.Find(TokenKind::kAccess, exchange.call.token);
  if (!found) throw Unauthorized();
  exchange.call.user = parts.service.store.UserNumbered(found->user);
  exchange.entry.user = exchange.call.user.email;
}

bool Dispatcher::ReadBody(Exchange& exchange, const Call::Sink& sink) {
  exchange.bodyRead = true;
  if (exchange.reader == nullptr || !AnnouncesBody(exchange.request)) return true;
  JournalEntry& entry = exchange.entry;
  const bool complete = (*exchange.reader)([&](const char* data, size_t size) {
    if (exchange.FaultIs("reset-body")) {
      const int64_t left = exchange.fault->at - entry.requestBytes;
      if (static_cast<int64_t>(size) > left) {
        if (left > 0) sink(data, static_cast<size_t>(left));
        exchange.connection.Reset();
        return false;
      }
    }
    entry.requestBytes += static_cast<int64_t>(size);
    const size_t room = kJournalledBody - entry.requestBody.size();
    entry.requestBody.append(data, std::min(size, room));
    Passed(exchange, entry.requestBytes);
    return sink(data, size);
  });
  // What is left of a body that nobody wanted would be taken for the next request.
  if (!complete && !exchange.connection.Broken()) exchange.connection.Reset();
  return complete;
}

void Dispatcher::Passed(Exchange& exchange, int64_t bytes) {
  if (!exchange.FaultIs("expire-token-at") || exchange.tokenExpired) return;
  if (bytes < exchange.fault->at) return;
  parts.service.tokens.Expire(BearerToken(exchange.request));
  exchange.tokenExpired = true;
}

void Dispatcher::Respond(Exchange& exchange, Reply reply) {
  if (exchange.FaultIs("garbage")) {
    reply.source.reset();
    reply.body = exchange.fault->body.empty() ? "\x1f\x8b<<<not what you asked for>>>\xff{\"]"
                                              : exchange.fault->body;
  }
  const bool last = exchange.request.get_header_value("Connection") == "close";
  exchange.entry.status = reply.status;
  const int64_t before = exchange.entry.requestBytes;
  Responder responder(exchange.connection, parts.stopper, exchange.fault,
                      {[&, before](int64_t sent) {
                         if (!exchange.entryEnded) exchange.entry.responseBytes = sent;
                         Passed(exchange, before + sent);
                       },
                       [&](int64_t) { EndEntry(exchange); }});
  responder.Send(reply, exchange.request.method == "HEAD", last);
}

}  // namespace emulator
