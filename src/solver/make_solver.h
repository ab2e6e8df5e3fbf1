// SPDX-License-Identifier: MIT
//
// One maker of solvers a dimension, declared for the factory and defined in the unit
// of each dimension: a dimension left out of the build is a link error that names it.

#pragma once

#include <memory>

#include "solver/definition.h"
#include "solver/solver_base.h"

namespace QuenloftSolver {

template <int N>
std::shared_ptr<SolverBase> MakeSolver(Definition definition);

}  // namespace QuenloftSolver
