// SPDX-License-Identifier: MIT
//
// Which trials the newest one can disturb, and the rebuilding of their tables, which
// is the one parallel loop of the engine.

#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <exception>

#include "solver/solver.h"
#include "solver/team.h"

namespace QuenloftSolver {

// Starts a new refresh with the newest trial on its list. A new number makes all trials
// unmet at once; the newest needs no mark, as no table has it yet.
template <int N>
void Solver<N>::ResetChanged() {
  for (const std::uint32_t position : to_rescore_) {
    ChangeFlags(tests_[position], {0, SolverBase::TestBase::kChanged});
  }
  to_rescore_.clear();
  for (const std::uint32_t position : changed_) is_listed_.ClearAround(position);
  ++refresh_number_;
  changed_.clear();
  changed_.push_back(TestCount() - 1);
}

template <int N>
void Solver<N>::ListForRefresh(std::uint32_t position) {
  MetBy(position) = refresh_number_;
  changed_.push_back(position);
}

// Floods from the listed trials through their tables. The first `whole_rings` rings
// are taken whole and stretch the newest trial's extent; after them the flood goes
// on only within that extent. changed_ is the queue: each ring is a stretch of it.
template <int N>
void Solver<N>::ExpandChanged(int whole_rings) {
  std::size_t ring_begin = 0;
  for (int ring = 0; ring < whole_rings; ++ring) ring_begin = TakeWholeRing(ring_begin);
  while (ring_begin < changed_.size()) ring_begin = TakeRingWithinExtent(ring_begin);
}

// Lists the neighbours of the ring that begins at `ring_begin` and ends the list.
// Returns where theirs begins.
template <int N>
std::size_t Solver<N>::TakeWholeRing(std::size_t ring_begin) {
  Extent<N>& extent = tests_.back().extent;
  const std::size_t ring_end = changed_.size();
  for (std::size_t i = ring_begin; i < ring_end; ++i) {
    for (const Neighbour& neighbour : tests_[changed_[i]].neighbours) {
      if (neighbour.test == kNone) break;
      if (IsFace(neighbour.test)) {
        extent.WidenToFace(neighbour.test);
        continue;
      }
      const auto position = static_cast<std::uint32_t>(neighbour.test);
      if (MetBy(position) == refresh_number_) continue;
      extent.Widen(rows_[position].coordinate);
      ListForRefresh(position);
    }
  }
  return ring_end;
}

// The same for those of them within the extent.
//
// The plain way goes through the tables and asks of each neighbour whether it is a
// trial, was met before, lies within: a thousand neighbours a step at N = 4, most met
// before, and no answer can be foreseen. Here two loops ask the same without a branch,
// one over all neighbours for those not met before, one over these for those within.
// Whatever the answer an entry is written, and kept by counting it. The first marks all
// alike, as met; which are listed is marked when the flood is over. The list is the
// plain one: the extent is final, and whether a trial met is then listed makes no
// difference to whether it is met again. With the rows, three times less at N = 4, where
// the plain way took 18 % of a search (AMD EPYC, g++ 12).
template <int N>
std::size_t Solver<N>::TakeRingWithinExtent(std::size_t ring_begin) {
  const std::size_t ring_end = changed_.size();
  FloodRow<N>* rows = rows_.data();
  const std::uint32_t refresh = refresh_number_;
  const std::size_t most = (ring_end - ring_begin) * 3 * N;
  if (seen_.size() < most) seen_.resize(2 * most);
  std::uint32_t* seen = seen_.data();
  std::size_t seen_count = 0;
  for (std::size_t i = ring_begin; i < ring_end; ++i) {
    for (const std::uint32_t position : rows[changed_[i]].neighbours) {
      seen[seen_count] = position;
      seen_count += MetBy(position) != refresh;
      MetBy(position) = refresh;
    }
  }

  const Extent<N> extent = tests_.back().extent;
  changed_.resize(ring_end + seen_count);
  std::uint32_t* listed = changed_.data() + ring_end;
  for (std::size_t i = 0; i < seen_count; ++i) {
    const std::uint32_t position = seen[i];
    *listed = position;
    listed += extent.Contains(rows[position].coordinate);
  }
  changed_.resize(static_cast<std::size_t>(listed - changed_.data()));
  return ring_end;
}

template <int N>
void Solver<N>::RefreshNeighbours() {
  const int threads = team_.ThreadsFor(evaluation_nanoseconds_);
  ReserveWorkers(threads, changed_.size());
  stale_are_marked_ = false;
  if (threads == 1) {
    ListRebuilt();
    RebuildTables(changed_);
  } else {
    RebuildInTeam(threads);
  }
  for (const Rebuilt& rebuilt : rebuilt_) RaiseSlopes(rebuilt);
  if (slopes_changed_) {  // the keys were computed with the slopes before
    for (Rebuilt& rebuilt : rebuilt_) ForgetKeys(rebuilt);
  }
  ResolveLocalMarks();
}

// Marks the listed trials. Of them rebuilt_ gets those whose extent holds the newest point
// and those that never had a table, to_rescore_ these and those that were rebuilt among the
// initial trials and never listed since. Nobody else is flagged as changed by now, so nobody
// else's flags are looked at, which another core may have written. Which they are cannot be
// foreseen, so each trial is written down, and kept by counting it.
template <int N>
void Solver<N>::ListRebuilt() {
  constexpr std::uint32_t kChanged = SolverBase::TestBase::kChanged;
  const Coordinates newest = tests_.back().coordinate;
  const Test<N>* const trials = tests_.data();
  const std::uint32_t initial_count = initial_count_;
  to_rescore_.resize(changed_.size());
  std::uint32_t* listed = to_rescore_.data();
  bool all_rebuilt = true;
  const auto needs_table = [&newest](const Test<N>& trial) {
    bool needs = trial.extent.Contains(newest);
    needs |= !trial.extent.IsSet();
    return needs;
  };
  for (const std::uint32_t position : changed_) {
    is_listed_.Set(position);
    const Test<N>& trial = trials[position];
    const bool is_rebuilt = needs_table(trial);
    const bool is_changed =
        position < initial_count && (trial.flags.load(std::memory_order_relaxed) & kChanged) != 0;
    *listed = position;
    listed += is_rebuilt | is_changed;
    all_rebuilt &= is_rebuilt | !is_changed;
  }
  to_rescore_.resize(static_cast<std::size_t>(listed - to_rescore_.data()));

  rebuilt_.clear();
  rebuilt_positions_.clear();
  for (const std::uint32_t position : to_rescore_) {
    if (all_rebuilt || needs_table(trials[position])) {
      rebuilt_.push_back({position});
      rebuilt_positions_.push_back(position);
      local_bounds_.Fetch(position);
      global_bounds_.Fetch(position);
    }
  }
  work_.listed += changed_.size();
  work_.refreshed += rebuilt_.size();
}

// The parallel region. The loop over the tables reads of other trials only points and values,
// which nobody writes, and bits that tell which are listed and which may be marked local; an
// iteration writes its own trial, row and slot. And it takes the local mark from trials that
// are not listed, which no thread sets meanwhile, so in whatever order. What must be seen in
// list order is left to the caller's thread. So any number of threads gives the same result.
// Nothing in the loop may allocate or throw.
//
// It takes a microsecond until the other threads have heard of the region and gathered the
// candidates. Meanwhile the caller's thread lists which tables there are, and while they begin
// it goes on with what needs no table; the sharing of tables makes up for it.
//
// What one core has written another must wait for, line by line: half a microsecond each
// where they share no cache. So each thread gathers the candidates for itself, tables are
// asked for before they are written, and the caller's thread asks for those that others have
// rebuilt all at once; of most it needs only what their slots tell.
template <int N>
void Solver<N>::RebuildInTeam(int threads) {
  Signal are_listed;
  std::exception_ptr listing_error;
  const auto attempt = [](auto action) -> std::exception_ptr {
    try {
      action();
      return nullptr;
    } catch (...) {
      return std::current_exception();
    }
  };
#pragma omp parallel num_threads(threads)
  {
    const auto number = static_cast<std::size_t>(Team::WorkerNumber());
    Worker& worker = workers_[number];
    if (number == 0) {
      listing_error = attempt([this] {
        ListRebuilt();
        ListLocalCandidates(changed_);
      });
      if (listing_error) rebuilt_.clear();  // then nobody has anything to do
      are_listed.Raise();
      // Where memory runs out it is done again after the tables.
      if (!listing_error) stale_are_marked_ = !attempt([this] { MarkStaleCandidates(); });
    }
    GatherCandidates(changed_, worker.columns);
    are_listed.Await();
    ShareTables(number, static_cast<std::size_t>(threads), [&](std::size_t i, std::size_t next) {
      FetchTable(rebuilt_[next].position);
      RebuildTable(rebuilt_[i], worker);
    });
  }
  if (listing_error) std::rethrow_exception(listing_error);
  for (const Rebuilt& rebuilt : rebuilt_) FetchBack(rebuilt.position);
}

// Rebuilds the tables in one thread, among the candidates.
template <int N>
void Solver<N>::RebuildTables(const std::vector<std::uint32_t>& candidates) {
  ListLocalCandidates(candidates);
  GatherCandidates(candidates, workers_[0].columns);
  for (Rebuilt& rebuilt : rebuilt_) RebuildTable(rebuilt, workers_[0]);
}

template <int N>
void Solver<N>::ReserveWorkers(int threads, std::size_t candidates) {
  if (workers_.size() < static_cast<std::size_t>(threads)) {
    workers_.resize(static_cast<std::size_t>(threads));
  }
  for (int number = 0; number < threads; ++number) {
    Worker& worker = workers_[static_cast<std::size_t>(number)];
    worker.columns.Reserve(candidates);
    worker.selection.Reserve(candidates);
  }
}

// Of the slots, those that fall to thread `number` of `threads`: those of its own block from
// the front, then those that are left of the other blocks from the back; a block in which
// somebody does so already is left to him. So of two threads none waits for more than one
// table; with halves fixed beforehand one waited a twentieth of the time.
//
// A shared counter would go from core to core with every table. Here each slot is claimed by
// itself, on a line that the thread which rebuilds the table writes anyway.
template <int N>
template <typename Rebuild>
void Solver<N>::ShareTables(std::size_t number, std::size_t threads, Rebuild rebuild) {
  const auto begin_of = [&](std::size_t block) { return rebuilt_.size() * block / threads; };
  const auto claim = [&](std::size_t i) {
    int& is_claimed = rebuilt_[i].is_claimed;
    int was_claimed;
#pragma omp atomic capture
    {
      was_claimed = is_claimed;
      is_claimed = 1;
    }
    return was_claimed == 0;
  };
  const std::size_t own_end = begin_of(number + 1);
  for (std::size_t i = begin_of(number); i < own_end && claim(i); ++i) {
    rebuild(i, std::min(i + 1, own_end - 1));
  }
  for (std::size_t distance = 1; distance < threads; ++distance) {
    const std::size_t block = (number + distance) % threads;
    const std::size_t begin = begin_of(block);
    for (std::size_t i = begin_of(block + 1); i-- > begin && claim(i);) {
      rebuild(i, i == begin ? i : i - 1);
    }
  }
}

// Asks for what the rebuilding of a table writes.
template <int N>
void Solver<N>::FetchTable(std::uint32_t position) const {
  FetchLinesToWrite(&tests_[position], sizeof(Test<N>));
  FetchLinesToWrite(&rows_[position], sizeof(FloodRow<N>));
}

// Asks for what later steps need of a trial even if they do not rebuild its table.
template <int N>
void Solver<N>::FetchBack(std::uint32_t position) const {
  const Test<N>& trial = tests_[position];
  FetchLinesToWrite(&trial, sizeof(SolverBase::TestBase));
  FetchLinesToWrite(&trial.extent, sizeof(trial.extent));
  FetchLinesToWrite(&rows_[position], sizeof(FloodRow<N>));
}

// Clears bits left over from marks that were taken, on the way.
template <int N>
void Solver<N>::ListLocalCandidates(const std::vector<std::uint32_t>& candidates) {
  local_candidates_.clear();
  for (const std::uint32_t position : candidates) {
    if (!may_be_local_[position]) continue;
    const std::uint32_t flags = tests_[position].flags.load(std::memory_order_relaxed);
    if (flags & SolverBase::TestBase::kLocal) {
      local_candidates_.push_back(position);
    } else {
      may_be_local_.Clear(position);
    }
  }
}

template <int N>
void Solver<N>::GatherCandidates(const std::vector<std::uint32_t>& candidates,
                                 CandidateColumns<N>& columns) const {
  // Read once: the caller's thread writes to fields next to them meanwhile.
  const Test<N>* const trials = tests_.data();
  const std::int32_t best_index = best_.index;
  columns.Clear();
  for (const std::uint32_t position : candidates) {
    columns.Append(position, trials[position], best_index);
  }
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
        ChangeFlags(trial, {0, kLocal});
        break;
      }
    }
  }
  for (std::size_t i = 0; i < rebuilt_.size(); ++i) {
    bool is_local = rebuilt_[i].is_lowest;
    for (std::size_t later = i + 1; is_local && later < rebuilt_.size(); ++later) {
      is_local = !TakesMark(rebuilt_[later], tests_[rebuilt_[i].position]);
    }
    if (is_local) {
      ChangeFlags(tests_[rebuilt_[i].position], {kLocal, 0});
      may_be_local_.Set(rebuilt_[i].position);
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
