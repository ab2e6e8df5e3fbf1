// SPDX-License-Identifier: MIT
//
// The rebuilding of neighbour tables around the newest trial.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "solver/refresh.h"
#include "solver/team.h"

namespace QuenloftSolver {

template <int N>
void Refresh<N>::RebuildTables(const TableRules& rules, int threads) {
  RebuildAmong(listed_, rules,
               threads > 0 ? threads : ThreadsFor(rebuilt_.size(), listed_.size(), N));
}

template <int N>
void Refresh<N>::ReserveInitial(std::size_t rivals) {
  rebuilt_.reserve(1);
  ReserveTables(1, rivals);
}

template <int N>
void Refresh<N>::RebuildInitial(std::uint32_t position, const std::vector<std::uint32_t>& rivals,
                                const TableRules& rules) {
  is_listed_.Set(position);
  rebuilt_.assign(1, {position});
  ++rebuilt_count_;
  RebuildAmong(rivals, rules, 1);
  is_listed_.ClearAround(position);
}

// Rebuilt are those whose extent holds the newest point and those that never had a table.
// Of the others only initial trials may still be flagged as changed, so nobody else's flags
// are looked at.
template <int N>
void Refresh<N>::ListRebuilt() {
  constexpr std::uint32_t kChanged = SolverBase::TestBase::kChanged;
  const std::array<double, N> newest = (*store_)[store_->Size() - 1].coordinate;
  rebuilt_.reserve(listed_.size());
  rebuilt_positions_.reserve(listed_.size());
  rescored_.reserve(listed_.size());
  rebuilt_.clear();
  rebuilt_positions_.clear();
  for (std::size_t i = 0; i < listed_.size(); ++i) {
    const std::uint32_t position = listed_[i];
    FetchLines(&(*store_)[Ahead(listed_, i, 8)].extent, sizeof(Extent<N>));
    is_listed_.Set(position);
    const Test<N>& trial = (*store_)[position];
    if (trial.extent.Contains(newest) || !trial.extent.IsSet()) {
      rebuilt_.push_back({position});
      rebuilt_positions_.push_back(position);
      rescored_.push_back(position);
    } else if (position < initial_count_ &&
               (trial.flags.load(std::memory_order_relaxed) & kChanged) != 0) {
      rescored_.push_back(position);
    }
  }
  listed_count_ += listed_.size();
  rebuilt_count_ += rebuilt_.size();
}

// The parallel loops: candidates are gathered, then tables rebuilt, which of them by whom as
// it comes, as tables differ in cost. What the body of the second does and may do, see
// TableWorker. What depends on the order of the list is left to the caller's thread.
template <int N>
void Refresh<N>::RebuildAmong(const std::vector<std::uint32_t>& candidates, const TableRules& rules,
                              int threads) {
  ReserveTables(threads, candidates.size());
  ListLocalCandidates(candidates);
  const auto gather = [&](std::size_t i) {
    columns_.Set(i, candidates[i], (*store_)[candidates[i]], rules.best_index);
  };
  const auto rebuild = [&](TableWorker<N>& worker, std::size_t i) {
    // The one that this thread will probably take next; another may have written it last.
    store_->PrefetchTable(Ahead(rebuilt_, i, static_cast<std::size_t>(threads)).position);
    worker.Rebuild(rebuilt_[i], columns_, is_listed_, rules, *store_);
  };
  if (threads == 1) {
    for (std::size_t i = 0; i < candidates.size(); ++i) gather(i);
    for (std::size_t i = 0; i < rebuilt_.size(); ++i) rebuild(workers_[0], i);
  } else {
#pragma omp parallel num_threads(threads)
    {
      TableWorker<N>& worker = workers_[static_cast<std::size_t>(NumberInTeam())];
#pragma omp for schedule(static)
      for (std::size_t i = 0; i < candidates.size(); ++i) gather(i);
#pragma omp for schedule(dynamic) nowait
      for (std::size_t i = 0; i < rebuilt_.size(); ++i) rebuild(worker, i);
    }
  }
  ResolveLocalMarks();
}

template <int N>
void Refresh<N>::ReserveTables(int threads, std::size_t candidates) {
  local_candidates_.reserve(candidates);
  columns_.Resize(candidates);
  const auto count = static_cast<std::size_t>(threads);
  if (workers_.size() < count) workers_.resize(count);
  for (std::size_t number = 0; number < count; ++number) workers_[number].Reserve(candidates);
}

template <int N>
SelectionCounters Refresh<N>::Selections() const {
  SelectionCounters all;
  for (const TableWorker<N>& worker : workers_) {
    all.candidates += worker.Counters().candidates;
    all.kept += worker.Counters().kept;
    all.cosines += worker.Counters().cosines;
    all.rounded_cosines += worker.Counters().rounded_cosines;
  }
  return all;
}

template <int N>
void Refresh<N>::Checkpoint() {
  remembered_ = {initial_count_, listed_, rescored_};
}

template <int N>
void Refresh<N>::Rollback() {
  for (const std::uint32_t position : listed_) is_listed_.ClearAround(position);
  initial_count_ = remembered_.initial_count;
  listed_.swap(remembered_.listed);
  rescored_.swap(remembered_.rescored);
  for (const std::uint32_t position : listed_) is_listed_.Set(position);
}

}  // namespace QuenloftSolver
