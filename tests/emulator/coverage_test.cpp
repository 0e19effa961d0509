// The coverage table in the README against the routes.
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "emulator/routes.h"

namespace emulator_test {
namespace {

std::string Cell(const std::string& row, int index) {
  std::istringstream cells(row);
  std::string cell;
  for (int i = 0; i <= index + 1; ++i) std::getline(cells, cell, '|');
  const size_t begin = cell.find_first_not_of(' '), end = cell.find_last_not_of(' ');
  return begin == std::string::npos ? "" : cell.substr(begin, end - begin + 1);
}

std::set<std::string> Documented() {
  std::ifstream readme(EMULATOR_README);
  std::set<std::string> found;
  for (std::string line; std::getline(readme, line);) {
    if (line.rfind("| drive.", 0) != 0 && line.rfind("| oauth.", 0) != 0 &&
        line.rfind("| push.", 0) != 0) {
      continue;
    }
    EXPECT_NE(Cell(line, 2), "") << "checked by nobody: " << line;
    EXPECT_TRUE(found.insert(Cell(line, 0) + " " + Cell(line, 1)).second) << "twice: " << line;
  }
  return found;
}

TEST(Coverage, TheTableNamesEveryRouteAndNoOther) {
  std::set<std::string> served;
  for (const auto* routes : {&emulator::ApiRoutes(), &emulator::PushRoutes()}) {
    for (const emulator::Route& route : *routes) {
      served.insert(std::string(route.name) + " " + route.httpMethod + " " + route.pattern);
    }
  }
  EXPECT_EQ(Documented(), served);
}

}  // namespace
}  // namespace emulator_test
