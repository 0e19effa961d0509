// Writes a reply to the wire, in order or as a fault wants it.
#pragma once

#include <functional>
#include <optional>

#include "emulator/call.h"
#include "emulator/connection.h"
#include "emulator/drive_emulator.h"
#include "emulator/stopper.h"

namespace emulator {

class Responder {
 public:
  struct Told {
    std::function<void(int64_t)> passed;     ///< bytes of the body sent so far
    std::function<void(int64_t)> beforeEnd;  ///< the same; the client does not have the last yet
  };
  Responder(Connection& connection, Stopper& stopper, const std::optional<Fault>& fault, Told told);

  /// `headOnly`: a HEAD request; `last`: the connection ends after this response.
  void Send(const Reply& reply, bool headOnly, bool last);

 private:
  bool FaultIs(const char* kind) const { return fault && fault->kind == kind; }
  void SendHead(const Reply& reply, int64_t announced, bool last);
  bool SendBody(const Reply& reply);
  bool SendRange(const Reply& reply, int64_t from, int64_t to);
  bool SendPiece(const char* data, size_t size);
  bool Drip(const char* data, size_t size);
  bool AtFault();
  void Finish();

  Connection& connection;
  Stopper& stopper;
  const std::optional<Fault>& fault;
  Told told;
  int64_t sent = 0;
  int64_t total = 0;  ///< bytes of the body
};

}  // namespace emulator
