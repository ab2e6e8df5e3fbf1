// SPDX-License-Identifier: MIT
//
// One local refinement: a trial at the least point of a model fitted to a trial and
// its neighbours.

#pragma once

#include <memory>

#include "solver/solver.h"

namespace QuenloftSolver {

// Mean squared error above which a model is not believed.
inline constexpr double kLargestFitError = 0.001;

template <int N>
bool Solver<N>::Fit(std::uint32_t position) {
  if (!local_fit_) local_fit_ = std::make_unique<LocalFit<N>>();
  if (!ListFitData(position)) return false;

  Coordinates point;
  const std::uint32_t combination = tests_[position].combination;
  {
    const Test<N>& anchor = tests_[position];
    local_fit_->Clear();
    for (const std::uint32_t listed : changed_) {
      local_fit_->Observe(tests_[listed].coordinate, tests_[listed].value.value);
    }
    if (local_fit_->FitModel(anchor.coordinate, anchor.value.value) > kLargestFitError) {
      return false;
    }
    point = local_fit_->MinimiseModel(anchor.coordinate);
    for (int k = 0; k < N; ++k) {
      const double coordinate = point[k];
      if (coordinate < 0.0 || coordinate > 1.0) return false;
      if (anchor.extent.IsSet() &&
          (anchor.extent.minimum[k] > coordinate || coordinate > anchor.extent.maximum[k])) {
        return false;
      }
    }
  }
  AppendTrial(point, combination, EvaluateAt(point, combination), SolverBase::TestBase::kFromFit);
  return RegisterNewest({position, kNone}, 2);
}

// Lists what the model is fitted to: the newest trial, the one at `position` and its
// neighbours of the same index. The newest trial stands twice when it is the one
// fitted or one of its neighbours, and weighs twice: it is the one known least.
// False when the list is too short for a model.
template <int N>
bool Solver<N>::ListFitData(std::uint32_t position) {
  ResetChanged();
  const auto list = [this](std::uint32_t listed) {
    ListForRefresh(listed);
    if (tests_[listed].flags.load(std::memory_order_relaxed) & SolverBase::TestBase::kChanged) {
      to_rescore_.push_back(listed);
    }
  };
  if (tests_[changed_.front()].flags.load(std::memory_order_relaxed) &
      SolverBase::TestBase::kChanged) {
    to_rescore_.push_back(changed_.front());
  }
  list(position);
  const Test<N>& anchor = tests_[position];
  for (const Neighbour& neighbour : anchor.neighbours) {
    if (neighbour.test == kNone) break;
    if (IsFace(neighbour.test)) continue;
    const auto other = static_cast<std::uint32_t>(neighbour.test);
    if (tests_[other].value.index == anchor.value.index) list(other);
  }
  return changed_.size() >= 2 * N + 1;
}

}  // namespace QuenloftSolver
