// SPDX-License-Identifier: MIT

#pragma once

#include <limits>

#include "solver/candidate_columns.h"

namespace QuenloftSolver {

template <int N>
void CandidateColumns<N>::Reserve(std::size_t count) {
  if (positions_.size() >= count) return;
  const std::size_t room = BlocksFor(2 * count) * kBlock;
  grid_.resize(room * (kPairs + 1));
  rows_.resize(room * N);
  rival_values_.resize(room);
  positions_.resize(room);
}

template <int N>
void CandidateColumns<N>::Append(std::uint32_t position, const Test<N>& trial,
                                 std::int32_t best_index) {
  const std::size_t slot = size_ % kBlock;
  std::int32_t* block = grid_.data() + size_ / kBlock * (kPairs + 1) * kBlock;
  if (slot == 0) {
    for (std::size_t i = 0; i < kPairs * kBlock; ++i) block[i] = 0;
    for (std::size_t i = 0; i < kBlock; ++i) block[kPairs * kBlock + i] = kNearNothing;
  }
  const GridPoint<N>& point = trial.grid_point;
  for (std::size_t k = 0; k < kPairs; ++k) block[k * kBlock + slot] = point.pairs[k];
  block[kPairs * kBlock + slot] = -point.half_square;
  double* const row = rows_.data() + size_ * N;
  for (std::size_t k = 0; k < N; ++k) row[k] = trial.coordinate[k];
  rival_values_[size_] =
      trial.value.index == best_index ? trial.value.value : std::numeric_limits<double>::infinity();
  positions_[size_] = position;
  ++size_;
}

}  // namespace QuenloftSolver
