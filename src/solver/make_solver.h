// SPDX-License-Identifier: MIT
//
// One maker of solvers a dimension, declared for the factory and defined in the unit
// of each dimension: a dimension left out of the build is a link error that names it.

#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "solver/function_interface.h"
#include "solver/solver_base.h"

namespace QuenloftSolver {

template <int N>
std::shared_ptr<SolverBase> MakeSolver(const std::vector<double>& bounds,
                                       const std::vector<std::int32_t>& categorical_sizes,
                                       const std::vector<FunctionInterface*>& functions,
                                       const SearchParameters& parameters);

}  // namespace QuenloftSolver
