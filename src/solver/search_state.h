// SPDX-License-Identifier: MIT
//
// What changes from step to step besides trials, tables and lists.

#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "solver/candidates.h"
#include "solver/constants.h"
#include "solver/neighbour_selection.h"
#include "solver/solver_base.h"

namespace QuenloftSolver {

// What a step splits.
struct Segment {
  std::uint32_t anchor;
  std::int32_t partner;  // as in a table; kNone for a trial that splits no segment
};

// What is next to be done to register the newest trial.
enum class Registration {
  kInitialTables,  // of all initial trials
  kInitialLists,
  kFlood,
  kTables,
  kLists,
  kDone
};

// A point that waits for its value, and how its trial is registered.
template <int N>
struct PendingPoint {
  std::array<double, N> point;
  std::uint32_t combination;
  Segment segment;  // of initial points none
  int whole_rings;
  std::uint32_t flags;
};

template <int N>
struct SearchState {
  std::uint32_t best_position = 0;
  TestValue best{-1, kUnset};
  std::vector<double> index_minima;        // one per index
  double alternation = 0.0;                // sums up local_vs_global; a local step is due at 1
  std::uint32_t initial_taken = 0;         // initial points accepted or discarded
  std::uint32_t fits_due = 0;              // after the step that improved the best trial
  std::optional<PendingPoint<N>> pending;  // until its trial is appended
  // The newest trial.
  PendingPoint<N> newest;
  Registration registration = Registration::kDone;
  bool has_improved = false;  // on the best trial
};

// Work done since construction.
struct WorkCounters {
  std::uint64_t listed = 0;   // trials listed for a refresh
  std::uint64_t rebuilt = 0;  // of those, tables rebuilt
  UpdateCounters updates;
  SelectionCounters selections;
};

}  // namespace QuenloftSolver
