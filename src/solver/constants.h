// SPDX-License-Identifier: MIT
//
// The numbers that shape a search, each with its reason.

#pragma once

#include <cfloat>
#include <climits>
#include <cstddef>
#include <cstdint>

namespace QuenloftSolver {

// Absence of a trial, in positions and in the `test` field of a neighbour entry.
inline constexpr std::int32_t kNone = INT_MAX;

// A value not computed yet: a characteristic to be computed, an extent never set,
// the score of a candidate out of the running.
inline constexpr double kUnset = DBL_MAX;

// Slope and radius of a new trial: larger than any distance in the unit box, so
// that the first selection sees every trial, and small enough to be squared.
inline constexpr double kUnbounded = FLT_MAX;

// Trials for which the store reserves room at the start. Reserved memory costs
// nothing until it is used; appending never moves a trial before this many.
inline constexpr std::size_t kReservedTrials = 1000000;

// Entries that one candidate list holds at most.
inline constexpr std::size_t kListCapacity = 1000;

}  // namespace QuenloftSolver
