// SPDX-License-Identifier: MIT
//
// Points on a grid, for telling by whole numbers which trials are near one another.

#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace QuenloftSolver {

// The square root of `number`, rounded up.
constexpr std::int32_t RootAbove(std::int32_t number) {
  std::int32_t root = 0;
  while (root * root < number) ++root;
  return root;
}

// Two in 32 bits, the first in the lower half.
constexpr std::int32_t PairOf(std::int32_t first, std::int32_t second) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(second) << 16 |
                                   (static_cast<std::uint32_t>(first) & 0xffff));
}

// A point of the unit box, or one outside taken into it, with its coordinates counted from
// the middle and rounded to multiples of 1 / kMultiples. They fit 16 bits, and half of a
// squared distance between two such points fits 32, being at most N kMultiples^2 / 2.
template <int N>
struct GridPoint {
  static constexpr std::int32_t kMultiples = 65534 / RootAbove(N);
  static constexpr std::size_t kPairs = (N + 1) / 2;

  GridPoint() = default;
  explicit GridPoint(const std::array<double, N>& point) {
    std::int32_t square = 0;
    for (std::size_t k = 0; k < N; k += 2) {
      const std::int32_t first = Multiples(point[k]);
      const std::int32_t second = k + 1 < N ? Multiples(point[k + 1]) : 0;
      pairs[k / 2] = PairOf(first, second);
      square += first * first + second * second;
    }
    half_square = square / 2;
  }

  // Of two coordinates each; of an odd number the last stands alone.
  std::array<std::int32_t, kPairs> pairs;
  // Half the squared length, rounded down.
  std::int32_t half_square;

 private:
  static std::int32_t Multiples(double coordinate) {
    const double within = coordinate > 0.0 ? (coordinate < 1.0 ? coordinate : 1.0) : 0.0;
    return static_cast<std::int32_t>(std::lrint((within - 0.5) * kMultiples));
  }
};

}  // namespace QuenloftSolver
