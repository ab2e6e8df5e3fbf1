// SPDX-License-Identifier: MIT

#include "solver/evaluation.h"

#include <cmath>

#include "solver/errors.h"

namespace QuenloftSolver {

TestValue Evaluate(const std::vector<FunctionInterface*>& functions, const double* coordinates,
                   const std::int32_t* categories) {
  const auto constraint_count = static_cast<std::int32_t>(functions.size()) - 1;
  for (std::int32_t index = 0;; ++index) {
    const double value = (*functions[static_cast<std::size_t>(index)])(coordinates, categories);
    if (!std::isfinite(value)) throw EvaluationError();
    if (index == constraint_count || value > 0.0) return {index, value};
  }
}

void DecodeCategories(const std::vector<std::int32_t>& sizes, std::uint32_t combination,
                      std::int32_t* categories) {
  for (const std::int32_t size : sizes) {
    const auto radix = static_cast<std::uint32_t>(size);
    *categories++ = static_cast<std::int32_t>(combination % radix);
    combination /= radix;
  }
}

}  // namespace QuenloftSolver
