// SPDX-License-Identifier: MIT
//
// How a point becomes a TestValue: the constraints in order, then the target.

#pragma once

#include <cstdint>
#include <vector>

#include "solver/function_interface.h"
#include "solver/solver_base.h"

namespace QuenloftSolver {

// Calls the constraints until one is violated (above 0), and the target when none
// is. A point that violates a constraint is never evaluated further: this is the
// index scheme of Strongin and Markin, which needs no penalty coefficients.
//
// `coordinates` holds the point in the caller's box, `categories` its categorical
// values or null. Throws EvaluationError at the first value that is not finite.
TestValue Evaluate(const std::vector<FunctionInterface*>& functions, const double* coordinates,
                   const std::int32_t* categories);

// Mixed-radix digits of `combination`, digit 0 first: categories[k] lies in
// 0 .. sizes[k] - 1. `categories` has room for sizes.size() values.
void DecodeCategories(const std::vector<std::int32_t>& sizes, std::uint32_t combination,
                      std::int32_t* categories);

}  // namespace QuenloftSolver
