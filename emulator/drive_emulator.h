// A stand-in for the Google Drive service that runs inside a process: the REST API, OAuth 2.0, the
// push notification service and an admin port, each on its own loopback port.
//
// Every public function may be called from any thread while requests are being served. Ids are
// Drive ids; paths are '/'-separated and relative to the user's root. Functions that look something
// up throw std::out_of_range, naming what was not there; a refused argument throws
// std::invalid_argument.
#pragma once

#include <json/json.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace emulator {

/// The account that every seed holds.
inline constexpr char kDemoUser[] = "demo@example.com";
/// The OAuth client that every seed has registered.
inline constexpr char kClientId[] = "vormlane-demo";
inline constexpr char kClientSecret[] = "vormlane-demo-secret";

struct Options {
  std::string host = "127.0.0.1";
  int port = 0;              ///< of the API; 0: any free port. The other ports are always free ones
  int adminPort = 0;         ///< 0: any free port; always on 127.0.0.1
  std::string tlsDirectory;  ///< not empty: HTTPS, with an authority made there (ca.pem,
                             ///< server.pem, server-key.pem); made again only when missing
  bool pushTls = false;      ///< the push service uses TLS too, with the same certificate
  std::string seed = "empty";              ///< "demo", "empty", or a number of files
  std::chrono::milliseconds roundTrip{0};  ///< added to every request of the API
  int64_t bandwidth = 0;  ///< bytes per second in sum over all connections, each way; 0: unlimited
  std::string dataFile;   ///< SQLite file that keeps the state; empty: kept until destruction
  bool log = false;       ///< one line on stdout for every request answered
};

/// One thing that shall go wrong. Queued per API method; the first fault that matches a request is
/// used and counted down.
struct Fault {
  /// A method name as in the coverage table ("drive.files.get", "drive.files.get.media",
  /// "drive.files.list", "drive.upload.start", "drive.upload.content", ...) or "*".
  std::string method = "*";
  /// When set, the request must also carry this header with this value (an empty value: any).
  std::string header, headerValue;
  /// - "status": answers `status` with `reason`, `body` and `retryAfter`; nothing is applied
  /// - "delay": waits `delay` before the request is handled
  /// - "delay-body": waits `delay` once `at` bytes of the response body are sent
  /// - "reset-before": resets the connection once the request's header is read; nothing is applied
  /// - "reset-body": resets it after `at` bytes of the request body (when the request has one;
  ///   nothing is applied) or else of the response body
  /// - "reset-after": resets it after the last byte of the response
  /// - "applied-not-answered": handles the request, then resets without a byte of response
  /// - "truncate": closes the connection after `at` bytes of a response announced in full
  /// - "double": sends the response body twice, announced as such
  /// - "garbage": replaces the response body by `body`, or by bytes that are no JSON
  /// - "content-length": announces `at` bytes more (or less) than are sent, then closes; 0 means 16
  /// - "drip": sends the response body byte by byte with `delay` (0 means 100 ms) between
  /// - "expire-token-at": the request's access token expires once `at` bytes of the request and
  ///   response bodies have passed; a request body that reaches it is answered 401
  /// - "redirect": answers `status` (300-399) with "Location: `location`"
  /// - "rate-limit": from now on `at` requests per second and user; what is over it is answered
  ///   `status` (403 or 429) with `reason`. Stays until the faults are cleared
  std::string kind = "status";
  int status = 500;
  std::string reason;  ///< error.errors[].reason; empty: the usual one of the status
  int64_t at = 0;      ///< bytes
  std::chrono::milliseconds delay{0};
  std::string location;
  std::string body;     ///< sent in place of the usual error document when not empty
  int retryAfter = -1;  ///< seconds; negative: no Retry-After header
  int times = 1;        ///< requests that the fault strikes; at least 1
};

/// One request as the emulator saw it.
struct JournalEntry {
  int64_t id = 0;      ///< ascending
  std::string method;  ///< name in the coverage table; "unknown" when no route matches
  std::string httpMethod, path, query, user;
  uint64_t connection = 0;                      ///< number of the TCP connection that carried it
  int status = 0;                               ///< 0: no response was begun
  int64_t requestBytes = 0, responseBytes = 0;  ///< of the bodies
  double startSeconds = 0;                      ///< since the Unix epoch
  double seconds = 0;
  std::map<std::string, std::string> headers;  ///< of the request, lower-case names
  std::string requestBody;  ///< its first 64 KiB; old ones are dropped beyond 32 MiB in sum
};

/// What the push service does with a new WebSocket connection.
enum class PushBehaviour {
  kAccept,
  kRefuse,  ///< the hand-shake is answered by a close
  kStall,   ///< the TCP connection is accepted, the hand-shake is never answered
  kDrop,    ///< closed as soon as it is open
  kFlood,   ///< sent thousands of messages as soon as it is open
};

class DriveEmulator {
 public:
  /// Listening when it returns; throws std::runtime_error with the reason otherwise.
  explicit DriveEmulator(Options options = {});
  ~DriveEmulator();
  DriveEmulator(const DriveEmulator&) = delete;
  DriveEmulator& operator=(const DriveEmulator&) = delete;

  // Addresses, without a final '/' where not said otherwise.
  std::string ApiUrl() const;  ///< "http://127.0.0.1:PORT", https with TLS; OAuth is there too
  std::string AdminUrl() const;
  std::string PushUrl() const;        ///< "ws://127.0.0.1:PORT/" (or wss), ready for a channel name
  std::string PushApiUrl() const;     ///< the base of POST /api/v1/change_subscriptions/
  std::string PushUserToken() const;  ///< the token that the push service knows

  // Accounts.
  void AddUser(const std::string& email, const std::string& displayName);
  /// A new bearer token, valid for an hour.
  std::string AccessToken(const std::string& user = kDemoUser);
  std::string RefreshToken(const std::string& user = kDemoUser);
  /// Makes every access token that exists invalid; refresh tokens stay.
  void ExpireTokens();
  /// Makes every refresh token invalid as well, as when a user withdraws consent.
  void RevokeTokens();
  /// Makes every resumable upload session that exists unknown, as after a week.
  void ExpireUploads();
  /// `total` in bytes.
  void SetQuota(const std::string& user, int64_t total);
  int64_t QuotaUsed(const std::string& user = kDemoUser) const;

  // The store. Each change enters the change log as one made through the API would.
  std::string RootId(const std::string& user = kDemoUser) const;
  /// Makes the folders of `path` that are missing; returns the last one's id.
  std::string MakeFolder(const std::string& path, const std::string& user = kDemoUser);
  /// Makes or overwrites a file, its folders included.
  std::string Put(const std::string& path, const std::string& content,
                  const std::string& mimeType = "", const std::string& user = kDemoUser);
  /// A file of `size` generated bytes that takes no space. Its MD5 is computed when a client first
  /// asks for it, about two seconds for each GiB.
  std::string PutSynthetic(const std::string& path, int64_t size,
                           const std::string& user = kDemoUser);
  /// Makes a new file even when one of that name exists. Types "application/vnd.google-apps.*"
  /// make folders and Google documents.
  std::string PutUnder(const std::string& parentId, const std::string& name,
                       const std::string& content, const std::string& mimeType = "");
  /// `count` empty files PREFIX0, PREFIX1, ... in one go, without change-log entries.
  void AddChildren(const std::string& parentId, int64_t count, const std::string& prefix);
  /// Replaces the content of a file.
  void Write(const std::string& id, const std::string& content);
  /// Deletes for good, descendants included.
  void Remove(const std::string& id);
  void Trash(const std::string& id, bool trashed = true);
  void Rename(const std::string& id, const std::string& name);
  /// Makes `parentId` the only parent.
  void Move(const std::string& id, const std::string& parentId);
  void AddParent(const std::string& id, const std::string& parentId);
  /// A team drive with `user` as its organizer; its id is also the id of its root folder.
  std::string MakeTeamDrive(const std::string& name, const std::string& user = kDemoUser);
  /// `role` is a Drive role: "reader", "commenter", "writer", ...
  void ShareWith(const std::string& id, const std::string& user,
                 const std::string& role = "reader");

  /// The id at a path; the first by age when several have the name.
  std::optional<std::string> Find(const std::string& path,
                                  const std::string& user = kDemoUser) const;
  /// The bytes of a file; none when it does not exist or has no content.
  std::optional<std::string> Content(const std::string& id) const;
  /// `length` bytes (less at the end) from `offset`, for files too large to hold.
  std::optional<std::string> Content(const std::string& id, int64_t offset, int64_t length) const;
  /// The full file resource as its owner sees it; null when it does not exist.
  Json::Value Item(const std::string& id) const;
  /// Ids of the children of that name that are not in the trash, by age.
  std::vector<std::string> ChildrenNamed(const std::string& parentId,
                                         const std::string& name) const;
  std::vector<std::string> Children(const std::string& parentId) const;
  /// Items of all users, roots and trashed ones included.
  int64_t Items() const;
  /// What `user` sees, trash left out:
  /// {"root": NODE, "teamDrives": [NODE...], "sharedWithMe": [NODE...]}, a NODE being {"id",
  /// "name", "mimeType", "size" (a number, files with content only), "modifiedTime", "children":
  /// [NODE...] (folders only, sorted by name, then id)}.
  Json::Value DumpTree(const std::string& user = kDemoUser) const;

  // Faults.
  /// Throws std::invalid_argument for an unknown method or kind, or values that make no sense.
  void Inject(const Fault& fault);
  void FailNext(const std::string& method, int status, int times = 1,
                const std::string& reason = "");
  /// What has not been used up, with `times` left.
  std::vector<Fault> PendingFaults() const;
  void ClearFaults();
  void SetRoundTrip(std::chrono::milliseconds roundTrip);
  void SetBandwidth(int64_t bytesPerSecond);

  // Journal, of the API (OAuth included) and of the push service's REST side.
  /// Requests begun since the last clear, by method name; "*" counts all.
  int Count(const std::string& method) const;
  /// The latest 100,000 requests that have ended.
  std::vector<JournalEntry> Journal() const;
  /// Empties journal and counters.
  void ClearJournal();
  /// API connections that carried a request since the last clear.
  int Connections() const;

  // Push.
  void SetPushBehaviour(PushBehaviour behaviour);
  /// WebSocket connections that are open now.
  int PushConnections() const;
  /// Closes them all without a closing hand-shake.
  void DropPushConnections();
  /// Sends `text` to everyone on the channel.
  void SendPush(const std::string& channel, const std::string& text);
  /// Drive notification channels that are neither stopped nor expired.
  int OpenChannels() const;

  class Impl;

 private:
  std::unique_ptr<Impl> impl;
};

}  // namespace emulator
