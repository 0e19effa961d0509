// Log lines to the host's logger. With no logger bound nothing happens. Safe from any thread, as
// the host's logger must be.
#pragma once

#include <curl/curl.h>

#include "plugin/host_interfaces.h"

/// printf-style; the format begins with a ten-character category in brackets.
[[gnu::format(printf, 3, 4)]] void __LOG__A(ILog* log, LOGLEVEL level, const char* format, ...);

/// Binds or unbinds the host's logger.
void SetLogger(ILog* log);

/// The same for a thread of the plug-in's own, which the host does not wait for: once SetLogger has
/// returned, the logger that it replaced is not called from there any more. The logger itself may
/// call SetLogger. What it throws is dropped.
[[gnu::format(printf, 2, 3)]] void LogFromOwnThread(LOGLEVEL level, const char* format, ...);

/// libcurl debug callback that logs its remarks and every header line; never a body. The arrows
/// point as the log's readers know them: ">>" is what arrives, "<<" what is sent.
int CURLDebug(CURL* handle, curl_infotype type, char* data, size_t size, void* user);
