// What is measured: each prints its figures.
#pragma once

#include <string>

#include "bench/library/idle_host.h"
#include "bench/library/raw_server.h"

namespace bench {

// Bytes: transfers.cpp
void BenchRead(GoogleDrive& drive, RawServer& server);
void BenchUpload(GoogleDrive& drive, RawServer& server);
void BenchMemory(const std::string& url);
/// What BenchMemory runs in processes of their own: one transfer, `kind` is "read" or "upload".
int Transfer(const char* kind, long long size, const char* url);

// Records: records.cpp
void BenchSmallRequest(const std::string& url);
void BenchListing(GoogleDrive& drive);
void BenchPoll(Profile& profile, const std::string& url);
void BenchEmulator();

// On the emulator with all that belongs to it: sessions.cpp
void BenchPush();
void BenchThreads();

}  // namespace bench
