// A service of prepared answers: it costs next to nothing beside what is measured.
#pragma once

#include <string>
#include <vector>

#include "bench/library/raw_server.h"

namespace bench {

/// The answers that tell of 10,000 children of a folder, and of 10,000 changes.
extern const std::vector<std::string> kListing;
extern const std::vector<std::string> kChanges;

RawServer::Reply Answer(const std::string& line, const std::string& head);

}  // namespace bench
