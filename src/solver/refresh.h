// SPDX-License-Identifier: MIT
//
// What a new trial does to the neighbourhoods around it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "solver/scratch.h"
#include "solver/table_worker.h"
#include "solver/trial_bits.h"
#include "solver/trial_store.h"

namespace QuenloftSolver {

// Three parts, each in a file of its own in impl/:
//   the flood (flood_impl.h) lists the trials whose neighbourhoods the newest may disturb;
//   of those, the tables of the ones whose extent holds it are rebuilt among the listed ones
//   (neighbour_tables_impl.h), which is the one parallel loop of the engine;
//   and it is seen who is a local minimum now (local_marks_impl.h).
//
// A trial is *listed* by the flood, *rebuilt* if its table is, and *rescored* if its segments
// are to be offered again: as it was rebuilt now, or among the initial trials and never listed
// since. Those bear the flag kChanged until the next refresh begins.
//
// Where memory runs out, what is done from Begin to ListRebuilt is to be begun anew, and
// RebuildTables and RebuildInitial have done nothing yet.
//
// Cost: in proportion to the listed trials and their neighbours, and to rebuilt times listed.
// Threads: RebuildTables may have a team, whatever its size with the same result.
template <int N>
class Refresh {
 public:
  explicit Refresh(TrialStore<N>* store) : store_(store) {}
  // To the store of the copy.
  void Attach(TrialStore<N>* store) { store_ = store; }

  // Before a trial is appended.
  void Reserve();

  // Begins anew, with the newest trial alone listed.
  void Begin();
  // Lists a trial that is not.
  void List(std::uint32_t position);
  // Floods from the listed trials through their tables. The first `whole_rings` rings
  // are taken whole and stretch the newest trial's extent; after them the flood goes
  // on only within that extent.
  void Spread(int whole_rings);
  // Settles whose tables are to be rebuilt: Rebuilt and Rescored, from now to the next Begin.
  void ListRebuilt();
  // Rebuilds these tables. `threads` is 0 to be told by the work.
  void RebuildTables(const TableRules& rules, int threads);
  // The flag kChanged of this trial goes when the next refresh begins. For no more than the
  // data of one fit.
  void Unflag(std::uint32_t position);

  // Makes room for RebuildInitial among so many.
  void ReserveInitial(std::size_t rivals);
  // Rebuilds one initial trial's table among all of its combination.
  void RebuildInitial(std::uint32_t position, const std::vector<std::uint32_t>& rivals,
                      const TableRules& rules);
  // When that was done for all of them.
  void EndInitial() { initial_count_ = store_->Size(); }

  const std::vector<std::uint32_t>& Rebuilt() const { return rebuilt_positions_; }
  const std::vector<std::uint32_t>& Rescored() const { return rescored_; }

  // Remembers all of it, in place of an earlier checkpoint; Rollback makes it that again.
  void Checkpoint();
  void Rollback();

  std::uint64_t ListedCount() const { return listed_count_; }
  std::uint64_t RebuiltCount() const { return rebuilt_count_; }
  SelectionCounters Selections() const;

 private:
  // flood_impl.h
  std::size_t TakeWholeRing(std::size_t ring_begin);
  std::size_t TakeRingWithinExtent(std::size_t ring_begin);

  // neighbour_tables_impl.h
  void ReserveTables(int threads, std::size_t candidates);
  void RebuildAmong(const std::vector<std::uint32_t>& candidates, const TableRules& rules,
                    int threads);

  // local_marks_impl.h
  void ListLocalCandidates(const std::vector<std::uint32_t>& candidates);
  void ResolveLocalMarks();

  TrialStore<N>* store_;
  std::uint32_t initial_count_ = 0;

  // The refresh under way, all of one combination, the newest first.
  std::vector<std::uint32_t> listed_;
  TrialBits is_listed_;
  std::vector<std::uint32_t> rescored_;
  std::vector<std::uint32_t> rebuilt_positions_;
  std::vector<RebuiltTable> rebuilt_;  // likewise
  std::uint32_t number_ = 0;           // of this refresh, as it marks what the flood met

  struct State {
    std::uint32_t initial_count;
    std::vector<std::uint32_t> listed;
    std::vector<std::uint32_t> rescored;
  };
  State remembered_;

  // Meaningless between two calls.
  Scratch<std::vector<std::uint32_t>> seen_;  // trials that a ring of the flood meets first
  Scratch<std::vector<std::uint32_t>> local_candidates_;  // candidates marked local
  Scratch<CandidateColumns<N>> columns_;                  // that stand in every selection
  Scratch<std::vector<TableWorker<N>>> workers_;          // one per thread

  std::uint64_t listed_count_ = 0;  // since construction
  std::uint64_t rebuilt_count_ = 0;
};

}  // namespace QuenloftSolver
