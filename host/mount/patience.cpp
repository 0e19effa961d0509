#include "host/mount/patience.h"

#include <utility>

namespace host::mount {
namespace {

thread_local const std::function<bool()>* watching = nullptr;

}  // namespace

CallerWatch::CallerWatch(std::function<bool()> isGone) : gone(std::move(isGone)) {
  watching = &gone;
}

CallerWatch::~CallerWatch() { watching = nullptr; }

bool CallerWatch::CallerIsGone() { return watching != nullptr && (*watching)(); }

}  // namespace host::mount
