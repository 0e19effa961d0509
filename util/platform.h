// What differs between the operating systems. One source for each; nothing else asks which it is.
#pragma once

#include <optional>
#include <string>

/// Absolute path of the program that this process runs; empty when it cannot be told.
std::optional<std::string> ExecutablePath();

/// Names the calling thread for debuggers; cut to what the system takes.
void SetThreadName(const char* name);

/// Keeps the module that holds `address` mapped until the process ends, so that a detached thread
/// may outlive the host's dlclose.
void KeepModuleLoaded(const void* address);
