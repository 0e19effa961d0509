// The parts of one emulator, in the order in which they depend on each other.
#pragma once

#include <memory>
#include <string>

#include "emulator/content_store.h"
#include "emulator/dispatcher.h"
#include "emulator/drive_emulator.h"
#include "emulator/fault_queue.h"
#include "emulator/http_server.h"
#include "emulator/journal.h"
#include "emulator/service.h"
#include "emulator/shaper.h"
#include "emulator/stopper.h"
#include "emulator/store.h"
#include "emulator/tls.h"
#include "emulator/tokens.h"
#include "emulator/vocabulary.h"

namespace emulator {

class DriveEmulator::Impl {
 public:
  Impl(DriveEmulator& owner, Options chosen);
  ~Impl();

  std::string Url(const HttpServer& server, bool tls) const;

  const Options options;
  Stopper stopper;
  Shaping shaping;
  ContentStore contents;
  Store store;
  Tokens tokens;
  FaultQueue faults;
  RequestJournal journal;
  Service service;
  Vocabulary vocabulary;
  SslContext tls;
  Dispatcher dispatcher;
  std::unique_ptr<HttpServer> api;
  std::unique_ptr<HttpServer> admin;
};

}  // namespace emulator
