// SPDX-License-Identifier: MIT

#pragma once

#include <array>
#include <cmath>

#include "solver/table_worker.h"

namespace QuenloftSolver {

template <int N>
void TableWorker<N>::Rebuild(RebuiltTable& table, const CandidateColumns<N>& candidates,
                             const TrialBits& is_listed, const TableRules& rules,
                             TrialStore<N>& store) {
  using Base = SolverBase::TestBase;
  const Test<N>& trial = store[table.position];
  table.radius_before = trial.radius;

  selection_.Begin(trial, candidates);
  // Listed ones stand in the columns; so does the trial itself. Which are cannot be foreseen,
  // so each is written down, and kept by counting it.
  std::array<std::uint32_t, 3 * N> unlisted;
  std::size_t unlisted_count = 0;
  for (const std::uint32_t position : store.Row(table.position).neighbours) {
    unlisted[unlisted_count] = position;
    unlisted_count += !is_listed[position];
  }
  for (std::size_t i = 0; i < unlisted_count; ++i) {
    const std::uint32_t position = unlisted[i];
    const Test<N>& other = store[position];
    selection_.AddPrivate(position, other, rules.best_index);
    if (store.MayBeLocal(position) &&
        (other.flags.load(std::memory_order_relaxed) & Base::kLocal) &&
        TakesMark(trial, table.radius_before, other)) {
      store.Change(position).flags.fetch_and(~Base::kLocal, std::memory_order_relaxed);
    }
  }
  selection_.Choose(rules.selection);
  table.is_lowest = trial.value.index == rules.best_index && selection_.IsLowest(trial.value.value);
  Write(table.position, store);
}

// Where faces stand in a table, and which partners are of another index, cannot be
// foreseen. So a face counts as a partner that is the trial itself, which neither widens
// the extent nor has a slope to it, and faces widen the extent when all trials have. Their
// order matters only where a trial lies outside the unit box; then it is kept.
template <int N>
void TableWorker<N>::Write(std::uint32_t position, TrialStore<N>& store) const {
  using Base = SolverBase::TestBase;
  Test<N>& trial = store.Change(position);
  FloodRow<N>& row = store.ChangeRow(position);
  const int chosen_count = selection_.ChosenCount();
  std::array<std::int32_t, 3 * N> faces;
  int face_count = 0;
  double radius = 0.0;
  for (int i = 0; i < chosen_count; ++i) {
    const std::int32_t test = selection_.ChosenTest(i);
    const double distance = selection_.ChosenDistance(i);
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
  std::array<double, N> minimum = trial.coordinate;
  std::array<double, N> maximum = trial.coordinate;
  for (int i = 0; i < chosen_count; ++i) {
    const Test<N>& other = store[row.neighbours[i]];
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
        trial.extent.Widen(store[row.neighbours[i]].coordinate);
      }
    }
  }
  trial.radius = radius;
  trial.slope = slope;
  std::uint32_t flags = Base::kChanged;
  if (face_count > 0) flags |= Base::kBoundary;
  ChangeFlags(trial, {flags, Base::kBoundary | Base::kLocal});
}

}  // namespace QuenloftSolver
