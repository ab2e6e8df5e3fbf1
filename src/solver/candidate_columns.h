// SPDX-License-Identifier: MIT
//
// The trials that every neighbour selection of one refresh looks at, gathered once
// into columns that vector instructions can read.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "solver/aligned.h"
#include "solver/trial.h"

namespace QuenloftSolver {

// Candidates measured together: four vectors of four doubles, two of eight.
inline constexpr std::size_t kBlock = 16;

constexpr std::size_t BlocksFor(std::size_t count) { return (count + kBlock - 1) / kBlock; }

// Blocks of kBlock candidates; in a block, one row of kBlock doubles a coordinate.
// The last block is filled up with points at NaN, which are near nothing.
//
// Invariants:
//   (1) All trials are of one combination (trials of others are never neighbours).
//   (2) Candidates stand in the order in which they were appended, which is the
//       order in which ties between them are resolved.
// Cost: Append O(N). Allocates only when it outgrows every earlier use.
template <int N>
class CandidateColumns {
 public:
  void Clear() { size_ = 0; }
  // `best_index` is the index that a local minimum must have.
  void Append(std::uint32_t position, const Test<N>& trial, std::int32_t best_index);

  std::size_t Size() const { return size_; }
  std::size_t BlockCount() const { return BlocksFor(size_); }
  const double* Blocks() const { return coordinates_.data(); }
  // BlockCount() * kBlock values: the trial's value where it has the best index,
  // +infinity elsewhere.
  const double* RivalValues() const { return rival_values_.data(); }
  std::uint32_t Position(std::size_t i) const { return positions_[i]; }
  double Coordinate(std::size_t i, int k) const {
    return coordinates_[(i / kBlock * N + static_cast<std::size_t>(k)) * kBlock + i % kBlock];
  }

 private:
  std::size_t size_ = 0;
  AlignedVector<double> coordinates_;
  AlignedVector<double> rival_values_;
  std::vector<std::uint32_t> positions_;
};

}  // namespace QuenloftSolver
