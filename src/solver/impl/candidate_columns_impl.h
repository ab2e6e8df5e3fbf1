// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
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
void CandidateColumns<N>::Append(std::uint32_t position, const std::array<double, N>& point,
                                 const TestValue& value, std::int32_t best_index) {
  const std::size_t slot = size_ % kBlock;
  std::int32_t* block = grid_.data() + size_ / kBlock * (kPairs + 1) * kBlock;
  if (slot == 0) {
    std::fill_n(block, kPairs * kBlock, 0);
    std::fill_n(block + kPairs * kBlock, kBlock, kNearNothing);
  }
  std::copy_n(point.data(), N, rows_.data() + size_ * N);
  std::int32_t square = 0;
  for (std::size_t k = 0; k < N; k += 2) {
    const std::int32_t first = OnGrid<N>(point[k]);
    const std::int32_t second = k + 1 < N ? OnGrid<N>(point[k + 1]) : 0;
    block[k / 2 * kBlock + slot] = PairOf(first, second);
    square += first * first + second * second;
  }
  block[kPairs * kBlock + slot] = -(square / 2);
  rival_values_[size_] =
      value.index == best_index ? value.value : std::numeric_limits<double>::infinity();
  positions_[size_] = position;
  ++size_;
}

}  // namespace QuenloftSolver
