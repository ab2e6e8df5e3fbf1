// SPDX-License-Identifier: MIT
//
// The trials that every neighbour selection of one refresh looks at, gathered once
// so that each selection reads them in a row.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "solver/aligned.h"
#include "solver/trial.h"

namespace QuenloftSolver {

// Candidates that stand together: the floats of the widest vector.
inline constexpr std::size_t kBlock = 16;

constexpr std::size_t BlocksFor(std::size_t count) { return (count + kBlock - 1) / kBlock; }

// Invariants:
//   (1) All trials are of one combination (trials of others are never neighbours).
//   (2) Candidates stand in the order in which they were appended, which is the
//       order in which ties between them are resolved.
// Cost: Append O(N).
// Threads: any number may read.
template <int N>
class CandidateColumns {
 public:
  void Clear() {
    size_ = 0;
    is_moderate_ = true;
  }
  // Allocates what `count` candidates need; Append must not meet more.
  void Reserve(std::size_t count);
  // `best_index` is the index that a local minimum must have.
  void Append(std::uint32_t position, const std::array<double, N>& point, const TestValue& value,
              std::int32_t best_index);

  std::size_t Size() const { return size_; }
  std::size_t BlockCount() const { return BlocksFor(size_); }

  // In single precision: blocks of kBlock candidates, in a block a row of kBlock floats
  // for each coordinate and one for half the squared length of the point. The last
  // block is filled up with NaN.
  const float* RoundedBlocks() const { return rounded_.data(); }
  // Whether every coordinate lies in [-1, 2]: rounding moves what is computed of such
  // points by little.
  bool IsModerate() const { return is_moderate_; }

  // N doubles.
  const double* Coordinates(std::size_t i) const { return rows_.data() + i * N; }
  std::uint32_t Position(std::size_t i) const { return positions_[i]; }
  // The trial's value where it has the best index, +infinity elsewhere.
  double RivalValue(std::size_t i) const { return rival_values_[i]; }

 private:
  std::size_t size_ = 0;
  bool is_moderate_ = true;
  AlignedVector<float> rounded_;
  AlignedVector<double> rows_;
  std::vector<double> rival_values_;
  std::vector<std::uint32_t> positions_;
};

}  // namespace QuenloftSolver
