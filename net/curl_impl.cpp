#include "net/curl_impl.h"

#include <sys/socket.h>

#include <algorithm>
#include <mutex>
#include <new>

#include "net/callback_guard.h"
#include "net/certificates.h"

namespace {

struct EasyFree {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};

struct CurlFree {
  void operator()(char* text) const { curl_free(text); }
};
using CurlText = std::unique_ptr<char, CurlFree>;

std::shared_ptr<CURL> NewHandle() {
  static std::once_flag initialised;
  std::call_once(initialised, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  // libcurl reports what it cannot do by a null handle; Perform then says CURLE_FAILED_INIT.
  return std::shared_ptr<CURL>(curl_easy_init(), [](CURL* handle) {
    if (handle != nullptr) EasyFree()(handle);
  });
}

/// Twice libcurl's own, for fewer calls, yet within two of the loopback interface's segments: the
/// rest that a longer block leaves over waits, under congestion control that paces, twice as long.
constexpr long long kSendBlock = 122880;
constexpr long long kLeastSendBlock = 16384;
/// Four times libcurl's own. Nothing is gained by more: a reader that empties the socket in larger
/// blocks waits for the sender more often.
constexpr long long kReceiveBlock = 65536;
constexpr long long kLeastReceiveBlock = 1024;
/// libcurl looks at the speed limit after at most this many received blocks, and after each sent.
constexpr long long kBlocksInTurn = 100;
constexpr long kStallTime = 20;  // seconds

int SetSocketSendBuffer(void*, curl_socket_t socket, curlsocktype) {
  const int size = 1048576;  // bytes
  (void)setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
  return CURL_SOCKOPT_OK;
}

}  // namespace

CURLImpl::CURLImpl() : easy(NewHandle()) {
  SetOption(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  SetOption(CURLOPT_CONNECTTIMEOUT, connectTimeout);
  SetOption(CURLOPT_LOW_SPEED_LIMIT, 1L);
  SetOption(CURLOPT_LOW_SPEED_TIME, kStallTime);
  SetOption(CURLOPT_NOSIGNAL, 1L);
  SetOption(CURLOPT_FOLLOWLOCATION, 1L);
  SetOption(CURLOPT_MAXREDIRS, 32L);
  // An answer may name the next address; a file of this machine would pass for a service's.
  SetOption(CURLOPT_PROTOCOLS_STR, "http,https");
  SetOption(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  SetBlocks(kReceiveBlock, kSendBlock);
  // A method that is not libcurl's own is kept across every redirection, so its body must be too.
  SetOption(CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_ALL));
  SetOption(CURLOPT_ACCEPT_ENCODING, "");
  SetOption(CURLOPT_USERAGENT, "Vormlane(gzip)");
  SetOption(CURLOPT_SSL_VERIFYPEER, 0L);
  SetOption(CURLOPT_SSL_VERIFYHOST, 0L);
  SetOption(CURLOPT_NOPROGRESS, 1L);
}

CURLImpl::~CURLImpl() = default;

void CURLImpl::Clear() {
  progress = ProgressContext{};
  curl_mime_free(post);
  post = nullptr;
  url.clear();
  request.clear();
  lastRequest.clear();
  SetOption(CURLOPT_HEADER, 0L);
  SetOption(CURLOPT_CUSTOMREQUEST, nullptr);
  ResetBodyOptions();
  SetOption(CURLOPT_INFILESIZE_LARGE, curl_off_t{0});
  if (speedLimit != 0) SetSpeedLimit(0);
  SetOption(CURLOPT_NOPROGRESS, 1L);
  SetOption(CURLOPT_XFERINFOFUNCTION, nullptr);
  SetOption(CURLOPT_XFERINFODATA, nullptr);
  SetLowSpeedTimeout(kStallTime);
  SetProxy(0, {}, 0, {}, {});
  SetOption(CURLOPT_MIMEPOST, nullptr);
  SetOption(CURLOPT_NOBODY, 0L);
  SetOption(CURLOPT_HTTPGET, 1L);
  query.Clear();
  headers.Clear();
}

/// Lets go of everything that a transfer borrowed from its caller's stack.
void CURLImpl::ResetBodyOptions() {
  SetOption(CURLOPT_HTTPHEADER, nullptr);
  SetOption(CURLOPT_WRITEDATA, nullptr);
  SetOption(CURLOPT_WRITEFUNCTION, nullptr);
  SetOption(CURLOPT_READFUNCTION, nullptr);
  SetOption(CURLOPT_READDATA, nullptr);
  SetOption(CURLOPT_POSTFIELDS, nullptr);
  SetOption(CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t{0});
  SetOption(CURLOPT_SEEKFUNCTION, nullptr);
  SetOption(CURLOPT_SEEKDATA, nullptr);
}

void CURLImpl::SetRequest(const char* method) {
  request = method;
  lastRequest = method;
}

std::string CURLImpl::BuildQueryString(bool escape) const {
  std::string text;
  for (const auto& [name, value] : query) {
    if (!text.empty()) text += '&';
    text.append(name).append("=").append(escape ? Escape(value.c_str()) : value);
  }
  return text;
}

std::string CURLImpl::BuildURL(bool escape) const {
  const std::string text = BuildQueryString(escape);
  if (text.empty()) return url;
  return url + (url.find('?') == std::string::npos ? "?" : "&") + text;
}

curl_slist* CURLImpl::BuildHeader() const {
  HeaderList list;
  for (const auto& [name, value] : headers) {
    std::string line = name;
    line.append(": ").append(value);
    curl_slist* longer = curl_slist_append(list.get(), line.c_str());
    if (longer == nullptr) throw std::bad_alloc();
    (void)list.release();
    list.reset(longer);
  }
  return list.release();
}

std::string CURLImpl::Escape(const char* text) const {
  const CurlText escaped(curl_easy_escape(easy.get(), text, 0));
  return escaped ? escaped.get() : "";
}

std::string CURLImpl::Unescape(const char* text) const {
  const CurlText plain(curl_easy_unescape(easy.get(), text, 0, nullptr));
  return plain ? plain.get() : "";
}

void CURLImpl::SetProxy(int type, std::string host, int port, std::string user,
                        std::string password) {
  // Whatever an earlier proxy left must not reach this one, and least of all its credentials.
  SetOption(CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_HTTP));
  SetOption(CURLOPT_HTTPPROXYTUNNEL, 0L);
  SetOption(CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_BASIC));
  SetOption(CURLOPT_PROXYPORT, 0L);
  SetOption(CURLOPT_PROXYUSERPWD, nullptr);
  SetOption(CURLOPT_NOPROXY, nullptr);
  if (type == 0 || host.empty()) {
    SetOption(CURLOPT_PROXY, nullptr);
    return;
  }
  SetOption(CURLOPT_PROXY, host.c_str());
  // The user's proxy carries every request, whatever the environment exempts.
  SetOption(CURLOPT_NOPROXY, "");
  if (type == 1) SetOption(CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_SOCKS4));
  if (type == 2) SetOption(CURLOPT_PROXYTYPE, static_cast<long>(CURLPROXY_SOCKS5));
  if (type == 3 || type == 4) {
    SetOption(CURLOPT_HTTPPROXYTUNNEL, type == 3 ? 1L : 0L);
    SetOption(CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_ANY));
  }
  if (port > 0) SetOption(CURLOPT_PROXYPORT, static_cast<long>(port));
  if (!user.empty()) {
    SetOption(CURLOPT_PROXYUSERPWD, (password.empty() ? user : user + ":" + password).c_str());
  }
}

void CURLImpl::SetSSLDefaults() {
  const auto directory = CertificateDirectory();
  if (!directory) return;
  SetOption(CURLOPT_SSL_VERIFYPEER, 1L);
  SetOption(CURLOPT_SSL_VERIFYHOST, 2L);
  SetOption(CURLOPT_CAPATH, directory->c_str());
  SetOption(CURLOPT_CAINFO, (*directory + kCertificateBundle).c_str());
}

void CURLImpl::SetSpeedLimit(long long bytesPerSecond) {
  speedLimit = std::max(bytesPerSecond, 0LL);
  SetOption(CURLOPT_MAX_SEND_SPEED_LARGE, static_cast<curl_off_t>(speedLimit));
  SetOption(CURLOPT_MAX_RECV_SPEED_LARGE, static_cast<curl_off_t>(speedLimit));
  if (speedLimit == 0) {
    SetBlocks(kReceiveBlock, kSendBlock);
  } else {
    // What one turn moves, libcurl waits for afterwards: about a second where blocks can be as
    // small.
    SetBlocks(std::clamp(speedLimit / kBlocksInTurn, kLeastReceiveBlock, kReceiveBlock),
              std::clamp(speedLimit, kLeastSendBlock, kSendBlock));
  }
  SetLowSpeedTimeout(stallTime);
}

void CURLImpl::SetBlocks(long long receive, long long send) {
  SetOption(CURLOPT_BUFFERSIZE, static_cast<long>(receive));
  SetOption(CURLOPT_UPLOAD_BUFFERSIZE, static_cast<long>(send));
}

void CURLImpl::SetLowSpeedTimeout(long seconds) {
  stallTime = seconds;
  // libcurl counts the waits of its own speed limit as standstill; they are not the peer's.
  const long long longestTurn = std::max(kLeastReceiveBlock * kBlocksInTurn, kLeastSendBlock);
  const long long wait = speedLimit == 0 ? 0 : longestTurn / speedLimit;
  SetOption(CURLOPT_LOW_SPEED_TIME, static_cast<long>(seconds + wait));
}

void CURLImpl::SetSendBuffer() { SetOption(CURLOPT_SOCKOPTFUNCTION, &SetSocketSendBuffer); }

void CURLImpl::SetPostFileSize(long long size) {
  SetOption(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(size));
}

void CURLImpl::SetSeek(void* seekFunction, void* seekData) {
  SetOption(CURLOPT_SEEKFUNCTION, seekFunction);
  SetOption(CURLOPT_SEEKDATA, seekData);
}

void CURLImpl::BindHandle(std::shared_ptr<_FS_HANDLE> handle) {
  BindProgress(handle, &_CURL_PROGRESS);
}

void CURLImpl::BindHandleForDownload(std::shared_ptr<_FS_HANDLE> handle) {
  BindProgress(handle, &_CURL_PROGRESS_DOWNLOAD);
}

void CURLImpl::BindProgress(const std::shared_ptr<_FS_HANDLE>& handle,
                            curl_xferinfo_callback callback) {
  if (!handle) return;
  progress = {handle->progress, handle->progressUser, easy.get()};
  SetOption(CURLOPT_XFERINFOFUNCTION, callback);
  SetOption(CURLOPT_XFERINFODATA, &progress);
  SetOption(CURLOPT_NOPROGRESS, 0L);
}

std::string CURLImpl::GetEffectiveURL() const {
  const char* text = nullptr;
  curl_easy_getinfo(easy.get(), CURLINFO_EFFECTIVE_URL, &text);
  return text ? text : "";
}

std::string CURLImpl::GetScheme() const {
  const char* text = nullptr;
  curl_easy_getinfo(easy.get(), CURLINFO_SCHEME, &text);
  return text ? text : "";
}

std::string CURLImpl::ErrorString(CURLcode code) { return curl_easy_strerror(code); }

namespace {

int ReportProgress(void* data, CURLINFO speedInfo, curl_off_t total, curl_off_t now) {
  const auto* context = static_cast<const ProgressContext*>(data);
  if (context == nullptr || context->progress == nullptr) return 0;
  return GuardCallback(1, [&] {
    curl_off_t speed = 0;
    curl_easy_getinfo(context->easy, speedInfo, &speed);
    context->progress(total, now, context->user, static_cast<double>(speed));
    return 0;
  });
}

}  // namespace

int _CURL_PROGRESS(void* context, curl_off_t, curl_off_t, curl_off_t uploadTotal,
                   curl_off_t uploaded) {
  return ReportProgress(context, CURLINFO_SPEED_UPLOAD_T, uploadTotal, uploaded);
}

int _CURL_PROGRESS_DOWNLOAD(void* context, curl_off_t downloadTotal, curl_off_t downloaded,
                            curl_off_t, curl_off_t) {
  return ReportProgress(context, CURLINFO_SPEED_DOWNLOAD_T, downloadTotal, downloaded);
}

int ProtocolUtil::curlProxyType(const std::string& type) {
  if (type == "SOCKS4") return 1;
  if (type == "SOCKS5") return 2;
  if (type == "HTTP with TUNNEL") return 3;
  if (type == "HTTP without TUNNEL") return 4;
  return 0;
}
