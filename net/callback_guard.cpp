#include "net/callback_guard.h"

namespace {
thread_local CallbackScope* innermost = nullptr;
}  // namespace

CallbackScope::CallbackScope() : outer(innermost) { innermost = this; }

CallbackScope::~CallbackScope() { innermost = outer; }

void CallbackScope::Rethrow() {
  if (kept) std::rethrow_exception(kept);
}

void CallbackScope::KeepCurrentException() noexcept {
  if (innermost != nullptr && !innermost->kept) innermost->kept = std::current_exception();
}
