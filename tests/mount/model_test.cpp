#include <cstdlib>

#include "tests/mount/model.h"

namespace host::mount {
namespace {

int FromEnvironment(const char* name, int otherwise) {
  const char* text = std::getenv(name);
  return text == nullptr ? otherwise : std::atoi(text);
}

TEST_P(Model, LosesNothingDoublesNothingKeepsBoth) {
  Run(FromEnvironment("VORMLANE_SEED", GetParam()), FromEnvironment("VORMLANE_ROUNDS", 10));
}

INSTANTIATE_TEST_SUITE_P(Seeds, Model, ::testing::Range(1, 5));

}  // namespace
}  // namespace host::mount
