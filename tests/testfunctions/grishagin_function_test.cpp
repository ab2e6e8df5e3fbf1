// SPDX-License-Identifier: MIT

#include "testfunctions/grishagin_function.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

namespace QuenloftTestFunctions {
namespace {

// The minimizers are listed independently of the coefficients, so this checks the
// seeds, the generator and both tables against each other.
TEST(GrishaginFunction, NowhereOnAGridIsLowerThanAtItsMinimizer) {
  constexpr int kSteps = 100;
  for (int number = 1; number <= 100; ++number) {
    const GrishaginFunction function(number);
    const auto [x, y] = function.GlobalMinimizer();
    const double minimum = function.grishagin_value(x, y);
    double lowest = std::numeric_limits<double>::infinity();
    double highest = -lowest;
    for (int i = 0; i <= kSteps; ++i) {
      for (int j = 0; j <= kSteps; ++j) {
        const double value = function.grishagin_value(i / 100.0, j / 100.0);
        lowest = std::min(lowest, value);
        highest = std::max(highest, value);
      }
    }
    // Six decimals of the minimizer.
    EXPECT_GE(lowest, minimum - 1e-6) << "function " << number;
    EXPECT_GT(highest, minimum + 1.0) << "function " << number;
  }
}

}  // namespace
}  // namespace QuenloftTestFunctions
