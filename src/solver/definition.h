// SPDX-License-Identifier: MIT
//
// What a search is over: the box, the categories, the functions and the settings.

#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "solver/evaluation.h"
#include "solver/function_interface.h"
#include "solver/solver_base.h"

namespace QuenloftSolver {

// As it comes from the caller; see CreateSolver.
struct Definition {
  std::vector<double> bounds;
  std::vector<std::int32_t> categorical_sizes;
  std::vector<FunctionInterface*> functions;
  SearchParameters parameters;
};

// The same for N variables. It never changes.
template <int N>
class Problem {
 public:
  using Coordinates = std::array<double, N>;

  explicit Problem(Definition definition)
      : parameters(definition.parameters),
        spread_cosine(std::cos(2.0 * 3.14159265358979323846 / definition.parameters.spread)),
        categorical_sizes(std::move(definition.categorical_sizes)),
        functions_(std::move(definition.functions)) {
    for (const std::int32_t size : categorical_sizes) {
      combination_count *= static_cast<std::uint32_t>(size);
    }
    for (std::size_t k = 0; k < N; ++k) {
      width_[k] = definition.bounds[2 * k + 1] - definition.bounds[2 * k];
      lower_[k] = definition.bounds[2 * k];
    }
  }

  SearchParameters parameters;
  double spread_cosine;
  std::vector<std::int32_t> categorical_sizes;
  std::uint32_t combination_count = 1;

  std::uint32_t FunctionCount() const { return static_cast<std::uint32_t>(functions_.size()); }
  void ToBounds(const double* unit, double* bounded) const {
    for (int k = 0; k < N; ++k) bounded[k] = width_[k] * unit[k] + lower_[k];
  }
  // In a buffer of its own: a function may run another search on this thread.
  std::vector<std::int32_t> Categories(std::uint32_t combination) const {
    std::vector<std::int32_t> categories(categorical_sizes.size());
    DecodeCategories(categorical_sizes, combination, categories.data());
    return categories;
  }
  TestValue Evaluate(const Coordinates& unit, const std::vector<std::int32_t>& categories) const {
    Coordinates bounded;
    ToBounds(unit.data(), bounded.data());
    return QuenloftSolver::Evaluate(functions_, bounded.data(),
                                    categories.empty() ? nullptr : categories.data());
  }
  // The centre of the box and, unless the cross has no extent, two points on each axis, each
  // in every combination.
  std::uint32_t InitialCount() const {
    return combination_count * (parameters.cross == 0.0 ? 1 : 2 * N + 1);
  }
  Coordinates InitialPoint(std::uint32_t i) const {
    Coordinates point;
    point.fill(0.5);
    const std::uint32_t number = i / combination_count;
    if (number > 0) {
      const double half = parameters.cross / 2.0;
      point[(number - 1) / 2] = number % 2 == 1 ? 0.5 - half : 0.5 + half;
    }
    return point;
  }

 private:
  std::vector<FunctionInterface*> functions_;
  Coordinates width_;
  Coordinates lower_;
};

}  // namespace QuenloftSolver
