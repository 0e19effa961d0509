// What a new emulator holds.
#pragma once

#include <string>

#include "emulator/store.h"

namespace emulator {

/// Fills an empty store: the demo account always; "demo" adds its files, a number adds that many
/// files in folders of a thousand. The same ids and times on every run. Throws
/// std::invalid_argument for an unknown seed.
void Seed(Store& store, const std::string& seed);

}  // namespace emulator
