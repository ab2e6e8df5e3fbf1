// SPDX-License-Identifier: MIT
//
// The start of a search: the centre of the box and a cross of points around it, for
// every categorical combination.

#pragma once

#include "solver/solver.h"

namespace QuenloftSolver {

template <int N>
void Solver<N>::Initialize() {
  if (!IsInitialising() || (store_.Size() > 0 && !state_.pending)) return;
  while (state_.pending || ProposeInitial()) {
    AcceptEvaluated();
    if (check_interruption_) check_interruption_();
  }
}

template <int N>
SolverBase::Proposal Solver<N>::Initial(std::uint32_t i) const {
  static thread_local Coordinates point;
  point = problem_.InitialPoint(i);
  return {point.data(), i % problem_.combination_count, -1, -1};
}

template <int N>
bool Solver<N>::ProposeInitial() {
  if (!IsInitialising()) return false;
  if (state_.initial_taken == 0) store_.Reserve();
  const std::uint32_t number = state_.initial_taken;
  state_.pending =
      PendingPoint<N>{problem_.InitialPoint(number), number % problem_.combination_count, {}, 0, 0};
  return true;
}

template <int N>
void Solver<N>::InitialIsTaken() {
  if (++state_.initial_taken < InitialCount()) return;
  state_.registration = Registration::kInitialTables;
  Register();
}

template <int N>
void Solver<N>::LinkInitialTrials() {
  state_.index_minima.assign(problem_.FunctionCount(), kUnbounded);
  std::vector<std::vector<std::uint32_t>> of_combination(problem_.combination_count);
  for (std::uint32_t position = 0; position < TestCount(); ++position) {
    of_combination[store_[position].combination].push_back(position);
  }
  for (const auto& rivals : of_combination) refresh_.ReserveInitial(rivals.size());
  for (std::uint32_t position = 0; position < TestCount(); ++position) {
    const Test<N>& trial = store_[position];
    refresh_.RebuildInitial(position, of_combination[trial.combination], Rules());
    candidates_.RaiseSlope(ClassOf(trial), trial.slope);
    UpdateBest(position);
  }
  refresh_.EndInitial();
}

}  // namespace QuenloftSolver
