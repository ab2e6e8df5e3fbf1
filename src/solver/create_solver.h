// SPDX-License-Identifier: MIT
//
// The dimension factory: picks the instantiation of Solver<N> for a problem.

#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "solver/function_interface.h"
#include "solver/solver_base.h"

namespace QuenloftSolver {

inline constexpr int kMaxDimension = 32;

// `bounds` holds the lower and the upper bound of each variable in turn; N is its
// length divided by two, a remainder dropped. `categorical_sizes` holds the number
// of values of each categorical variable. `functions` holds the constraints in the
// order in which they are to be checked and the target last; they must outlive the
// solver.
//
// Returns an empty pointer when N is not from 1 to 32 or not in this build.
std::shared_ptr<SolverBase> CreateSolver(const std::vector<double>& bounds,
                                         const std::vector<std::int32_t>& categorical_sizes,
                                         std::vector<FunctionInterface*> functions,
                                         const SearchParameters& parameters);

}  // namespace QuenloftSolver
