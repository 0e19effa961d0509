#include "emulator/drive_emulator.h"

#include <limits>
#include <stdexcept>

#include "emulator/admin.h"
#include "emulator/emulator_impl.h"
#include "emulator/file_resource.h"
#include "emulator/handlers.h"
#include "emulator/ids.h"
#include "emulator/query.h"
#include "emulator/seed.h"

namespace emulator {

namespace {

std::filesystem::path ContentDirectory(const Options& options) {
  return options.dataFile.empty() ? "" : options.dataFile + ".contents";
}

}  // namespace

DriveEmulator::Impl::Impl(Options chosen)
    : options(std::move(chosen)),
      shaping(stopper),
      contents(ContentDirectory(options)),
      store(options.dataFile.empty() ? ":memory:" : options.dataFile, contents),
      tokens(store),
      channels(store),
      push(stopper),
      journal(options.log),
      service{store, tokens, uploads, channels, push},
      vocabulary(store),
      tls(options.tlsDirectory.empty() ? nullptr : ServerTls(options.tlsDirectory)),
      dispatcher({service, faults, journal, stopper, true}, ApiRoutes(), tls ? "https" : "http"),
      pushDispatcher({service, faults, journal, stopper, false}, PushRoutes(),
                     options.pushTls ? "https" : "http") {
  if (options.pushTls && !tls) throw std::invalid_argument("pushTls needs a tlsDirectory");
  AddQueryFunctions(store.Sql());
  if (store.Count() == 0) Seed(store, options.seed);
  store.SetListener([this](const Changed& changed) { channels.Tell(changed); });
  shaping.up.SetRate(options.bandwidth);
  shaping.down.SetRate(options.bandwidth);
  dispatcher.SetRoundTrip(options.roundTrip);
  api = std::make_unique<HttpServer>(
      HttpServer::Settings{options.host, options.port, tls.get(), &shaping},
      [this](Connection& connection, const httplib::Request& request,
             const httplib::ContentReader* body) { dispatcher.Handle(connection, request, body); });
  ServePush();
}

DriveEmulator::Impl::~Impl() {
  stopper.Stop();
  admin.reset();
  api.reset();
  pushService.reset();
}

void DriveEmulator::Impl::ServePush() {
  pushService = std::make_unique<HttpServer>(
      HttpServer::Settings{options.host, 0, options.pushTls ? tls.get() : nullptr, nullptr},
      [this](Connection& connection, const httplib::Request& request,
             const httplib::ContentReader* body) {
        if (request.has_header("Upgrade")) {
          push.Accept(connection, request);
        } else {
          pushDispatcher.Handle(connection, request, body);
        }
      });
}

std::string DriveEmulator::Impl::Url(const HttpServer& server, bool secure) const {
  return (secure ? "https://" : "http://") + options.host + ":" + std::to_string(server.Port());
}

DriveEmulator::DriveEmulator(Options options) : impl(std::make_unique<Impl>(std::move(options))) {
  // Its requests arrive at this object: not before that is whole.
  impl->admin = ServeAdmin(*this, impl->options.adminPort);
}
DriveEmulator::~DriveEmulator() = default;

std::string DriveEmulator::ApiUrl() const { return impl->Url(*impl->api, impl->tls != nullptr); }
std::string DriveEmulator::AdminUrl() const {
  return "http://127.0.0.1:" + std::to_string(impl->admin->Port());
}

std::string DriveEmulator::PushApiUrl() const {
  return impl->Url(*impl->pushService, impl->options.pushTls);
}
std::string DriveEmulator::PushUrl() const {
  return (impl->options.pushTls ? "wss://" : "ws://") + impl->options.host + ":" +
         std::to_string(impl->pushService->Port()) + "/";
}
std::string DriveEmulator::PushUserToken() const { return PushToken(); }

void DriveEmulator::AddUser(const std::string& email, const std::string& displayName) {
  impl->store.AddUser(email, displayName);
}

std::string DriveEmulator::AccessToken(const std::string& user) {
  return impl->tokens.Issue(TokenKind::kAccess, impl->vocabulary.UserOf(user).n, "",
                            Tokens::kLifetimeSeconds);
}

std::string DriveEmulator::RefreshToken(const std::string& user) {
  return impl->tokens.Issue(TokenKind::kRefresh, impl->vocabulary.UserOf(user).n, "", 0);
}

void DriveEmulator::ExpireTokens() { impl->tokens.ExpireAll(TokenKind::kAccess); }

void DriveEmulator::RevokeTokens() {
  impl->tokens.ExpireAll(TokenKind::kAccess);
  impl->tokens.ExpireAll(TokenKind::kRefresh);
}

void DriveEmulator::SetQuota(const std::string& user, int64_t total) {
  impl->store.SetQuota(impl->vocabulary.UserOf(user).n, total);
}

int64_t DriveEmulator::QuotaUsed(const std::string& user) const {
  return impl->vocabulary.UserOf(user).used;
}

std::string DriveEmulator::RootId(const std::string& user) const {
  return impl->vocabulary.UserOf(user).rootId;
}

std::string DriveEmulator::MakeFolder(const std::string& path, const std::string& user) {
  return impl->vocabulary.MakeFolder(path, user);
}

std::string DriveEmulator::Put(const std::string& path, const std::string& content,
                               const std::string& mimeType, const std::string& user) {
  return impl->vocabulary.Put(path, content, mimeType, user);
}

std::string DriveEmulator::PutSynthetic(const std::string& path, int64_t size,
                                        const std::string& user) {
  return impl->vocabulary.PutSynthetic(path, size, user);
}

std::string DriveEmulator::PutUnder(const std::string& parentId, const std::string& name,
                                    const std::string& content, const std::string& mimeType) {
  return impl->vocabulary.PutUnder(parentId, name, content, mimeType);
}

void DriveEmulator::AddChildren(const std::string& parentId, int64_t count,
                                const std::string& prefix) {
  impl->store.AddMany(impl->vocabulary.ItemOf(parentId), count, prefix, RandomKey());
}

void DriveEmulator::Write(const std::string& id, const std::string& content) {
  impl->vocabulary.Write(id, content);
}

void DriveEmulator::Remove(const std::string& id) {
  impl->store.Remove(impl->vocabulary.ItemOf(id));
}

void DriveEmulator::Trash(const std::string& id, bool trashed) {
  emulator::Item item = impl->vocabulary.ItemOf(id);
  impl->store.SetTrashed(item, trashed);
}

void DriveEmulator::Rename(const std::string& id, const std::string& name) {
  emulator::Item item = impl->vocabulary.ItemOf(id);
  item.name = name;
  impl->store.Save(item);
}

void DriveEmulator::Move(const std::string& id, const std::string& parentId) {
  emulator::Item item = impl->vocabulary.ItemOf(id);
  impl->store.SetParents(item, {impl->vocabulary.ItemOf(parentId)});
}

void DriveEmulator::AddParent(const std::string& id, const std::string& parentId) {
  emulator::Item item = impl->vocabulary.ItemOf(id);
  std::vector<emulator::Item> parents = impl->store.Parents(item);
  parents.push_back(impl->vocabulary.ItemOf(parentId));
  impl->store.SetParents(item, parents);
}

std::string DriveEmulator::MakeTeamDrive(const std::string& name, const std::string& user) {
  return impl->store.AddDrive(name, impl->vocabulary.UserOf(user).n, RootFolderId(RandomKey())).id;
}

void DriveEmulator::ShareWith(const std::string& id, const std::string& user,
                              const std::string& role) {
  impl->vocabulary.ShareWith(id, user, role);
}

std::optional<std::string> DriveEmulator::Find(const std::string& path,
                                               const std::string& user) const {
  return impl->vocabulary.Find(path, user);
}

std::optional<std::string> DriveEmulator::Content(const std::string& id) const {
  return impl->vocabulary.Content(id, 0, std::numeric_limits<int64_t>::max());
}

std::optional<std::string> DriveEmulator::Content(const std::string& id, int64_t offset,
                                                  int64_t length) const {
  return impl->vocabulary.Content(id, offset, length);
}

Json::Value DriveEmulator::Item(const std::string& id) const {
  const auto work = impl->store.Begin();
  const auto item = impl->store.Find(id);
  return item ? OwnersView(impl->service, *item) : Json::Value();
}

std::vector<std::string> DriveEmulator::ChildrenNamed(const std::string& parentId,
                                                      const std::string& name) const {
  std::vector<std::string> ids;
  for (const auto& child : impl->store.Children(impl->vocabulary.ItemOf(parentId).n)) {
    if (child.name == name) ids.push_back(child.id);
  }
  return ids;
}

std::vector<std::string> DriveEmulator::Children(const std::string& parentId) const {
  std::vector<std::string> ids;
  for (const auto& child : impl->store.Children(impl->vocabulary.ItemOf(parentId).n)) {
    ids.push_back(child.id);
  }
  return ids;
}

int64_t DriveEmulator::Items() const { return impl->store.Count(); }

Json::Value DriveEmulator::DumpTree(const std::string& user) const {
  return impl->vocabulary.DumpTree(user);
}

void DriveEmulator::Inject(const Fault& fault) { impl->faults.Add(fault); }

void DriveEmulator::FailNext(const std::string& method, int status, int times,
                             const std::string& reason) {
  Fault fault;
  fault.method = method;
  fault.status = status;
  fault.times = times;
  fault.reason = reason;
  Inject(fault);
}

std::vector<Fault> DriveEmulator::PendingFaults() const { return impl->faults.Pending(); }
void DriveEmulator::ClearFaults() { impl->faults.Clear(); }

void DriveEmulator::SetRoundTrip(std::chrono::milliseconds roundTrip) {
  impl->dispatcher.SetRoundTrip(roundTrip);
}

void DriveEmulator::SetBandwidth(int64_t bytesPerSecond) {
  impl->shaping.up.SetRate(bytesPerSecond);
  impl->shaping.down.SetRate(bytesPerSecond);
}

int DriveEmulator::Count(const std::string& method) const { return impl->journal.Count(method); }
std::vector<JournalEntry> DriveEmulator::Journal() const { return impl->journal.Entries(); }
void DriveEmulator::ClearJournal() { impl->journal.Clear(); }
int DriveEmulator::Connections() const { return impl->journal.Connections(); }

void DriveEmulator::ExpireUploads() { impl->uploads.ExpireAll(); }

void DriveEmulator::SetPushBehaviour(PushBehaviour behaviour) {
  impl->push.SetBehaviour(behaviour);
}
int DriveEmulator::PushConnections() const { return impl->push.Connections(); }
void DriveEmulator::DropPushConnections() { impl->push.DropAll(); }
void DriveEmulator::SendPush(const std::string& channel, const std::string& text) {
  impl->push.Send(channel, text);
}
int DriveEmulator::OpenChannels() const { return static_cast<int>(impl->channels.Count()); }

}  // namespace emulator
