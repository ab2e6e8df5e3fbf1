// SPDX-License-Identifier: MIT
//
// Quenloft.Problem: what is to be minimised, and the native side of the last
// search on it.

#pragma once

#include "module/static_type.h"  // Python.h comes first

#include <cstdint>
#include <memory>
#include <vector>

#include "module/function.h"
#include "solver/solver_base.h"

namespace QuenloftModule {

// Invariants:
//   (1) The references were valid when they were stored; the objects behind them
//       may have changed since (a list that lost its items), so Minimize trusts
//       none of them.
//   (2) `functions` points into `adapters`, and `solver` at `functions`.
//   (3) While `is_running`, only the running Minimize touches the native side;
//       the references may be replaced at any time.
struct Problem {
  // Given by the caller; each may be empty.
  PyRef bounds;       // sequence: lower and upper bound of each variable in turn
  PyRef categorical;  // sequence: number of values of each categorical variable
  PyRef constraints;  // sequence of callables
  PyRef target;       // callable

  // Rebuilt by every Minimize from the above; kept until the next one.
  std::uint32_t dimension = 0;
  std::vector<double> bound_values;
  // Left as it is by a Minimize without `categorical`.
  std::vector<std::int32_t> categorical_values;
  std::vector<Function> adapters;
  std::vector<QuenloftSolver::FunctionInterface*> functions;  // constraints, then the target
  std::shared_ptr<QuenloftSolver::SolverBase> solver;
  bool is_running = false;
};

using ProblemObject = ObjectOf<Problem>;

extern PyTypeObject ProblemType;

// The answer to a categorical variable of fewer than two values.
inline constexpr char kCategoricalItemMessage[] = "Categorical must be a sequence integers > 1.";

}  // namespace QuenloftModule
