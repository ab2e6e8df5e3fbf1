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
  // Listed ones stand in the columns; so does the trial itself.
  const std::uint32_t listed = MarkNow(kListed);
  for (const std::uint32_t position : rows_[rebuilt.position].neighbours) {
    if (rows_[position].mark >= listed) continue;
    Test<N>& other = tests_[position];
    selection.AddPrivate(position, other, best_.index);
    if ((other.flags.load(std::memory_order_relaxed) & Base::kLocal) && TakesMark(rebuilt, other)) {
      other.flags.fetch_and(~Base::kLocal, std::memory_order_relaxed);
    }
  }
  selection.Choose({spread_cosine_, tests_.size() <= combination_count_});
  rebuilt.is_lowest = trial.value.index == best_.index && selection.IsLowest(trial.value.value);
  WriteTable(rebuilt.position, selection);
}

template <int N>
void Solver<N>::WriteTable(std::uint32_t position, const NeighbourSelection<N>& selection) {
  using Base = SolverBase::TestBase;
  Test<N>& trial = tests_[position];
  FloodRow<N>& row = rows_[position];
  double radius = 0.0;
  double slope = 0.0;
  bool meets_face = false;
  Extent<N> extent;
  extent.SetTo(trial.coordinate);
  const TestValue value = trial.value;
  const int chosen_count = selection.ChosenCount();
  for (int i = 0; i < chosen_count; ++i) {
    const std::int32_t test = selection.ChosenTest(i);
    const double distance = selection.ChosenDistance(i);
    trial.neighbours[i] = {test, distance, kUnset, kUnset};
    radius = distance > radius ? distance : radius;
    if (IsFace(test)) {
      row.neighbours[i] = position;
      meets_face = true;
      extent.WidenToFace(test);
      continue;
    }
    row.neighbours[i] = static_cast<std::uint32_t>(test);
    const Test<N>& other = tests_[static_cast<std::uint32_t>(test)];
    extent.Widen(other.coordinate);
    if (other.value.index != value.index) continue;
    const double steepness = std::fabs(other.value.value - value.value) / distance;
    slope = steepness > slope ? steepness : slope;
  }
  for (int i = chosen_count; i < 3 * N && trial.neighbours[i].test != kNone; ++i) {
    trial.neighbours[i] = Neighbour{};
    row.neighbours[i] = position;
  }
  trial.extent = extent;
  trial.radius = radius;
  trial.slope = slope;
  std::uint32_t flags = Base::kChanged;
  if (meets_face) flags |= Base::kBoundary;
  ChangeFlags(trial, {flags, Base::kBoundary});
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
