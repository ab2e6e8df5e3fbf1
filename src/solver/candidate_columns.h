// SPDX-License-Identifier: MIT
//
// The trials that every neighbour selection of one refresh looks at, gathered once
// so that each selection reads them in a row.

#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "solver/aligned.h"
#include "solver/trial.h"

namespace QuenloftSolver {

// Candidates that stand together: the floats of the widest vector.
inline constexpr std::size_t kBlock = 16;

constexpr std::size_t BlocksFor(std::size_t count) { return (count + kBlock - 1) / kBlock; }

// The square root of `number`, rounded up.
constexpr std::int32_t RootAbove(std::int32_t number) {
  std::int32_t root = 0;
  while (root * root < number) ++root;
  return root;
}

// Points on a grid, for telling which are near one another: coordinates are taken into the
// box and rounded to multiples of 1 / kGrid, counted from the middle. They fit 16 bits, and
// half of a squared distance between two of them fits 32, being at most N kGrid^2 / 2.
template <int N>
inline constexpr std::int32_t kGrid = 65534 / RootAbove(N);

template <int N>
inline std::int32_t OnGrid(double coordinate) {
  const double within = coordinate > 0.0 ? (coordinate < 1.0 ? coordinate : 1.0) : 0.0;
  return static_cast<std::int32_t>(std::lrint((within - 0.5) * kGrid<N>));
}

// In place of minus half a squared length: less than minus half of any squared distance.
inline constexpr std::int32_t kNearNothing = INT32_MIN;

// Two in 32 bits, the first in the lower half.
constexpr std::int32_t PairOf(std::int32_t first, std::int32_t second) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(second) << 16 |
                                   (static_cast<std::uint32_t>(first) & 0xffff));
}

// Invariants:
//   (1) All trials are of one combination (trials of others are never neighbours).
//   (2) Candidates stand in the order in which they were appended, which is the
//       order in which ties between them are resolved.
// Cost: Append O(N).
// Threads: any number may read.
template <int N>
class CandidateColumns {
 public:
  void Clear() { size_ = 0; }
  // Allocates what `count` candidates need; Append must not meet more.
  void Reserve(std::size_t count);
  // `best_index` is the index that a local minimum must have.
  void Append(std::uint32_t position, const std::array<double, N>& point, const TestValue& value,
              std::int32_t best_index);

  std::size_t Size() const { return size_; }
  std::size_t BlockCount() const { return BlocksFor(size_); }

  // On the grid: blocks of kBlock candidates, in a block a row of kBlock pairs for each two
  // coordinates (of an odd number the last stands alone) and one for minus half the squared
  // length, rounded up. The last block is filled up with what is near nothing.
  static constexpr std::size_t kPairs = (N + 1) / 2;
  const std::int32_t* GridBlocks() const { return grid_.data(); }

  // N doubles.
  const double* Coordinates(std::size_t i) const { return rows_.data() + i * N; }
  std::uint32_t Position(std::size_t i) const { return positions_[i]; }
  // The trial's value where it has the best index, +infinity elsewhere.
  double RivalValue(std::size_t i) const { return rival_values_[i]; }

 private:
  std::size_t size_ = 0;
  AlignedVector<std::int32_t> grid_;
  AlignedVector<double> rows_;
  std::vector<double> rival_values_;
  std::vector<std::uint32_t> positions_;
};

}  // namespace QuenloftSolver
