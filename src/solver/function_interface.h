// SPDX-License-Identifier: MIT
//
// The solver's only view of an objective or a constraint. The engine knows
// nothing else about what it minimises.

#pragma once

#include <cstdint>

namespace QuenloftSolver {

// A black box over N real variables and, where the problem has them, K
// categorical ones.
//
// `coordinates` points to N doubles in the caller's box. `categories` points to
// K values, the k-th from 0 to size[k] - 1; it is null when there are no
// categorical variables. Neither is valid after the call.
//
// A constraint holds when its value is 0 or less. A value that is not finite
// ends the step that asked for it (EvaluationError); an exception passes through
// the solver unchanged. Either way the trials recorded before stay valid.
//
// The solver calls it on the thread that steps the solver, and never deletes it.
class FunctionInterface {
 public:
  virtual double operator()(const double* coordinates, const std::int32_t* categories) = 0;

 protected:
  ~FunctionInterface() = default;
};

}  // namespace QuenloftSolver
