// Which handler answers which request.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "emulator/call.h"

namespace emulator {

struct Service;

struct Route {
  const char* httpMethod;
  const char* pattern;  ///< path with "{...}" for one segment each
  const char* name;     ///< as in the coverage table
  Reply (*handler)(Service& service, Call& call);
  /// When set, a query parameter that must be there ("upload_id") or have a value ("alt=media").
  const char* parameter = "";
  bool needsToken = true;
  bool streams = false;  ///< the handler reads the body itself
};

/// All routes of the API and OAuth; of several that match, the first counts.
const std::vector<Route>& ApiRoutes();
/// Those of the push service's REST side.
const std::vector<Route>& PushRoutes();
/// Whether any route has this name.
bool IsMethodName(std::string_view name);

/// The route of a request, with what stands for its braces; null when there is none.
const Route* FindRoute(const std::vector<Route>& routes, const httplib::Request& request,
                       std::vector<std::string>& captures);

}  // namespace emulator
