// SPDX-License-Identifier: MIT

#include "testfunctions/lagged_fibonacci.h"

#include <gtest/gtest.h>

namespace QuenloftTestFunctions {
namespace {

// The check that Knuth prints beside the generator: this seed, and the number
// that follows 2009 blocks.
TEST(LaggedFibonacciSource, GivesTheNumberPublishedForItsSeed) {
  LaggedFibonacciSource source(310952);
  LaggedFibonacciSource::Block block;
  for (int i = 0; i < 2010; ++i) source.lagged_fibonacci_fill(block);
  EXPECT_DOUBLE_EQ(block[0], 0.27452626307394156768);
}

}  // namespace
}  // namespace QuenloftTestFunctions
