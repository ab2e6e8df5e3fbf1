// SPDX-License-Identifier: MIT
//
// The trials that every neighbour selection of one refresh looks at, gathered once so that
// each selection reads them in a row.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "solver/aligned.h"
#include "solver/grid_point.h"
#include "solver/trial.h"

namespace QuenloftSolver {

// Candidates that stand together: the floats of the widest vector.
inline constexpr std::size_t kBlock = 16;

constexpr std::size_t BlocksFor(std::size_t count) { return (count + kBlock - 1) / kBlock; }

// Where candidate `i` stands, in blocks of `row_count` rows of kBlock.
[[gnu::always_inline]] constexpr std::size_t OffsetOf(std::size_t i, std::size_t row_count) {
  return i / kBlock * row_count * kBlock + i % kBlock;
}

// In place of minus half a squared length: less than minus half of any squared distance.
inline constexpr std::int32_t kNearNothing = INT32_MIN;

// Invariants:
//   (1) All trials are of one combination (trials of others are never neighbours).
//   (2) Ties between candidates are resolved in the order in which they stand.
// Cost: Set O(N).
// Threads: any number may set different candidates, or read.
template <int N>
class CandidateColumns {
 public:
  // For so many candidates, all to be set anew.
  void Resize(std::size_t count);
  // `best_index` is the index that a local minimum must have.
  void Set(std::size_t i, std::uint32_t position, const Test<N>& trial, std::int32_t best_index);

  std::size_t Size() const { return size_; }
  std::size_t BlockCount() const { return BlocksFor(size_); }

  // On the grid: blocks of kBlock candidates, in a block a row for each of the pairs and one
  // for minus half the squared length. The last block is filled up with what is near nothing.
  const std::int32_t* GridBlocks() const { return grid_.data(); }

  // N doubles.
  const double* Coordinates(std::size_t i) const { return rows_.data() + i * N; }
  std::uint32_t Position(std::size_t i) const { return positions_[i]; }
  // The trial's value where it has the best index, +infinity elsewhere.
  double RivalValue(std::size_t i) const { return rival_values_[i]; }

 private:
  static constexpr std::size_t kPairs = GridPoint<N>::kPairs;

  std::size_t size_ = 0;
  AlignedVector<std::int32_t> grid_;
  AlignedVector<double> rows_;
  std::vector<double> rival_values_;
  std::vector<std::uint32_t> positions_;
};

}  // namespace QuenloftSolver
