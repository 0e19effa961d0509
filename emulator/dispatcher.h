// Takes each request through fault, delay, authorisation, handler and response.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <vector>

#include "emulator/connection.h"
#include "emulator/fault_queue.h"
#include "emulator/journal.h"
#include "emulator/routes.h"
#include "emulator/service.h"

namespace emulator {

/// Any thread; everything it refers to must outlive it.
class Dispatcher {
 public:
  struct Parts {
    Service& service;
    FaultQueue& faults;
    RequestJournal& journal;
    Stopper& stopper;
    bool countsConnections;  ///< whether its connections are among those that the journal counts
  };
  /// `scheme`: "http" or "https", for addresses in responses.
  Dispatcher(Parts shared, const std::vector<Route>& served, const char* urlScheme);

  void SetRoundTrip(std::chrono::milliseconds time) { roundTrip = time.count(); }
  /// Handles one request to its end. Throws nothing.
  void Handle(Connection& connection, const httplib::Request& request,
              const httplib::ContentReader* body);

 private:
  struct Exchange;
  void Run(Exchange& exchange);
  void EndEntry(Exchange& exchange);
  void StrikeOrAnswer(Exchange& exchange);
  Reply Answer(Exchange& exchange);
  Reply Invoke(Exchange& exchange);
  void Authorise(Exchange& exchange);
  bool ReadBody(Exchange& exchange, const Call::Sink& sink);
  void Respond(Exchange& exchange, Reply reply);
  void Passed(Exchange& exchange, int64_t bytes);

  Parts parts;
  const std::vector<Route>& routes;
  const std::string scheme;
  std::atomic<int64_t> roundTrip{0};  ///< milliseconds
};

}  // namespace emulator
