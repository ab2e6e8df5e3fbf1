// SPDX-License-Identifier: MIT
//
// Which trials the newest one can disturb, and the rebuilding of their tables, which
// is the one parallel loop of the engine.

#pragma once

#include <chrono>
#include <cmath>

#include "solver/solver.h"
#include "solver/team.h"

namespace QuenloftSolver {

// Starts a new refresh with the newest trial on its list. A new number unlists all
// others at once.
template <int N>
void Solver<N>::ResetChanged() {
  for (const std::uint32_t position : to_rescore_) {
    tests_[position].flags.fetch_and(~SolverBase::TestBase::kChanged, std::memory_order_relaxed);
  }
  to_rescore_.clear();
  ++refresh_number_;
  changed_.clear();
  changed_.push_back(TestCount() - 1);
}

template <int N>
void Solver<N>::ListForRefresh(std::uint32_t position) {
  marks_[position] = MarkNow(kListed);
  changed_.push_back(position);
}

// Floods from the listed trials through their tables. The first `whole_rings` rings
// are taken whole and stretch the newest trial's extent; after them the flood goes
// on only within that extent. changed_ is the queue: each ring is a stretch of it.
template <int N>
void Solver<N>::ExpandChanged(int whole_rings) {
  Extent<N>& extent = tests_.back().extent;
  const Test<N>* tests = tests_.data();
  std::size_t ring_begin = 0;
  for (int ring = 0; ring_begin < changed_.size(); ++ring) {
    const bool is_whole = ring < whole_rings;
    const bool is_bounded = !is_whole && extent.IsSet();
    const std::size_t ring_end = changed_.size();
    for (; ring_begin < ring_end; ++ring_begin) {
      for (const Neighbour& neighbour : tests[changed_[ring_begin]].neighbours) {
        if (neighbour.test == kNone) break;
        if (IsFace(neighbour.test)) {
          if (is_whole) extent.WidenToFace(neighbour.test);
          continue;
        }
        const auto position = static_cast<std::uint32_t>(neighbour.test);
        if (marks_[position] >= MarkNow(kOutside)) continue;
        const auto& point = tests[position].coordinate;
        if (is_whole) {
          extent.Widen(point);
        } else if (is_bounded && !extent.Contains(point)) {
          // The extent is final by now, so no later look need repeat this one.
          marks_[position] = MarkNow(kOutside);
          continue;
        }
        ListForRefresh(position);
      }
    }
  }
}

template <int N>
void Solver<N>::RefreshNeighbours() {
  ListRebuilt();
  GatherCandidates(changed_);
  RebuildTables();
  ResolveLocalMarks();
}

// The listed trials whose extent holds the newest point, and those that never had a
// table.
template <int N>
void Solver<N>::ListRebuilt() {
  const Coordinates& newest = tests_.back().coordinate;
  rebuilt_.clear();
  for (const std::uint32_t position : changed_) {
    const Test<N>& trial = tests_[position];
    if (!trial.extent.IsSet() || trial.extent.Contains(newest)) {
      rebuilt_.push_back({position, trial.radius, false});
      marks_[position] = MarkNow(kRebuilt);
      to_rescore_.push_back(position);
    } else if (trial.flags.load(std::memory_order_relaxed) & SolverBase::TestBase::kChanged) {
      // Rebuilt among the initial trials and never listed since.
      to_rescore_.push_back(position);
    }
  }
  work_.listed += changed_.size();
}

template <int N>
void Solver<N>::GatherCandidates(const std::vector<std::uint32_t>& positions) {
  columns_.Clear();
  local_candidates_.clear();
  for (const std::uint32_t position : positions) {
    const Test<N>& trial = tests_[position];
    columns_.Append(position, trial, best_.index);
    if (trial.flags.load(std::memory_order_relaxed) & SolverBase::TestBase::kLocal) {
      local_candidates_.push_back(position);
    }
  }
}

// The parallel loop. An iteration reads of other trials only points and values,
// which nobody writes, and writes its own trial and slot; what must be seen in list
// order is left to the caller's thread. So any number of threads gives the same
// result.
template <int N>
void Solver<N>::RebuildTables() {
  const auto count = static_cast<std::ptrdiff_t>(rebuilt_.size());
  work_.refreshed += rebuilt_.size();
  const double work = Team::Work(rebuilt_.size(), columns_.Size(), N);
  const int threads = team_.ThreadsFor(work, evaluation_nanoseconds_);
  if (selections_.size() < static_cast<std::size_t>(threads)) {
    selections_.resize(static_cast<std::size_t>(threads));
  }
  for (int worker = 0; worker < threads; ++worker) {
    selections_[static_cast<std::size_t>(worker)].Reserve(columns_.Size());
  }
  const auto start = std::chrono::steady_clock::now();
  if (threads == 1) {
    for (Rebuilt& rebuilt : rebuilt_) RebuildTable(rebuilt, selections_[0]);
  } else {
#pragma omp parallel for schedule(static) num_threads(threads)
    for (std::ptrdiff_t i = 0; i < count; ++i) {
      RebuildTable(rebuilt_[static_cast<std::size_t>(i)],
                   selections_[static_cast<std::size_t>(Team::WorkerNumber())]);
    }
  }
  const std::chrono::duration<double, std::nano> elapsed = std::chrono::steady_clock::now() - start;
  team_.Record(threads, work, elapsed.count());
  for (const Rebuilt& rebuilt : rebuilt_) RaiseSlopes(tests_[rebuilt.position]);
}

// A rebuilt trial that is lowest within its radius is a local minimum, until a
// rebuilt trial after it in the list is lower and sees it; the same takes the mark
// from a listed trial that was not rebuilt. The outcome is that of handling one
// trial after the other in list order.
template <int N>
void Solver<N>::ResolveLocalMarks() {
  constexpr std::uint32_t kLocal = SolverBase::TestBase::kLocal;
  for (const std::uint32_t position : local_candidates_) {
    Test<N>& trial = tests_[position];
    for (const Rebuilt& rebuilt : rebuilt_) {
      if (TakesMark(rebuilt, trial)) {
        trial.flags.fetch_and(~kLocal, std::memory_order_relaxed);
        break;
      }
    }
  }
  for (std::size_t i = 0; i < rebuilt_.size(); ++i) {
    Test<N>& trial = tests_[rebuilt_[i].position];
    bool is_local = rebuilt_[i].is_lowest;
    for (std::size_t later = i + 1; is_local && later < rebuilt_.size(); ++later) {
      is_local = !TakesMark(rebuilt_[later], trial);
    }
    if (is_local) {
      trial.flags.fetch_or(kLocal, std::memory_order_relaxed);
    } else {
      trial.flags.fetch_and(~kLocal, std::memory_order_relaxed);
    }
  }
}

// Whether `rebuilt`, when its table was rebuilt, saw `other` within its radius and
// lay below it.
template <int N>
bool Solver<N>::TakesMark(const Rebuilt& rebuilt, const Test<N>& other) const {
  const Test<N>& trial = tests_[rebuilt.position];
  if (trial.value.index != other.value.index || !(other.value.value > trial.value.value)) {
    return false;
  }
  double square = 0.0;
  for (int k = 0; k < N; ++k) {
    const double difference = other.coordinate[k] - trial.coordinate[k];
    square += difference * difference;
  }
  const double distance = std::sqrt(square);
  return distance != 0.0 && distance <= rebuilt.radius_before;
}

}  // namespace QuenloftSolver
