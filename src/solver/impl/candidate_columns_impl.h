// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <cmath>
#include <limits>

#include "solver/candidate_columns.h"

namespace QuenloftSolver {

template <int N>
void CandidateColumns<N>::Reserve(std::size_t count) {
  if (positions_.size() >= count) return;
  const std::size_t room = BlocksFor(2 * count) * kBlock;
  rounded_.resize(room * (N + 1));
  rows_.resize(room * N);
  rival_values_.resize(room);
  positions_.resize(room);
}

template <int N>
void CandidateColumns<N>::Append(std::uint32_t position, const std::array<double, N>& point,
                                 const TestValue& value, std::int32_t best_index) {
  const std::size_t slot = size_ % kBlock;
  float* block = rounded_.data() + size_ / kBlock * (N + 1) * kBlock;
  if (slot == 0) {
    std::fill_n(block, (N + 1) * kBlock, std::numeric_limits<float>::quiet_NaN());
  }
  double* row = rows_.data() + size_ * N;
  double square = 0.0;
  for (std::size_t k = 0; k < N; ++k) {
    const double coordinate = point[k];
    row[k] = coordinate;
    block[k * kBlock + slot] = static_cast<float>(coordinate);
    square += coordinate * coordinate;
    is_moderate_ = is_moderate_ && coordinate >= -1.0 && coordinate <= 2.0;
  }
  block[N * kBlock + slot] = static_cast<float>(0.5 * square);
  rival_values_[size_] =
      value.index == best_index ? value.value : std::numeric_limits<double>::infinity();
  positions_[size_] = position;
  ++size_;
}

}  // namespace QuenloftSolver
