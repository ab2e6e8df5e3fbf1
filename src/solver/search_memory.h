// SPDX-License-Identifier: MIT
//
// What the categorical variables and the constraints of a search cost, to be asked before it is
// made: they multiply, and their product soon exceeds any machine.

#pragma once

#include "solver/solver_base.h"

namespace QuenloftSolver {

// Bytes that a search over `dimension` variables, from 1 to 32, holds at least when it has
// placed its initial trials. `combinations` is the product of the categorical sizes,
// `functions` the number of constraints and the target. Infinite where there are more classes
// (combinations times functions) or initial trials than the solver can number.
double LeastMemory(int dimension, double combinations, double functions,
                   const SearchParameters& parameters);

// Bytes that this process may have: those of the machine, unless a limit is lower.
double MemoryLimit();

}  // namespace QuenloftSolver
