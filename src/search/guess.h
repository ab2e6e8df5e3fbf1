// SPDX-License-Identifier: MIT
//
// What a look-ahead takes for the value of a point that is still to be evaluated.

#pragma once

#include <cstdint>

#include "solver/solver_base.h"

namespace QuenloftSearch {

// A point without a value.
struct Unknown {
  const double* point;  // N unit coordinates
  std::uint32_t combination;
  // Positions of the trials between which it stands; -1 for none.
  std::int32_t anchor;
  std::int32_t partner;
};

using Guesser = QuenloftSolver::TestValue (*)(const QuenloftSolver::SolverBase&, const Unknown&);

// The value of a plane fitted to the ends of the segment and their neighbours (weights: the
// distance to the power -4), but no more than the largest of their values, and no less than
// the least. The nearest of them decides which constraint is violated, if any.
//
// A step's place depends on the values at both ends of its segment and on the largest
// slopes: so the next points are right where guesses are near, and raise no slope. Speed-up
// on 4, 8 and 16 workers (eight functions, 300 trials, benchmarks/search): plane 3.38, 5.94,
// 9.88; mean of the nearest two trials 3.24, 5.71, 9.09; mean along the segment 3.10, 5.26,
// 8.45; larger end 2.95, 4.69, 6.74; mean of these two 3.02, 5.02, 7.62.
//
// Cost: O(N) trials at hand, and N^3 operations; without an anchor it looks at every trial.
QuenloftSolver::TestValue GuessByPlane(const QuenloftSolver::SolverBase& solver,
                                       const Unknown& unknown);

}  // namespace QuenloftSearch
