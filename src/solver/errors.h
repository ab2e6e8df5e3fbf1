// SPDX-License-Identifier: MIT
//
// What the engine throws by itself. Exceptions of the functions pass through it.

#pragma once

#include <exception>

namespace QuenloftSolver {

// A constraint or the target answered NaN or an infinity.
class EvaluationError final : public std::exception {
 public:
  const char* what() const noexcept override { return "Value is not finite"; }
};

// No candidate segment is left in the lists that the step draws from.
class SearchExhausted final : public std::exception {
 public:
  const char* what() const noexcept override { return "No segment is left to split"; }
};

}  // namespace QuenloftSolver
