// SPDX-License-Identifier: MIT

#include "testfunctions/grishagin_function.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

namespace QuenloftTestFunctions {
namespace {

struct ReferenceValue {
  int number;
  double x, y, value;
};

// Any change of these is a change of the class. Only the C library's sine and
// cosine may move the last bits.
constexpr ReferenceValue kReferenceValues[] = {
    {1, 0x1.97239c6c3047fp-1, 0x1.e288d7f5db50cp-1, -0x1.1ca1236566788p+0},
    {10, 0x1.60a8aab8ea01fp-1, 0x1.1b5a192c0d9d2p-1, 0x1.d2496f80b18e0p-2},
    {11, 0x1.7f65a610fdc78p-2, 0x1.5e110a4035cd4p-1, 0x1.f15f4b36f7354p-1},
    {37, 0x1.610a5ee410fa0p-4, 0x1.bc93c6285fdccp-1, -0x1.c16e297f1b460p-1},
    {100, 0x1.5fa75ecf7e8a3p-1, 0x1.cad52b3e8cca8p-1, 0x1.2a6cc74418d72p+0},
};

TEST(GrishaginFunction, GivesTheReferenceValues) {
  for (const ReferenceValue& c : kReferenceValues) {
    EXPECT_NEAR(GrishaginFunction(c.number).grishagin_value(c.x, c.y), c.value, 1e-13)
        << "function " << c.number;
  }
}

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
    EXPECT_LE(highest, 4.0) << "function " << number;
    EXPECT_GT(highest, minimum + 1.0) << "function " << number;
  }
}

TEST(GrishaginFunction, TakesAnyOtherNumberAsOne) {
  const double one = GrishaginFunction(1).grishagin_value(0.3, 0.7);
  for (const int number : {0, -5, 101, std::numeric_limits<int>::min()}) {
    const GrishaginFunction function(number);
    EXPECT_EQ(function.FunctionNumber(), 1);
    EXPECT_EQ(function.grishagin_value(0.3, 0.7), one);
    EXPECT_EQ(function.GlobalMinimizer().x, 0.603052);
    EXPECT_EQ(function.GlobalMinimizer().y, 0.408337);
  }
  EXPECT_NE(GrishaginFunction(100).grishagin_value(0.3, 0.7), one);
}

}  // namespace
}  // namespace QuenloftTestFunctions
