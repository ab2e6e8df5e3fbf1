// SPDX-License-Identifier: MIT
//
// Construction, copies, checkpoints.

#pragma once

#include "solver/solver.h"

namespace QuenloftSolver {

template <int N>
Solver<N>::Solver(Definition definition)
    : problem_(std::move(definition)),
      refresh_(&store_),
      candidates_(problem_.FunctionCount(), problem_.combination_count) {}

template <int N>
std::shared_ptr<SolverBase> Solver<N>::Copy() const {
  auto copy = std::make_shared<Solver>(*this);
  copy->refresh_.Attach(&copy->store_);
  return copy;
}

template <int N>
void Solver<N>::Checkpoint() {
  Register();
  store_.ForgetCheckpoint();  // it is gone where memory runs out
  remembered_ = state_;
  refresh_.Checkpoint();
  candidates_.Checkpoint();
  store_.Checkpoint();
}

template <int N>
void Solver<N>::Rollback() {
  if (!store_.HasCheckpoint()) return;
  store_.Rollback();
  refresh_.Rollback();
  candidates_.Rollback();
  state_ = remembered_;
}

template <int N>
const std::int32_t* Solver<N>::DecodeCombination(std::uint32_t combination) const {
  static thread_local std::vector<std::int32_t> categories;
  categories.resize(problem_.categorical_sizes.size());
  DecodeCategories(problem_.categorical_sizes, combination, categories.data());
  return categories.data();
}

template <int N>
const std::vector<std::int32_t>& Solver<N>::CategoricalSizes() const {
  return problem_.categorical_sizes;
}

template <int N>
void Solver<N>::ToBounds(const double* unit, double* bounded) const {
  problem_.ToBounds(unit, bounded);
}

template <int N>
void Solver<N>::SetInterruptionCheck(std::function<void()> check) {
  check_interruption_ = std::move(check);
}

template <int N>
WorkCounters Solver<N>::Work() const {
  return {refresh_.ListedCount(), refresh_.RebuiltCount(), candidates_.Work(),
          refresh_.Selections()};
}

}  // namespace QuenloftSolver
