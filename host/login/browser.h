// The user's web browser.
#pragma once

#include <string>

namespace host {

/// Starts it on an address and does not wait for it. False when none could be started.
bool OpenBrowser(const std::string& url);

}  // namespace host
