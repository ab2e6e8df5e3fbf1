// SPDX-License-Identifier: MIT
//
// The neighbour table of one trial, and what is derived on the way: radius, slope,
// extent, flags.

#pragma once

#include <cmath>

#include "solver/solver.h"

namespace QuenloftSolver {

// May run on any thread of the team: writes the trial, the slot and the selection,
// and takes the local mark from unlisted trials, which nobody sets meanwhile.
template <int N>
void Solver<N>::RebuildTable(Rebuilt& rebuilt, NeighbourSelection<N>& selection) {
  using Base = SolverBase::TestBase;
  Test<N>& trial = tests_[rebuilt.position];
  rebuilt.radius_before = trial.radius;

  selection.Begin(trial, columns_);
  for (const Neighbour& neighbour : trial.neighbours) {
    if (neighbour.test == kNone) break;
    if (IsFace(neighbour.test)) continue;
    const auto position = static_cast<std::uint32_t>(neighbour.test);
    if (IsListed(position)) continue;  // stands in the columns
    Test<N>& other = tests_[position];
    selection.AddPrivate(position, other, best_.index);
    if ((other.flags.load(std::memory_order_relaxed) & Base::kLocal) && TakesMark(rebuilt, other)) {
      other.flags.fetch_and(~Base::kLocal, std::memory_order_relaxed);
    }
  }
  selection.Choose({spread_cosine_, tests_.size() <= combination_count_});
  rebuilt.is_lowest = trial.value.index == best_.index && selection.IsLowest(trial.value.value);
  WriteTable(trial, selection);
}

template <int N>
void Solver<N>::WriteTable(Test<N>& trial, const NeighbourSelection<N>& selection) const {
  using Base = SolverBase::TestBase;
  double radius = 0.0;
  double slope = 0.0;
  bool meets_face = false;
  trial.extent.SetTo(trial.coordinate);
  const int chosen_count = selection.ChosenCount();
  for (int i = 0; i < 3 * N; ++i) {
    Neighbour& entry = trial.neighbours[i];
    if (i >= chosen_count) {
      if (entry.test == kNone) break;  // so are all that follow
      entry = Neighbour{};
      continue;
    }
    entry = Neighbour{selection.ChosenTest(i), selection.ChosenDistance(i), kUnset, kUnset};
    if (entry.distance > radius) radius = entry.distance;
    if (IsFace(entry.test)) {
      meets_face = true;
      trial.extent.WidenToFace(entry.test);
      continue;
    }
    const Test<N>& other = tests_[static_cast<std::uint32_t>(entry.test)];
    trial.extent.Widen(other.coordinate);
    if (other.value.index != trial.value.index) continue;
    const double steepness = std::fabs(other.value.value - trial.value.value) / entry.distance;
    if (steepness > slope) slope = steepness;
  }
  trial.radius = radius;
  trial.slope = slope;
  if (meets_face) {
    trial.flags.fetch_or(Base::kChanged | Base::kBoundary, std::memory_order_relaxed);
  } else {
    trial.flags.fetch_and(~Base::kBoundary, std::memory_order_relaxed);
    trial.flags.fetch_or(Base::kChanged, std::memory_order_relaxed);
  }
}

template <int N>
void Solver<N>::RaiseSlopes(const Test<N>& trial) {
  const std::uint32_t c = ClassOf(trial);
  if (!(trial.slope > slopes_[c])) return;
  slopes_[c] = trial.slope;
  class_changed_[c] = 1;
  slopes_changed_ = true;
  if (trial.slope > max_slope_) max_slope_ = trial.slope;
}

}  // namespace QuenloftSolver
