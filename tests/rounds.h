// How often a test repeats what it does.
#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

/// A quarter of `whole` under a sanitizer, where everything takes several times as long and each
/// round says more.
constexpr int Rounds(int whole) { return kSanitized ? whole / 4 : whole; }
