// Where the services are, and which other addresses a profile may name instead.
#pragma once

#include <string>

constexpr char kDriveApiUrl[] = "https://www.googleapis.com";
/// Base that a push channel's name is appended to. The push service is a deployment of the host's
/// maker; a build for one overrides this.
#ifndef VORMLANE_PUSH_SERVER_URL
#define VORMLANE_PUSH_SERVER_URL "wss://push.vormlane.example/"
#endif

/// Encrypted, or plain on a loopback address ("http://127.0.0.1:8080", "http://[::1]:1"). `scheme`
/// is the plain scheme, "http" or "ws"; its encrypted form has an "s" behind.
bool IsAllowedEndpoint(const std::string& url, const std::string& scheme);
