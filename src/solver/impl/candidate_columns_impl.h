// SPDX-License-Identifier: MIT

#pragma once

#include <limits>

#include "solver/candidate_columns.h"

namespace QuenloftSolver {

template <int N>
void CandidateColumns<N>::Append(std::uint32_t position, const Test<N>& trial,
                                 std::int32_t best_index) {
  const std::size_t slot = size_ % kBlock;
  if (slot == 0 && rival_values_.size() <= size_) {
    coordinates_.resize((size_ + kBlock) * N);
    rival_values_.resize(size_ + kBlock);
    positions_.resize(size_ + kBlock);
  }
  double* block = coordinates_.data() + size_ / kBlock * N * kBlock;
  if (slot == 0) {
    for (std::size_t j = 0; j < kBlock; ++j) {
      block[j] = std::numeric_limits<double>::quiet_NaN();
    }
  }
  for (int k = 0; k < N; ++k) {
    block[static_cast<std::size_t>(k) * kBlock + slot] = trial.coordinate[k];
  }
  rival_values_[size_] =
      trial.value.index == best_index ? trial.value.value : std::numeric_limits<double>::infinity();
  positions_[size_] = position;
  ++size_;
}

}  // namespace QuenloftSolver
