#include "host/mount/reader.h"

#include <algorithm>
#include <cerrno>

namespace host::mount {
namespace {

constexpr int64_t kFirstWindow = 4 * kBlockBytes;
constexpr int64_t kGrowth = 4;
constexpr int64_t kLargestWindow = 64 * kBlockBytes;
/// The kernel asks for this much at once when a program reads more than a header.
constexpr int64_t kLargeRead = 128 * 1024;
/// What a file that is read on from its start begins with, in one piece.
constexpr int64_t kStart = kFirstWindow * kGrowth;
constexpr int64_t kSmallestPiece = 2 * kBlockBytes;
constexpr int64_t kLargestPiece = 8 * kBlockBytes;
/// Enough to fill a line of 1 Gbit/s at 150 ms a round trip.
constexpr int kPiecesAtOnce = 6;
/// The kernel reads ahead by itself and sends those reads in any order.
constexpr int64_t kReorder = 2 * kBlockBytes;
constexpr int kTries = 3;

int64_t BlockEnd(int64_t offset) { return (offset / kBlockBytes + 1) * kBlockBytes; }

/// How much to fetch at once that far ahead of a program. What is near comes in small pieces, so
/// that none of it waits for the end of a large one.
int64_t PieceAhead(int64_t distance) {
  return std::clamp(distance / 2 / kBlockBytes * kBlockBytes, kSmallestPiece, kLargestPiece);
}

}  // namespace

ReadPattern::Stream* ReadPattern::Continued(int64_t offset) {
  for (Stream& stream : streams)
    if (stream.next >= 0 && offset <= stream.next + kReorder / 4 &&
        offset >= stream.next - kReorder)
      return &stream;
  return nullptr;
}

ReadPattern::Advice ReadPattern::Next(int64_t offset, int64_t length, int64_t fileSize) {
  std::lock_guard lock(mutex);
  const int64_t end = std::min(offset + length, fileSize);
  Stream* stream = Continued(offset);
  if (stream == nullptr) {
    stream = &*std::min_element(streams.begin(), streams.end(),
                                [](const Stream& a, const Stream& b) { return a.used < b.used; });
    *stream = {end, 0, end, ++reads};
    if (offset != 0) return {end - offset, 0};
    // A file is mostly read from its start, and on: that is worth a guess. One transfer, so that
    // nothing else delays the bytes that the program waits for; it ends when the file is closed.
    if (length >= kLargeRead) stream->window = kStart;
    stream->fetched = std::min(std::max(BlockEnd(end - 1), stream->window), fileSize);
    return {stream->fetched, 0};
  }
  stream->used = ++reads;
  if (end <= stream->next) return {end - offset, 0};
  stream->next = end;
  const int64_t lead = stream->fetched - end;
  if (stream->window != 0 && lead > stream->window / 4 * 3) return {end - offset, 0};
  stream->window =
      stream->window == 0 ? kFirstWindow : std::min(stream->window * kGrowth, kLargestWindow);
  const int64_t now = std::min(BlockEnd(end - 1), fileSize);
  int64_t until = std::min(BlockEnd(end + stream->window), fileSize);
  // Whole pieces; what is left over comes with the next ones.
  if (const int64_t more = until - stream->fetched; more > kLargestPiece && until < fileSize)
    until -= more % kLargestPiece;
  stream->fetched = std::max(stream->fetched, until);
  return {now - offset, until - now};
}

ssize_t Reader::Read(const ContentPtr& content, const std::string& id, ReadPattern& pattern,
                     std::span<char> buffer, int64_t offset) {
  const int64_t size = content->Size();
  const int64_t end = std::min(offset + static_cast<int64_t>(buffer.size()), size);
  if (offset >= end) return 0;
  if (!content->IsComplete()) {
    const auto [now, ahead] = pattern.Next(offset, end - offset, size);
    Want(content, id, offset, offset + now, Urgency::kInteractive);
    if (ahead > 0) Want(content, id, offset + now, offset + now + ahead, Urgency::kBackground);
    if (const int error = Await(content, id, offset, end)) return -error;
  }
  return content->ReadAt(buffer, offset);
}

int Reader::Complete(const ContentPtr& content, const std::string& id) {
  // In steps, so that patience is measured on progress and not on the whole.
  constexpr int64_t kStep = 32 * kBlockBytes;
  const int64_t size = content->Size();
  for (int64_t at = 0; at < size && !content->IsComplete(); at += kStep) {
    Want(content, id, at, std::min(at + 2 * kStep, size), Urgency::kInteractive);
    if (const int error = Await(content, id, at, std::min(at + kStep, size))) return error;
  }
  return 0;
}

void Reader::Want(const ContentPtr& content, const std::string& id, int64_t from, int64_t to,
                  Urgency urgency) {
  std::vector<std::shared_ptr<Fetch>> begun;
  {
    std::lock_guard lock(content->mutex);
    const int64_t end = std::min(PageMap::PagesIn(to), content->pages.Pages());
    const int64_t first = PageMap::PageOf(from);
    for (int64_t page = first; page < end;) {
      if (content->pages.At(page) != Page::kAbsent) {
        ++page;
        continue;
      }
      auto fetch = std::make_shared<Fetch>();
      fetch->firstPage = page;
      fetch->id = id;
      fetch->begun = fetch->awaited = urgency == Urgency::kInteractive;
      const int64_t piece =
          (fetch->begun ? kStart : PieceAhead((page - first) * kPageBytes)) / kPageBytes;
      while (page < end && page < fetch->firstPage + piece &&
             content->pages.At(page) == Page::kAbsent)
        content->pages.Set(page++, Page::kUnderWay);
      fetch->endPage = page;
      content->fetches.push_back(fetch);
      if (fetch->begun) begun.push_back(fetch);
    }
  }
  for (const std::shared_ptr<Fetch>& fetch : begun) Begin(content, fetch, Urgency::kInteractive);
  BeginNext(content);
}

void Reader::BeginNext(const ContentPtr& content) {
  std::vector<std::shared_ptr<Fetch>> next;
  {
    std::lock_guard lock(content->mutex);
    auto begun = std::count_if(content->fetches.begin(), content->fetches.end(),
                               [](const auto& fetch) { return fetch->begun; });
    for (const std::shared_ptr<Fetch>& fetch : content->fetches) {
      if (fetch->begun) continue;
      if (begun++ >= kPiecesAtOnce) break;
      fetch->begun = true;
      next.push_back(fetch);
    }
  }
  for (const std::shared_ptr<Fetch>& fetch : next) Begin(content, fetch, Urgency::kBackground);
}

void Reader::Begin(const ContentPtr& content, const std::shared_ptr<Fetch>& fetch,
                   Urgency urgency) {
  const bool queued = pool.Submit(urgency, [this, content, fetch] { Run(content, fetch); });
  if (!queued) Finish(content, *fetch, EIO);
}

void Reader::Hurry(const ContentPtr& content, int64_t firstPage, int64_t endPage) {
  for (const std::shared_ptr<Fetch>& fetch : content->fetches) {
    if (fetch->endPage <= firstPage || fetch->firstPage >= endPage || fetch->awaited) continue;
    fetch->begun = fetch->awaited = true;
    // Queued a second time, in front; whichever comes first claims it.
    if (!fetch->claimed)
      pool.Submit(Urgency::kInteractive, [this, content, fetch] { Run(content, fetch); });
  }
}

void Reader::Run(const ContentPtr& content, const std::shared_ptr<Fetch>& fetch) {
  if (fetch->claimed.exchange(true)) return;
  const int64_t from = fetch->firstPage * kPageBytes;
  const int64_t to = std::min(fetch->endPage * kPageBytes, content->Size());
  int64_t reached = from;           // no gap up to here
  int64_t page = fetch->firstPage;  // there, up to here
  int error = 0;
  const AERROR code = remote.Fetch(
      fetch->id, from, to - from, fetch->transfer, [&](int64_t at, std::span<const char> bytes) {
        if (at < from || at >= to || at > reached) return;
        bytes = bytes.first(std::min<size_t>(bytes.size(), static_cast<size_t>(to - at)));
        error = content->Store(bytes, at);
        if (error != 0) return Abandon(fetch->transfer);
        reached = std::max(reached, at + static_cast<int64_t>(bytes.size()));
        const int64_t whole = reached == to ? fetch->endPage : PageMap::PageOf(reached);
        if (whole == page) return;
        std::lock_guard lock(content->mutex);
        while (page < whole) content->pages.Set(page++, Page::kPresent);
        content->mapChanged = true;
        content->arrived.notify_all();
      });
  const bool failed = code != AERROR::SUCCESS || reached < to;
  Finish(content, *fetch, error != 0 ? error : failed ? EIO : 0);
}

void Reader::Finish(const ContentPtr& content, const Fetch& fetch, int error) {
  {
    std::lock_guard lock(content->mutex);
    for (int64_t page = fetch.firstPage; page < fetch.endPage; ++page)
      if (content->pages.At(page) == Page::kUnderWay) content->pages.Set(page, Page::kAbsent);
    if (error != 0) content->lastError = error;
    std::erase_if(content->fetches, [&](const auto& other) { return other.get() == &fetch; });
    content->arrived.notify_all();
  }
  BeginNext(content);
}

int Reader::Await(const ContentPtr& content, const std::string& id, int64_t from, int64_t to) {
  const int64_t first = PageMap::PageOf(from);
  const int64_t end = PageMap::PagesIn(to);
  Patience::Wait wait(patience);
  for (int attempt = 0;; ++attempt) {
    std::unique_lock lock(content->mutex);
    const auto underWay = [&] {
      for (int64_t page = first; page < end; ++page)
        if (content->pages.At(page) == Page::kAbsent) return false;
      return !content->pages.Has(first, end);
    };
    Hurry(content, first, end);
    const int error = wait.Until(
        lock, content->arrived, [&] { return !underWay(); },
        [&] { return content->pages.PresentPages(); });
    if (error != 0) return error;
    if (content->pages.Has(first, end)) return 0;
    if (attempt + 1 == kTries || content->lastError == ENOSPC)
      return wait.InVain(content->lastError != 0 ? content->lastError : EIO);
    lock.unlock();
    Want(content, id, from, to, Urgency::kInteractive);
  }
}

}  // namespace host::mount
