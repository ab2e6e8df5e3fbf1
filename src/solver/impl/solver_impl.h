// SPDX-License-Identifier: MIT
//
// Construction, the maps between the unit box and the caller's, and evaluation.

#pragma once

#include <cmath>

#include "solver/evaluation.h"
#include "solver/solver.h"

namespace QuenloftSolver {

template <int N>
Solver<N>::Solver(const std::vector<double>& bounds,
                  const std::vector<std::int32_t>& categorical_sizes,
                  const std::vector<FunctionInterface*>& functions,
                  const SearchParameters& parameters)
    : parameters_(parameters),
      spread_cosine_(std::cos(2.0 * 3.14159265358979323846 / parameters.spread)),
      functions_(&functions),
      function_count_(static_cast<std::uint32_t>(functions.size())),
      categorical_sizes_(categorical_sizes) {
  for (std::size_t k = 0; k < N; ++k) {
    width_[k] = bounds[2 * k + 1] - bounds[2 * k];
    lower_[k] = bounds[2 * k];
  }
  combination_count_ = 1;
  for (const std::int32_t size : categorical_sizes) {
    combination_count_ *= static_cast<std::uint32_t>(size);
  }
  class_count_ = combination_count_ * function_count_;
}

template <int N>
const std::int32_t* Solver<N>::DecodeCombination(std::uint32_t combination) const {
  static thread_local std::vector<std::int32_t> categories;
  categories.resize(categorical_sizes_.size());
  DecodeCategories(categorical_sizes_, combination, categories.data());
  return categories.data();
}

template <int N>
void Solver<N>::ToBounds(const double* unit, double* bounded) const {
  for (int k = 0; k < N; ++k) bounded[k] = width_[k] * unit[k] + lower_[k];
}

// The categorical values are decoded into the solver's own buffer: a function may
// run another search on this thread, whose DecodeCombination would overwrite a
// shared one between a constraint and the target.
template <int N>
TestValue Solver<N>::EvaluateAt(const Coordinates& unit, std::uint32_t combination) {
  Coordinates bounded;
  ToBounds(unit.data(), bounded.data());
  const std::int32_t* categories = nullptr;
  if (!categorical_sizes_.empty()) {
    evaluation_categories_.resize(categorical_sizes_.size());
    DecodeCategories(categorical_sizes_, combination, evaluation_categories_.data());
    categories = evaluation_categories_.data();
  }
  if (!team_.IsTiming()) return Evaluate(*functions_, bounded.data(), categories);
  const Stopwatch stopwatch;
  const TestValue value = Evaluate(*functions_, bounded.data(), categories);
  evaluation_nanoseconds_ = stopwatch.Nanoseconds();
  return value;
}

template <int N>
WorkCounters Solver<N>::Work() const {
  WorkCounters work = work_;
  for (const Worker& worker : workers_) {
    const SelectionCounters& counters = worker.selection.counters;
    work.candidates += counters.candidates;
    work.kept += counters.kept;
    work.cosines += counters.cosines;
    work.rounded_cosines += counters.rounded_cosines;
  }
  return work;
}

}  // namespace QuenloftSolver
