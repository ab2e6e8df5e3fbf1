// SPDX-License-Identifier: MIT
//
// The direct search of Hooke and Jeeves ("Direct search" solution of numerical and
// statistical problems, J. ACM 8, 1961): explore one variable after the other, and
// when that helps, repeat the whole move.

#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <functional>

namespace QuenloftSolver {

struct PatternSearchOptions {
  double reduction = 0.5;   // of the step, when no exploration helps; and the first step
  double tolerance = 1e-9;  // the search ends when the step is not above it
  int max_iterations = 5000;
};

// A search looks for interruptions about once in so many values tried: in the largest
// fits that is some ten milliseconds, in the smallest it costs nothing that shows.
inline constexpr std::size_t kTriesPerCheck = 4096;

// Room for one search over `n` variables at a time.
struct PatternSearchScratch {
  double* step;  // n doubles each
  double* explored;
};

// Minimises `objective` over `n` variables from `base`, which receives the end point.
// Returns the value there. Values that are not finite fail the comparisons.
//
// The reductions of the step are bounded, the moves between two of them are not: with
// very large values a pattern can move on for hours. So `check_interruption`, unless
// empty, is called now and then; what it throws ends the search.
//
// Objective has
//   double Value(const double* z)               at a point;
//   void StartExploring(const double* z)        around a point;
//   double Try(size_t i, double z_i)            with variable i at z_i, those before it
//                                               as kept, those after it as at the start;
//   void Keep(size_t i, double z_i)             settles variable i; called once for each,
//                                               in order.
// so that an objective can keep what the variables already settled contribute.
template <typename Objective>
double PatternSearch(Objective& objective, double* base, std::size_t n,
                     const PatternSearchScratch& scratch, const PatternSearchOptions& options,
                     const std::function<void()>& check_interruption) {
  double* const step = scratch.step;
  double* const explored = scratch.explored;
  std::size_t tries = 0;

  // Explores around `explored`, which receives the result. A step that failed both
  // ways stays reversed.
  const auto explore = [&](double value_to_beat) {
    tries += n;
    if (tries >= kTriesPerCheck && check_interruption) {
      tries = 0;
      check_interruption();
    }
    objective.StartExploring(explored);
    for (std::size_t i = 0; i < n; ++i) {
      const double start = explored[i];
      double value = objective.Try(i, start + step[i]);
      if (value < value_to_beat) {
        explored[i] = start + step[i];
        value_to_beat = value;
      } else {
        value = objective.Try(i, start - step[i]);
        if (value < value_to_beat) {
          explored[i] = start - step[i];
          value_to_beat = value;
        }
        step[i] = -step[i];
      }
      objective.Keep(i, explored[i]);
    }
    return value_to_beat;
  };

  for (std::size_t i = 0; i < n; ++i) {
    step[i] = std::fabs(base[i] * options.reduction);
    if (step[i] == 0.0) step[i] = options.reduction;
  }
  double length = options.reduction;
  double base_value = objective.Value(base);
  for (int iteration = 0; length > options.tolerance && iteration < options.max_iterations;
       ++iteration) {
    std::copy_n(base, n, explored);
    double value = explore(base_value);
    while (value < base_value) {
      for (std::size_t i = 0; i < n; ++i) {
        step[i] = explored[i] <= base[i] ? -std::fabs(step[i]) : std::fabs(step[i]);
        const double previous = base[i];
        base[i] = explored[i];
        explored[i] = 2.0 * explored[i] - previous;
      }
      base_value = value;
      value = explore(base_value);
      if (value >= base_value) break;
      bool moves = false;
      for (std::size_t i = 0; i < n && !moves; ++i) {
        moves = std::fabs(explored[i] - base[i]) > 0.5 * std::fabs(step[i]);
      }
      if (!moves) break;
    }
    if (value >= base_value) {
      length *= options.reduction;
      for (std::size_t i = 0; i < n; ++i) step[i] *= options.reduction;
    }
  }
  return base_value;
}

}  // namespace QuenloftSolver
