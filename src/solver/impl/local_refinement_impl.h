// SPDX-License-Identifier: MIT
//
// One local refinement: a trial at the least point of a model fitted to a trial and
// its neighbours.

#pragma once

#include <cassert>
#include <memory>

#include "solver/solver.h"

namespace QuenloftSolver {

// Mean squared error above which a model is not believed.
inline constexpr double kLargestFitError = 0.001;

template <int N>
bool Solver<N>::Fit(std::uint32_t position) {
  Register();
  state_.has_improved = false;
  if (ProposeFit(position)) AcceptEvaluated();
  return state_.has_improved;
}

// A step that improved the best trial is followed by fits while they improve it, too.
template <int N>
bool Solver<N>::ProposeDueFit() {
  if (state_.fits_due > 0 && ProposeFit(state_.best_position)) return true;
  state_.fits_due = 0;
  return false;
}

template <int N>
void Solver<N>::ReserveFit() {
  fit_data_.reserve(3 * N + 2);
  if (!local_fit_) local_fit_.reset(new LocalFit<N>);
}

template <int N>
bool Solver<N>::ProposeFit(std::uint32_t position) {
  ReserveFit();
  if (!ListFitData(position)) return false;

  Coordinates point;
  const std::uint32_t combination = store_[position].combination;
  {
    const Test<N>& anchor = store_[position];
    local_fit_->Clear();
    for (const std::uint32_t listed : fit_data_) {
      local_fit_->Observe(store_[listed].coordinate, store_[listed].value.value);
    }
    const double error =
        local_fit_->FitModel(anchor.coordinate, anchor.value.value, check_interruption_);
    if (error > kLargestFitError) return false;
    point = local_fit_->MinimiseModel(anchor.coordinate, check_interruption_);
    for (int k = 0; k < N; ++k) {
      const double coordinate = point[k];
      if (coordinate < 0.0 || coordinate > 1.0) return false;
      if (anchor.extent.IsSet() &&
          (anchor.extent.minimum[k] > coordinate || coordinate > anchor.extent.maximum[k])) {
        return false;
      }
    }
  }
  state_.pending =
      PendingPoint<N>{point, combination, {position, kNone}, 2, SolverBase::TestBase::kFromFit};
  return true;
}

// Lists what the model is fitted to: the newest trial, the one at `position` and its
// neighbours of the same index. The newest trial stands twice when it is the one
// fitted or one of its neighbours, and weighs twice: it is the one known least.
// False when the list is too short for a model.
template <int N>
bool Solver<N>::ListFitData(std::uint32_t position) {
  assert(position < TestCount());
  fit_data_.assign({TestCount() - 1, position});
  const Test<N>& anchor = store_[position];
  for (const Neighbour& neighbour : anchor.neighbours) {
    if (neighbour.test == kNone) break;
    if (IsFace(neighbour.test)) continue;
    const auto other = static_cast<std::uint32_t>(neighbour.test);
    if (store_[other].value.index == anchor.value.index) fit_data_.push_back(other);
  }
  refresh_.Begin();
  for (const std::uint32_t listed : fit_data_) refresh_.Unflag(listed);
  return fit_data_.size() >= 2 * N + 1;
}

}  // namespace QuenloftSolver
