#include "emulator/responder.h"

#include <algorithm>

#include "emulator/api_error.h"
#include "emulator/times.h"

namespace emulator {

namespace {

constexpr int64_t kPiece = 256 * 1024;
constexpr size_t kSurelyBuffered = 32 * 1024;  // what the connection holds back until it is flushed
constexpr size_t kTail = 256;
constexpr std::chrono::milliseconds kUsualDrip{100};
constexpr int64_t kUsualMiscount = 16;

}  // namespace

Responder::Responder(Connection& to, Stopper& stop, const std::optional<Fault>& wireFault,
                     Told listeners)
    : connection(to), stopper(stop), fault(wireFault), told(std::move(listeners)) {}

void Responder::Send(const Reply& reply, bool headOnly, bool last) {
  int64_t announced = reply.Length();
  if (FaultIs("double")) announced *= 2;
  if (FaultIs("content-length")) announced += fault->at != 0 ? fault->at : kUsualMiscount;
  total = reply.Length() * (FaultIs("double") ? 2 : 1);
  SendHead(reply, std::max<int64_t>(announced, 0), last);
  if (headOnly) {
    told.beforeEnd(0);
    return;
  }
  if (SendBody(reply) && FaultIs("double")) SendBody(reply);
  Finish();
}

void Responder::SendHead(const Reply& reply, int64_t announced, bool last) {
  std::string head = "HTTP/1.1 " + std::to_string(reply.status) + " " + StatusPhrase(reply.status) +
                     "\r\nDate: " + HttpDate(NowMilliseconds()) +
                     "\r\nServer: drive-emulator\r\nCache-Control: private\r\n";
  if (!reply.contentType.empty()) head += "Content-Type: " + reply.contentType + "\r\n";
  for (const auto& [name, value] : reply.headers) head += name + ": " + value + "\r\n";
  if (reply.status != 204) head += "Content-Length: " + std::to_string(announced) + "\r\n";
  head += last ? "Connection: close\r\n\r\n" : "\r\n";
  connection.Send(head);
}

// The body up to the place where the fault strikes, the fault, and the rest.
bool Responder::SendBody(const Reply& reply) {
  const int64_t length = reply.Length();
  const bool strikes = FaultIs("delay-body") || FaultIs("reset-body") || FaultIs("truncate");
  const int64_t until = strikes ? std::min(fault->at, length) : length;
  if (!SendRange(reply, 0, until)) return false;
  if (strikes && !AtFault()) return false;
  return SendRange(reply, until, length);
}

bool Responder::SendRange(const Reply& reply, int64_t from, int64_t to) {
  if (!reply.source) {
    return SendPiece(reply.body.data() + from, static_cast<size_t>(to - from));
  }
  std::string piece;
  for (int64_t at = from; at < to;) {
    piece.resize(static_cast<size_t>(std::min(kPiece, to - at)));
    if (!reply.source->Read(reply.sourceOffset + at, piece.data(), piece.size())) {
      connection.Reset();
      return false;
    }
    if (!SendPiece(piece.data(), piece.size())) return false;
    at += static_cast<int64_t>(piece.size());
  }
  return true;
}

bool Responder::SendPiece(const char* data, size_t size) {
  if (size == 0) return !connection.Broken();
  if (FaultIs("drip")) return Drip(data, size);
  // The very last bytes wait in the connection's buffer for Finish.
  const bool last = sent + static_cast<int64_t>(size) == total;
  const size_t tail = last && size > kSurelyBuffered ? kTail : 0;
  if (!connection.Send(data, size - tail)) return false;
  if (tail > 0 && (!connection.Flush() || !connection.Send(data + size - tail, tail))) return false;
  sent += static_cast<int64_t>(size);
  told.passed(sent);
  return true;
}

bool Responder::Drip(const char* data, size_t size) {
  const auto pause = fault->delay.count() > 0 ? fault->delay : kUsualDrip;
  for (size_t i = 0; i < size; ++i) {
    if (!connection.Send(data + i, 1) || !connection.Flush()) return false;
    told.passed(++sent);
    if (!stopper.WaitFor(pause)) return false;
  }
  return true;
}

// False when nothing more is to be sent.
bool Responder::AtFault() {
  connection.Flush();
  if (fault->kind == "delay-body") return stopper.WaitFor(fault->delay);
  if (fault->kind == "truncate") {
    connection.Close();
  } else {
    connection.Reset();
  }
  return false;
}

void Responder::Finish() {
  if (connection.Broken()) return;
  told.beforeEnd(sent);
  connection.Flush();
  if (FaultIs("reset-after")) connection.Reset();
  if (FaultIs("content-length")) connection.Close();
}

}  // namespace emulator
