// SPDX-License-Identifier: MIT
//
// What one thread of the team does, and has to itself, when neighbour tables are rebuilt.

#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

#include "solver/candidate_columns.h"
#include "solver/neighbour_selection.h"
#include "solver/trial_bits.h"
#include "solver/trial_store.h"

namespace QuenloftSolver {

// What tables depend on besides trials.
struct TableRules {
  SelectionRules selection;
  std::int32_t best_index;  // that a local minimum must have
};

// A table that is rebuilt.
struct RebuiltTable {
  std::uint32_t position;
  double radius_before = 0.0;  // of the trial
  bool is_lowest = false;      // of all it saw within that
};

// Whether the trial of a rebuilt table saw `other` within its radius and lay below it.
template <int N>
bool TakesMark(const Test<N>& trial, double radius_before, const Test<N>& other) {
  if (trial.value.index != other.value.index || !(other.value.value > trial.value.value)) {
    return false;
  }
  double square = 0.0;
  for (int k = 0; k < N; ++k) {
    const double difference = other.coordinate[k] - trial.coordinate[k];
    square += difference * difference;
  }
  const double distance = std::sqrt(square);
  return distance != 0.0 && distance <= radius_before;
}

// All operations but Reserve run on any thread of a team, side by side with other workers'.
// They read of other trials only points and values, which nobody writes, and bits that tell
// which are listed and which may be marked local; they write to the worker, to the trial of
// the table and its row, and to its RebuiltTable. And they take the local mark from trials
// that are not listed, which nobody sets meanwhile, so in whatever order. Nothing allocates
// or throws.
template <int N>
class TableWorker {
 public:
  // Room for so many candidates.
  void Reserve(std::size_t candidates) { selection_.Reserve(candidates); }
  // Rebuilds a table among the candidates, which are listed, and its own entries that are not:
  // radius, slope, extent and flags with it.
  void Rebuild(RebuiltTable& table, const CandidateColumns<N>& candidates,
               const TrialBits& is_listed, const TableRules& rules, TrialStore<N>& store);

  const SelectionCounters& Counters() const { return selection_.counters; }

 private:
  void Write(std::uint32_t position, TrialStore<N>& store) const;

  NeighbourSelection<N> selection_;
};

}  // namespace QuenloftSolver
