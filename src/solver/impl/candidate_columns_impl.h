// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <limits>

#include "solver/candidate_columns.h"

namespace QuenloftSolver {

template <int N>
void CandidateColumns<N>::Resize(std::size_t count) {
  if (positions_.size() < count) {
    const std::size_t room = BlocksFor(2 * count) * kBlock;
    grid_.resize(room * (kPairs + 1));
    rows_.resize(room * N);
    rival_values_.resize(room);
    positions_.resize(room);
  }
  size_ = count;
  if (size_ == 0) return;
  std::int32_t* const block = grid_.data() + (BlockCount() - 1) * (kPairs + 1) * kBlock;
  std::fill_n(block, kPairs * kBlock, 0);
  std::fill_n(block + kPairs * kBlock, kBlock, kNearNothing);
}

template <int N>
void CandidateColumns<N>::Set(std::size_t i, std::uint32_t position, const Test<N>& trial,
                              std::int32_t best_index) {
  std::int32_t* const grid = grid_.data() + OffsetOf(i, kPairs + 1);
  const GridPoint<N>& point = trial.grid_point;
  for (std::size_t k = 0; k < kPairs; ++k) grid[k * kBlock] = point.pairs[k];
  grid[kPairs * kBlock] = -point.half_square;
  std::copy_n(trial.coordinate.data(), N, rows_.data() + i * N);
  rival_values_[i] =
      trial.value.index == best_index ? trial.value.value : std::numeric_limits<double>::infinity();
  positions_[i] = position;
}

}  // namespace QuenloftSolver
