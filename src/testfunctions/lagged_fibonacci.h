// SPDX-License-Identifier: MIT
//
// The random numbers behind the GKLS classes: Knuth's lagged Fibonacci
// generator on floating-point fractions (D. E. Knuth, The Art of Computer
// Programming, volume 2, 3rd edition, section 3.6, lags 100 and 37), in its
// first form, whose seeding draws no warm-up blocks.

#pragma once

#include <array>
#include <cstdint>

namespace QuenloftTestFunctions {

// A stream of fractions, handed out in blocks: u(n) = (u(n-100) + u(n-37)) mod 1
// on multiples of 2^-52 in [0, 1). Every operation is exact, so equal seeds give
// equal streams on every platform with IEEE doubles.
//
// Threads: none; an object belongs to one thread.
class LaggedFibonacciSource {
 public:
  // Numbers in a block. Knuth recommends to draw about 1,000 at a time; 1009 is
  // the length with which the published GKLS classes are generated.
  static constexpr int kBlockLength = 1009;
  using Block = std::array<double, kBlockLength>;

  // The low 30 bits of `seed` choose the stream. Streams of different seeds are
  // stretches of one sequence that start at least 2^70 numbers apart.
  explicit LaggedFibonacciSource(std::uint32_t seed) { lagged_fibonacci_seed(seed); }

  void lagged_fibonacci_seed(std::uint32_t seed);

  // Writes the next kBlockLength numbers of the stream.
  void lagged_fibonacci_fill(Block& block);

 private:
  static constexpr int kLongLag = 100;
  static constexpr int kShortLag = 37;

  // The kLongLag numbers with which the next block starts.
  std::array<double, kLongLag> lagged_state_{};
};

}  // namespace QuenloftTestFunctions
