// The parts of one emulator, in the order in which they depend on each other.
#pragma once

#include <memory>
#include <string>

#include "emulator/channels.h"
#include "emulator/content_store.h"
#include "emulator/dispatcher.h"
#include "emulator/drive_emulator.h"
#include "emulator/fault_queue.h"
#include "emulator/http_server.h"
#include "emulator/journal.h"
#include "emulator/push_hub.h"
#include "emulator/service.h"
#include "emulator/shaper.h"
#include "emulator/stopper.h"
#include "emulator/store.h"
#include "emulator/tls.h"
#include "emulator/tokens.h"
#include "emulator/uploads.h"
#include "emulator/vocabulary.h"

namespace emulator {

class DriveEmulator::Impl {
 public:
  explicit Impl(Options chosen);
  ~Impl();

  void ServePush();
  std::string Url(const HttpServer& server, bool tls) const;

  const Options options;
  Stopper stopper;
  Shaping shaping;
  ContentStore contents;
  Store store;
  Tokens tokens;
  Uploads uploads;
  Channels channels;
  PushHub push;
  FaultQueue faults;
  RequestJournal journal;
  Service service;
  Vocabulary vocabulary;
  SslContext tls;
  Dispatcher dispatcher;
  Dispatcher pushDispatcher;
  std::unique_ptr<HttpServer> api;
  std::unique_ptr<HttpServer> pushService;
  std::unique_ptr<HttpServer> admin;
};

}  // namespace emulator
