// SPDX-License-Identifier: MIT
//
// How wide the vectors may be.

#pragma once

namespace QuenloftSolver {

inline constexpr int kMostLanes = 16;

// Lanes of 32 bits that vectors of solvers made from now on may have, 4, 8 or 16, where the
// processor has them. For tests: the results of all are the same.
inline int lanes_allowed = kMostLanes;

}  // namespace QuenloftSolver
