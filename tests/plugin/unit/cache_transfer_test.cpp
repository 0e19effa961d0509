// Bodies between a transfer and the host's cache, and exceptions of the host's objects.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "net/cache_callbacks.h"
#include "net/curl_logger.h"
#include "net/memory_callbacks.h"
#include "tests/plugin/unit/recording_log.h"
#include "tests/plugin/unit/wire_server.h"

namespace {

using testing::ElementsAre;

std::string Numbered(size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 + i / 251);
  return bytes;
}

struct Sink final : IFetchCallback {
  void OnData(long long offset, const char* data, unsigned long long length,
              long long* extra) override {
    EXPECT_EQ(extra, nullptr);
    EXPECT_EQ(offset, start + static_cast<long long>(bytes.size()));
    bytes.append(data, length);
    blocks.push_back(length);
    if (onData) onData();
  }

  long long start = 0;
  std::string bytes;
  std::vector<unsigned long long> blocks;
  std::function<void()> onData;
};

struct Cache final : ICacheIO {
  int32_t Read(CacheReadRequest* request) override {
    if (onRead) onRead();
    const auto offset = static_cast<size_t>(request->offset);
    EXPECT_LE(offset, bytes.size());
    EXPECT_EQ(request->fileSize, static_cast<int64_t>(announced));
    request->read = bytes.copy(static_cast<char*>(request->buffer), request->wanted, offset);
    return result;
  }

  std::string bytes;
  size_t announced = 0;
  int32_t result = 0;
  std::function<void()> onRead;
};

struct CacheTransfer : testing::Test {
  WireServer server;
  CURLImpl request;
  Sink sink;
  Cache cache;
  std::shared_ptr<_FS_HANDLE> handle = std::make_shared<_FS_HANDLE>();
  DownloadContext download;
  UploadContext upload;

  _CURLRTN Download(long long offset, long long length) {
    sink.start = download.offset = offset;
    download.remaining = length;
    download.handle = handle;
    download.staging.reset(static_cast<char*>(malloc(kStagingSize)));
    download.callback = &sink;
    download.easy = request.GetCURL();
    request.SetURL(server.Origin().c_str());
    return request.PerformGet(reinterpret_cast<void*>(&write_callback_cache_func), &download);
  }
  _CURLRTN Upload(const std::string& bytes, size_t announced) {
    cache.bytes = bytes;
    cache.announced = announced;
    upload = {0, handle, &cache, static_cast<long long>(announced)};
    request.SetURL(server.Origin().c_str());
    request.SetSeek(reinterpret_cast<void*>(&read_callback_cache_seek_func), &upload);
    return request.PerformPost(reinterpret_cast<void*>(&read_callback_cache_func), &upload,
                               static_cast<long long>(announced));
  }
  void ExpectUsable() {
    request.Clear();
    request.SetURL(server.Origin().c_str());
    EXPECT_EQ(request.PerformGet(nullptr, nullptr).bodyLength, 2u);
  }
};

TEST_F(CacheTransfer, DownloadsReachTheHostInStagedBlocks) {
  const std::string content = Numbered(2 * kStagingSize + 1000);
  server.Play({Http(206, content)});
  EXPECT_EQ(Download(77, static_cast<long long>(content.size())).code, CURLE_OK);
  EXPECT_THAT(sink.blocks, ElementsAre(kStagingSize, kStagingSize, 1000));
  EXPECT_TRUE(sink.bytes == content);
  EXPECT_EQ(download.received, content.size());
}

TEST_F(CacheTransfer, AShorterAnswerStaysStagedForTheFlush) {
  server.Play({Http(206, "short")});
  Download(0, 100);
  EXPECT_TRUE(sink.blocks.empty());
  EXPECT_EQ(download.buffered, 5);
  download.Flush();
  EXPECT_EQ(sink.bytes, "short");
}

TEST_F(CacheTransfer, AnErrorTextIsNeverContent) {
  for (const int status : {400, 404, 416, 500, 503}) {
    const std::string text(kStagingSize + 10, 'e');
    server.Play({Http(status, text)});
    EXPECT_EQ(Download(0, 10).status, status);
    EXPECT_EQ(download.buffered, 0);
  }
  EXPECT_TRUE(sink.blocks.empty());
}

TEST_F(CacheTransfer, AnAbandonedDownloadStopsAfterTheBlockAtHand) {
  server.Play({Http(206, Numbered(8 * kStagingSize))});
  sink.onData = [this] { handle->status = 3; };
  EXPECT_EQ(Download(0, 8 * kStagingSize).code, CURLE_WRITE_ERROR);
  EXPECT_THAT(sink.blocks, ElementsAre(kStagingSize));
  ExpectUsable();
}

TEST_F(CacheTransfer, UploadsSendTheCacheAndRewindForARedirect) {
  const std::string content = Numbered(300000);
  server.Play({Http(307, "", "Location: /there\r\n"), Http(200, "ok")});
  EXPECT_EQ(Upload(content, content.size()).status, 200);
  ASSERT_EQ(server.Requests().size(), 2u);
  EXPECT_TRUE(server.Requests()[0].body == content);
  EXPECT_TRUE(server.Requests()[1].body == content);
  EXPECT_EQ(handle->transferred, 300000);
}

TEST_F(CacheTransfer, UploadsAreAbortedByTheHost) {
  const std::string content = Numbered(400000);
  cache.result = 5;
  EXPECT_EQ(Upload(content, content.size()).code, CURLE_ABORTED_BY_CALLBACK);
  ExpectUsable();
  cache.result = 0;
  EXPECT_EQ(Upload(content, content.size() + 1).code, CURLE_ABORTED_BY_CALLBACK);  // ends early
  ExpectUsable();
  cache.onRead = [this] { handle->status = 4; };
  EXPECT_EQ(Upload(content, content.size()).code, CURLE_ABORTED_BY_CALLBACK);
  ExpectUsable();
}

TEST_F(CacheTransfer, ExceptionsOfTheHostComeOutOfTheTransfer) {
  const auto fail = [] { throw std::out_of_range("host"); };
  server.Play({Http(206, Numbered(kStagingSize))});
  sink.onData = fail;
  EXPECT_THROW(Download(0, kStagingSize), std::out_of_range);
  ExpectUsable();
  cache.onRead = fail;
  EXPECT_THROW(Upload(Numbered(1000), 1000), std::out_of_range);
  ExpectUsable();
  handle->progress = [](long long, long long, void*, double) { throw std::out_of_range("host"); };
  request.BindHandle(handle);
  request.SetURL(server.Origin().c_str());
  EXPECT_THROW(request.PerformPost("body"), std::out_of_range);
  ExpectUsable();
}

TEST(HostLogger, AnExceptionOfItComesOutOfTheTransfer) {
  WireServer server;
  CURLLogger request;
  request.SetURL(server.Origin().c_str());
  RecordingLog log(true);
  log.onWrite = [] { throw std::out_of_range("host"); };
  EXPECT_THROW(request.PerformGet(nullptr, nullptr), std::out_of_range);
  log.onWrite = nullptr;
  EXPECT_EQ(request.PerformGet(nullptr, nullptr).bodyLength, 2u);
}

TEST(HostLogger, ATransferInsideACallbackKeepsItsOwnException) {
  WireServer server;
  CURLLogger outer;
  CURLLogger inner;
  outer.SetURL(server.Origin().c_str());
  inner.SetURL(server.Origin().c_str());
  RecordingLog log(true);
  bool inside = false;
  log.onWrite = [&] {
    if (inside) throw std::out_of_range("inner");
    inside = true;
    EXPECT_THROW(inner.PerformGet(nullptr, nullptr), std::out_of_range);
    log.onWrite = nullptr;
  };
  EXPECT_EQ(outer.PerformGet(nullptr, nullptr).status, 200);
}

TEST(MemorySourceReads, NeverLeaveTheContent) {
  MemorySource source{"abcdef", 0, 6};
  char room[8] = {};
  EXPECT_EQ(read_callback_buf_func(room, 2, 2, &source), 4u);
  EXPECT_EQ(read_callback_buf_func(room, 1, 8, &source), 2u);
  EXPECT_EQ(std::string(room), "efcd");
  EXPECT_EQ(read_callback_buf_func(room, 1, 8, &source), 0u);
  const struct {
    long long offset;
    int origin;
    size_t left;
  } seeks[] = {{2, SEEK_SET, 4},  {-1, SEEK_CUR, 1}, {-3, SEEK_END, 3}, {9, SEEK_SET, 0},
               {-9, SEEK_SET, 0}, {1, SEEK_END, 0},  {5, SEEK_SET, 1}};
  for (const auto& seek : seeks) {
    EXPECT_EQ(read_callback_buf_seek_func(&source, seek.offset, seek.origin), CURL_SEEKFUNC_OK);
    EXPECT_EQ(read_callback_buf_func(room, 1, 8, &source), seek.left) << seek.offset;
  }
  EXPECT_EQ(read_callback_buf_func(room, 0, 8, &source), 0u);
  EXPECT_EQ(read_callback_buf_seek_func(&source, 1, 77), CURL_SEEKFUNC_OK);
  EXPECT_EQ(read_callback_buf_seek_func(nullptr, 0, SEEK_SET), CURL_SEEKFUNC_FAIL);
}

}  // namespace
