// SPDX-License-Identifier: MIT
//
// The start of a search: the centre of the box and a cross of points around it, for
// every categorical combination.

#pragma once

#include <new>

#include "solver/solver.h"

namespace QuenloftSolver {

template <int N>
void Solver<N>::Initialize() {
  if (!tests_.empty()) return;
  SizeContainers();
  PlaceInitialTrials();
  initial_count_ = TestCount();
  for (std::uint32_t position = 0; position < TestCount(); ++position) {
    LinkInitialTrial(position);
  }
  UpdateCandidates(UpdateMode::kFull);
}

template <int N>
void Solver<N>::SizeContainers() {
  index_max_.assign(function_count_, -kUnbounded);
  index_min_.assign(function_count_, kUnbounded);
  slopes_.assign(class_count_, 0.0);
  class_changed_.assign(class_count_, 0);
  local_lists_ = std::vector<CandidateList>(class_count_);
  global_lists_ = std::vector<CandidateList>(class_count_);
  // Appending then moves no trial in a run of ordinary length. Where that much
  // cannot be had, the store starts smaller and grows on demand.
  for (std::size_t room = kReservedTrials; room > tests_.capacity(); room /= 2) {
    try {
      tests_.reserve(room);
      rows_.reserve(room);
      if (!kMarksStandInRows<N>) marks_.reserve(room);
      is_listed_.Reserve(room);
      may_be_local_.Reserve(room);
      break;
    } catch (const std::bad_alloc&) {
    }
  }
  changed_.reserve(kReservedListing);
  if (workers_.empty()) workers_.resize(1);
}

template <int N>
void Solver<N>::PlaceInitialTrials() {
  Coordinates centre;
  centre.fill(0.5);
  AppendInEveryCombination(centre);
  if (parameters_.cross == 0.0) return;
  for (int k = 0; k < N; ++k) {
    for (const double coordinate : {0.5 - parameters_.cross / 2.0, 0.5 + parameters_.cross / 2.0}) {
      Coordinates point = centre;
      point[k] = coordinate;
      AppendInEveryCombination(point);
    }
  }
}

template <int N>
void Solver<N>::AppendInEveryCombination(const Coordinates& point) {
  for (std::uint32_t combination = 0; combination < combination_count_; ++combination) {
    AppendTrial(point, combination, EvaluateAt(point, combination), 0);
  }
}

// Stores a trial without a neighbourhood. Where memory runs out the store is as
// before, but for a row, and perhaps a mark and words of bits, too many, which the next trials
// take.
template <int N>
void Solver<N>::AppendTrial(const Coordinates& point, std::uint32_t combination,
                            const TestValue& value, std::uint32_t flags) {
  const std::uint32_t position = TestCount();
  rows_.resize(position + std::size_t{1});
  if (!kMarksStandInRows<N>) marks_.resize(position + std::size_t{1});
  is_listed_.Resize(position + std::size_t{1});
  may_be_local_.Resize(position + std::size_t{1});
  Test<N>& trial = tests_.emplace_back();
  trial.coordinate = point;
  trial.grid_point = GridPoint<N>(point);
  trial.combination = combination;
  trial.value = value;
  trial.flags.store(flags, std::memory_order_relaxed);
  rows_[position].neighbours.fill(position);
  rows_[position].coordinate = point;
}

template <int N>
void Solver<N>::LinkInitialTrial(std::uint32_t position) {
  // Trials of one combination stand combination_count_ apart.
  std::vector<std::uint32_t> rivals;
  for (std::uint32_t p = tests_[position].combination; p < TestCount(); p += combination_count_) {
    rivals.push_back(p);
  }
  is_listed_.Set(position);
  rebuilt_ = {{position}};
  ++work_.refreshed;
  ReserveWorkers(1, rivals.size());
  RebuildTables(rivals);
  RaiseSlopes(rebuilt_[0]);
  ForgetKeys(rebuilt_[0]);  // slopes are yet to be known
  is_listed_.ClearAround(position);
  ResolveLocalMarks();
  UpdateExtremes(tests_[position].value);
  UpdateBest(position);
}

}  // namespace QuenloftSolver
