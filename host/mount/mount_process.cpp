#include "host/mount/mount_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "host/core/interrupt.h"
#include "host/mount/damage.h"
#include "host/mount/fuse_mount.h"
#include "host/mount/mount_point.h"
#include "host/mount/mount_service.h"

namespace host::mount {
namespace {

/// How long a host that has lost its mount may take to end.
constexpr Milliseconds kOwnEnd{5000};
constexpr Milliseconds kBetweenLooks{50};

std::filesystem::path LockOf(const ProfilePaths& paths) { return paths.data / "mount.lock"; }

/// One host at a time on a profile: two would not know of each other's pending changes.
class ProfileLock {
 public:
  ProfileLock(const ProfilePaths& paths, const std::filesystem::path& folder) {
    MakePrivateDirectory(paths.data);
    const std::filesystem::path file = LockOf(paths);
    descriptor = Descriptor(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (descriptor.Get() < 0)
      throw Failure("cannot open " + file.string() + ": " + std::strerror(errno),
                    "check that you may write there");
    if (flock(descriptor.Get(), LOCK_EX | LOCK_NB) != 0)
      throw Failure("the profile \"" + paths.name + "\" is mounted already, at " +
                        ServedBy(paths).folder.string(),
                    "see `vormlane status`, use another profile, or `vormlane unmount` first");
    Introduce(folder);
  }

 private:
  /// For those that find the mount silent. A full disk is no reason not to mount.
  void Introduce(const std::filesystem::path& folder) const {
    const std::string text = std::to_string(getpid()) + "\n" + folder.string() + "\n";
    if (ftruncate(descriptor.Get(), 0) != 0 ||
        pwrite(descriptor.Get(), text.data(), text.size(), 0) < 0)
      ftruncate(descriptor.Get(), 0);
  }

  Descriptor descriptor;
};

/// The way in which a process in the background tells the one that the user started.
class Starter {
 public:
  /// In the parent it does not return: that ends with the child's word.
  explicit Starter(bool foreground) {
    if (foreground) return;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw Failure("cannot start a process", "try again");
    const pid_t child = fork();
    if (child < 0) throw Failure("cannot start a process", "try again");
    if (child > 0) {
      close(ends[1]);
      Await(Descriptor(ends[0]));
    }
    close(ends[0]);
    setsid();
    report = Descriptor(ends[1]);
  }

  void Ready() {
    if (report.Get() < 0) return;
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(null, stream);
    close(null);
    Tell("+");
  }
  /// True when somebody was told.
  bool Failed(const std::string& why) { return report.Get() >= 0 && Tell(why); }

 private:
  bool Tell(const std::string& text) {
    const Descriptor end = std::move(report);
    return write(end.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }

  [[noreturn]] static void Await(const Descriptor& from) {
    std::string word;
    char buffer[512];
    for (ssize_t count; (count = read(from.Get(), buffer, sizeof buffer)) > 0;)
      word.append(buffer, static_cast<size_t>(count));
    if (word == "+") _exit(0);
    std::fprintf(stderr, "vormlane: %s\n", word.empty() ? "the mount ended" : word.c_str());
    _exit(1);
  }

  Descriptor report;
};

bool HasPushService(const ProfileStore& profile) {
  for (const char* key : {"user_token", "api_server_url", "drive_id", "device_id"})
    if (!profile.Value(key)) return false;
  return true;
}

/// Why the first connection failed.
using Reason = std::optional<Failure>;

/// Connects; without a network that is for later.
Reason TryConnect(Session& session) {
  try {
    session.Connect();
    session.RequireAccount();
    return std::nullopt;
  } catch (const Failure& failure) {
    session.Log().Error(failure.what());
    return failure;
  }
}

std::unique_ptr<Drive> OpenDrive(Session& session, ChangeRelay& relay, const MountOptions& options,
                                 const ProfilePaths& paths, const Reason& reason) {
  try {
    return std::make_unique<Drive>(session.Drive(), relay, paths.Database(),
                                   paths.data / "contents", reason ? "" : session.RootId(),
                                   options.settings);
  } catch (const NeverReached&) {
    if (!reason) throw;
    throw Failure(*reason);
  }
}

void StartPush(Session& session, ChangeRelay& relay) {
  if (!HasPushService(session.Profile())) return;
  if (const AERROR code = session.Drive().SetChangesCallback(&relay); code != AERROR::SUCCESS)
    session.Log().Error(session.Failed("no pushed changes", code).what());
}

/// The plug-in stores its change cursor when the service has told of changes, and reports them
/// after one request more.
class CursorWatch {
 public:
  CursorWatch(ProfileStore& watched, FolderCache& folders) : profile(watched) {
    profile.Listen([&folders, cursor = profile.Value("lastchangeid").value_or("")](
                       const std::string& key, const std::string& value) mutable {
      if (key == "lastchangeid" && std::exchange(cursor, value) != value) folders.ExpectChanges();
    });
  }
  ~CursorWatch() { profile.Listen(nullptr); }
  CursorWatch(const CursorWatch&) = delete;
  CursorWatch& operator=(const CursorWatch&) = delete;

 private:
  ProfileStore& profile;
};

/// Every file that a program has open takes a descriptor here as well.
void AllowManyOpenFiles() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

int64_t Left(Drive& drive) {
  std::lock_guard lock(drive.state.mutex);
  return drive.state.journal.Count();
}

void Serve(Context& context, const MountOptions& options, Starter& starter) {
  const ProfilePaths paths = context.Paths();
  const ProfileLock lock(paths, options.folder);
  AllowManyOpenFiles();
  if (const auto aside = SetDamagedAside(paths))
    std::fprintf(stderr,
                 "vormlane: the profile's database was damaged and begins anew; the old one is in "
                 "%s, with every file that was not on the service yet\n",
                 aside->c_str());
  if (PrepareMountPoint(options.folder))
    std::fprintf(stderr, "vormlane: a dead mount at %s was taken away\n", options.folder.c_str());
  ChangeRelay relay;
  struct CloseFirst {
    Context& context;
    ~CloseFirst() { context.Close(); }
  } const close{context};
  Session& session = context.Opened();
  const Reason reason = TryConnect(session);
  if (reason && reason->Code() == AERROR::FS_NEED_AUTHORIZE) throw Failure(*reason);
  const std::unique_ptr<Drive> opened = OpenDrive(session, relay, options, paths, reason);
  Drive& drive = *opened;
  const InterruptWatch interrupts;  // from here on, ending leaves no dead mount
  FuseMount mounted(drive, options.folder);
  MountService service(drive, options.folder,
                       {[&] { mounted.End(); }, [&] { return session.Credentials().Refusal(); }});
  const auto handle = [&](const Json::Value& request, const StatusServer::Send& send) {
    service.Handle(request, send);
  };
  const StatusServer server(SocketOf(paths), handle);
  const CursorWatch watch(session.Profile(), drive.folders);
  drive.Start([&, connected = !reason, first = true]() mutable {
    // Who had to sign in again has done so.
    if (!connected || session.Credentials().StoredAnew()) {
      connected = !TryConnect(session);
      if (connected && !drive.IsOwnAccount()) {
        session.Log().Error("another account was signed in: the mount ends");
        mounted.End();
      } else if (connected) {
        drive.queue.Hurry();
      }
    }
    if (connected && options.push && std::exchange(first, false)) StartPush(session, relay);
    return connected;
  });
  starter.Ready();
  mounted.Serve();
  drive.files.CommitAll();
  drive.Stop();
  SayWhatIsLeft(Left(drive));
}

}  // namespace

std::filesystem::path SocketOf(const ProfilePaths& paths) { return paths.runtime / "mount.sock"; }

void SayWhatIsLeft(int64_t changes) {
  if (changes == 0) return;
  const bool one = changes == 1;
  std::fprintf(stderr,
               "vormlane: %s not on the service yet; %s safe on this machine and %s sent after the "
               "next mount\n",
               (std::to_string(changes) + (one ? " change is" : " changes are")).c_str(),
               one ? "it is" : "they are", one ? "is" : "are");
}

Server ServedBy(const ProfilePaths& paths) {
  Server server;
  std::ifstream file(LockOf(paths));
  std::string folder;
  if (file >> server.process >> std::ws) std::getline(file, folder);
  server.folder = folder;
  return server;
}

void AwaitEnd(const ProfilePaths& paths) {
  const Descriptor lock(open(LockOf(paths).c_str(), O_RDWR | O_CLOEXEC));
  while (lock.Get() >= 0 && flock(lock.Get(), LOCK_EX) != 0 && errno == EINTR) {
  }
}

void MakeEnd(const ProfilePaths& paths) {
  const Descriptor lock(open(LockOf(paths).c_str(), O_RDWR | O_CLOEXEC));
  for (auto left = kOwnEnd; lock.Get() >= 0; left -= kBetweenLooks) {
    if (flock(lock.Get(), LOCK_EX | LOCK_NB) == 0) return;
    if (left <= Milliseconds(0)) break;
    std::this_thread::sleep_for(kBetweenLooks);
  }
  // Whoever holds the lock has written its number there.
  const pid_t process = ServedBy(paths).process;
  if (process > 0 && kill(process, SIGKILL) == 0) AwaitEnd(paths);
}

void RunMount(Context& context, const MountOptions& options) {
  Starter starter(options.foreground);
  try {
    Serve(context, options, starter);
  } catch (const std::exception& failure) {
    if (!starter.Failed(failure.what())) throw;
    _exit(1);
  }
  if (!options.foreground) _exit(0);
}

}  // namespace host::mount
