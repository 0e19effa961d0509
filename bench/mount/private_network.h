// A network and a file system view of this process's own, in which the service's names lead to a
// loopback address: a program that knows no other host than the service's is measured unchanged.
#pragma once

#include <filesystem>
#include <string>

namespace bench {

/// Moves this process, and those that it starts, there. Call before any thread is started. Empty
/// when done, else why it cannot be. `directory` takes the files that are laid over the system's.
std::string EnterPrivateNetwork(const std::filesystem::path& directory);

/// Lays one file over another, in that view only. Throws std::runtime_error.
void LayOver(const std::filesystem::path& what, const std::filesystem::path& over);

}  // namespace bench
