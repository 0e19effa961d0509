// The program drive-emulator.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdio>
#include <exception>
#include <string>

#include "emulator/drive_emulator.h"

namespace {

struct Arguments {
  emulator::Options options;
  std::string listen = "127.0.0.1:0";
  int64_t roundTrip = 0;
};

void Describe(CLI::App& app, Arguments& arguments) {
  app.add_option("--listen", arguments.listen, "address of the API, HOST:PORT; port 0: any")
      ->capture_default_str();
  app.add_option("--admin-port", arguments.options.adminPort, "port of the admin interface");
  app.add_option("--tls", arguments.options.tlsDirectory,
                 "serve HTTPS with a certificate authority made in this folder");
  app.add_flag("--push-tls", arguments.options.pushTls, "use TLS for the push service as well");
  app.add_option("--seed", arguments.options.seed, "demo, empty or a number of files")
      ->default_val("demo");
  app.add_option("--rtt", arguments.roundTrip, "milliseconds added to every request");
  app.add_option("--bandwidth", arguments.options.bandwidth,
                 "bytes per second, over all connections, each way");
  app.add_option("--data", arguments.options.dataFile, "keep the state in this SQLite file");
  app.add_flag("--log", arguments.options.log, "print every request");
}

void Apply(Arguments& arguments) {
  const size_t colon = arguments.listen.rfind(':');
  const std::string port = colon == std::string::npos ? "" : arguments.listen.substr(colon + 1);
  auto& number = arguments.options.port;
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
  if (colon == 0 || error != std::errc() || end != port.data() + port.size() || number < 0 ||
      number > 65535) {
    throw CLI::ValidationError("--listen", "must be HOST:PORT, not " + arguments.listen);
  }
  arguments.options.host = arguments.listen.substr(0, colon);
  arguments.options.roundTrip = std::chrono::milliseconds(arguments.roundTrip);
}

void PrintReady(emulator::DriveEmulator& drive) {
  std::printf("ready api=%s admin=%s push=%s push-api=%s\n", drive.ApiUrl().c_str(),
              drive.AdminUrl().c_str(), drive.PushUrl().c_str(), drive.PushApiUrl().c_str());
  std::fflush(stdout);
}

int Serve(const Arguments& arguments) {
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  // Blocked before any thread is made, so that the signals wait here.
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);
  emulator::DriveEmulator drive(arguments.options);
  PrintReady(drive);
  int received = 0;
  sigwait(&ends, &received);
  return 0;
}

}  // namespace

int main(int count, char** values) {
  CLI::App app("A stand-in for the Google Drive service.", "drive-emulator");
  Arguments arguments;
  Describe(app, arguments);
  try {
    app.parse(count, values);
    Apply(arguments);
    return Serve(arguments);
  } catch (const CLI::ParseError& refused) {
    return app.exit(refused);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "drive-emulator: %s\n", failure.what());
    return 1;
  }
}
