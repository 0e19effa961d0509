#include "tests/mount/mounted_program.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "host/core/credential_store.h"
#include "host/core/profile_store.h"
#include "host/mount/mount_point.h"

namespace host::mount {
namespace fs = std::filesystem;
namespace {

constexpr std::chrono::milliseconds kBetweenLooks{2};
constexpr std::chrono::milliseconds kEnding{3000};
constexpr std::chrono::milliseconds kPatience{60'000};

}  // namespace

std::string WhyNoMount() {
  if (access("/dev/fuse", R_OK | W_OK) != 0) return "/dev/fuse cannot be used here";
  return geteuid() == 0 ? "" : "taking dead mounts away needs root";
}

std::vector<std::string> QuickOptions() {
  return {"--poll", "3600",     "--no-push", "--upload-delay", "0.01", "--retry",
          "0.02",   "--settle", "0.05"};
}

MountedProgram::MountedProgram(emulator::DriveEmulator& service, fs::path givenHome)
    : MountedProgram({{"drive_api_url", service.ApiUrl()},
                      {"user_token", service.PushUserToken()},
                      {"api_server_url", service.PushApiUrl()},
                      {"push_server_url", service.PushUrl()},
                      {"drive_id", "drive"},
                      {"device_id", "device"}},
                     service.AccessToken(), std::move(givenHome)) {}

MountedProgram::MountedProgram(const std::map<std::string, std::string>& settings,
                               const std::string& accessToken, fs::path givenHome)
    : dataHome(givenHome.empty() ? directory.Path() / "data" : std::move(givenHome)) {
  fs::create_directory(folder);
  ProfilePaths paths;
  paths.name = "default";
  paths.data = Data();
  ProfileStore profile(paths);
  for (const auto& [key, value] : settings) profile.SetValue(profile.Id(), key, value);
  SignIn(accessToken);
}

void MountedProgram::SignIn(const std::string& accessToken) const {
  Credential credential;
  credential.accessToken = accessToken;
  CredentialStore(directory.Path() / "config/vormlane/default/credential.json", nullptr)
      .Save(credential);
}

MountedProgram::~MountedProgram() {
  Kill();
  Detach();
}

pid_t MountedProgram::Spawn(const std::vector<std::string>& arguments, int output) const {
  std::vector<std::string> words = {VORMLANE_PROGRAM};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  const std::string base = directory.Path().string();
  std::vector<std::string> settings = {"XDG_CONFIG_HOME=" + base + "/config",
                                       "XDG_DATA_HOME=" + dataHome.string(),
                                       "XDG_CACHE_HOME=" + base + "/cache",
                                       "XDG_RUNTIME_DIR=" + base + "/run",
                                       "HOME=" + base,
                                       "PATH=" + std::string(getenv("PATH")),
                                       "ASAN_OPTIONS=detect_leaks=0:intercept_tls_get_addr=0"};
  std::vector<char*> environment;
  for (std::string& setting : settings) environment.push_back(setting.data());
  environment.push_back(nullptr);
  const pid_t child = fork();
  if (child != 0) return child;
  if (output >= 0) {
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
  }
  execve(VORMLANE_PROGRAM, argv.data(), environment.data());
  _exit(127);
}

bool MountedProgram::IsMounted() const {
  struct stat inside {};
  struct stat above {};
  struct statvfs room {};
  if (statvfs(folder.c_str(), &room) != 0)
    return false;  // a dead mount's attributes are remembered
  return stat(folder.c_str(), &inside) == 0 && stat(folder.parent_path().c_str(), &above) == 0 &&
         inside.st_dev != above.st_dev;
}

bool MountedProgram::Mount(const std::vector<std::string>& options) {
  std::vector<std::string> arguments = {"mount", folder.string(), "--foreground"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  process = Spawn(arguments, -1);
  for (int i = 0; i < 3000; ++i) {
    if (IsMounted()) return true;
    int status = 0;
    if (waitpid(process, &status, WNOHANG) == process) {
      process = -1;
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

void MountedProgram::Kill() {
  if (process < 0) return;
  kill(process, SIGKILL);
  int status = 0;
  // The kernel may have it wait for a program that waits for it.
  if (!Ended(kEnding, status)) TearDown(folder);
  if (!Ended(kEnding, status)) ADD_FAILURE() << "the host cannot be killed";
  process = -1;
}

bool MountedProgram::Terminate() {
  kill(process, SIGTERM);
  int status = 0;
  const bool ended = Ended(kPatience, status);
  if (!ended) Kill();
  process = -1;
  return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool MountedProgram::Ended(std::chrono::milliseconds limit, int& status) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (waitpid(process, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(kBetweenLooks);
  }
  return true;
}

void MountedProgram::Keep(const fs::path& place) const {
  std::error_code ignored;
  fs::remove_all(place, ignored);
  fs::copy(dataHome, place, fs::copy_options::recursive, ignored);
}

void MountedProgram::Detach() { umount2(folder.c_str(), MNT_DETACH); }

bool MountedProgram::Unmount() {
  const bool asked = Run({"unmount"}) == 0;
  int status = 0;
  if (process >= 0 && !Ended(kPatience, status)) Kill();
  process = -1;
  return asked && WIFEXITED(status) && WEXITSTATUS(status) == 0 && !IsMounted();
}

int MountedProgram::Run(const std::vector<std::string>& arguments, std::string* output) const {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return -1;
  const pid_t child = Spawn(arguments, ends[1]);
  close(ends[1]);
  char buffer[4096];
  for (ssize_t count; (count = read(ends[0], buffer, sizeof buffer)) > 0;)
    if (output != nullptr) output->append(buffer, static_cast<size_t>(count));
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace host::mount
