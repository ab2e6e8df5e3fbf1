// SPDX-License-Identifier: MIT
//
// The neighbour table of one trial, and what is derived on the way: radius, slope,
// extent, flags.

#pragma once

#include <array>
#include <cmath>

#include "solver/solver.h"

namespace QuenloftSolver {

// May run on any thread of the team: writes the trial, its row, the slot and the worker's
// selection, and takes the local mark from unlisted trials, which nobody sets meanwhile.
template <int N>
void Solver<N>::RebuildTable(Rebuilt& rebuilt, Worker& worker) {
  using Base = SolverBase::TestBase;
  Test<N>& trial = tests_[rebuilt.position];
  rebuilt.radius_before = trial.radius;

  NeighbourSelection<N>& selection = worker.selection;
  selection.Begin(trial, worker.columns);
  // Listed ones stand in the columns; so does the trial itself. Which are cannot be foreseen,
  // so each is written down, and kept by counting it.
  std::array<std::uint32_t, 3 * N> unlisted;
  std::size_t unlisted_count = 0;
  for (const std::uint32_t position : rows_[rebuilt.position].neighbours) {
    unlisted[unlisted_count] = position;
    unlisted_count += !is_listed_[position];
  }
  for (std::size_t i = 0; i < unlisted_count; ++i) {
    const std::uint32_t position = unlisted[i];
    Test<N>& other = tests_[position];
    selection.AddPrivate(position, other, best_.index);
    if (may_be_local_[position] && (other.flags.load(std::memory_order_relaxed) & Base::kLocal) &&
        TakesMark(rebuilt, other)) {
      other.flags.fetch_and(~Base::kLocal, std::memory_order_relaxed);
    }
  }
  selection.Choose({spread_cosine_, tests_.size() <= combination_count_});
  rebuilt.is_lowest = trial.value.index == best_.index && selection.IsLowest(trial.value.value);
  WriteTable(rebuilt.position, selection);
  rebuilt.trial_class = ClassOf(trial);
  rebuilt.slope = trial.slope;
  SetKeys(rebuilt);
}

// Where faces stand in a table, and which partners are of another index, cannot be
// foreseen. So a face counts as a partner that is the trial itself, which neither widens
// the extent nor has a slope to it, and faces widen the extent when all trials have. Their
// order matters only where a trial lies outside the unit box; then it is kept.
template <int N>
void Solver<N>::WriteTable(std::uint32_t position, const NeighbourSelection<N>& selection) {
  using Base = SolverBase::TestBase;
  Test<N>& trial = tests_[position];
  FloodRow<N>& row = rows_[position];
  const int chosen_count = selection.ChosenCount();
  std::array<std::int32_t, 3 * N> faces;
  int face_count = 0;
  double radius = 0.0;
  for (int i = 0; i < chosen_count; ++i) {
    const std::int32_t test = selection.ChosenTest(i);
    const double distance = selection.ChosenDistance(i);
    trial.neighbours[i] = {test, distance, kUnset, kUnset};
    radius = distance > radius ? distance : radius;
    row.neighbours[i] = IsFace(test) ? position : static_cast<std::uint32_t>(test);
    faces[face_count] = test;
    face_count += IsFace(test);
  }
  for (int i = chosen_count; i < 3 * N && trial.neighbours[i].test != kNone; ++i) {
    trial.neighbours[i] = Neighbour{};
    row.neighbours[i] = position;
  }

  const TestValue value = trial.value;
  double slope = 0.0;
  Coordinates minimum = trial.coordinate;
  Coordinates maximum = trial.coordinate;
  for (int i = 0; i < chosen_count; ++i) {
    const Test<N>& other = tests_[row.neighbours[i]];
    for (int k = 0; k < N; ++k) {
      minimum[k] = other.coordinate[k] < minimum[k] ? other.coordinate[k] : minimum[k];
      maximum[k] = other.coordinate[k] > maximum[k] ? other.coordinate[k] : maximum[k];
    }
    const double steepness =
        std::fabs(other.value.value - value.value) / trial.neighbours[i].distance;
    const double counted = other.value.index == value.index ? steepness : 0.0;
    slope = counted > slope ? counted : slope;
  }
  trial.extent.minimum = minimum;
  trial.extent.maximum = maximum;
  bool is_within = true;
  for (int k = 0; k < N; ++k) {
    is_within &= minimum[k] >= 0.0;
    is_within &= maximum[k] <= 1.0;
  }
  if (is_within) {
    for (int f = 0; f < face_count; ++f) trial.extent.WidenToFace(faces[f]);
  } else {
    trial.extent.SetTo(trial.coordinate);
    for (int i = 0; i < chosen_count; ++i) {
      if (IsFace(trial.neighbours[i].test)) {
        trial.extent.WidenToFace(trial.neighbours[i].test);
      } else {
        trial.extent.Widen(tests_[row.neighbours[i]].coordinate);
      }
    }
  }
  trial.radius = radius;
  trial.slope = slope;
  std::uint32_t flags = Base::kChanged;
  if (face_count > 0) flags |= Base::kBoundary;
  ChangeFlags(trial, {flags, Base::kBoundary | Base::kLocal});
}

template <int N>
void Solver<N>::RaiseSlopes(const Rebuilt& rebuilt) {
  const std::uint32_t c = rebuilt.trial_class;
  if (!(rebuilt.slope > slopes_[c])) return;
  slopes_[c] = rebuilt.slope;
  class_changed_[c] = 1;
  slopes_changed_ = true;
  if (rebuilt.slope > max_slope_) max_slope_ = rebuilt.slope;
}

}  // namespace QuenloftSolver
