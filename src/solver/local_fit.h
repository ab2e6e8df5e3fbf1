// SPDX-License-Identifier: MIT
//
// A convex quadratic model of the function around a trial, fitted to a few trials
// by direct search, and the point where the model is least.

#pragma once

#include <array>
#include <cstddef>
#include <functional>

#include "solver/aligned.h"
#include "solver/pattern_search.h"

namespace QuenloftSolver {

// The model is m(x) = sum over k of (M[k] . x + b[k])^2 + c, with the parameters in
// the order row 0 of M, b[0], row 1, b[1], ..., c. Its error is the mean of the
// squared differences to the observed values.
//
// The sums: each row's product from 0.0 in coordinate order, then + b[k]; the squares
// from 0.0 in row order, then + c; squared errors from 0.0 in the order of the
// observations, divided once.
//
// The plain way computes all of it for each of up to 5,000 explorations of each of
// N (N + 1) + 1 parameters: 2 N^2 operations an observation. But an exploration
// changes one parameter after the other, so of the row being explored the sum up to
// the parameter is kept, of the rows before it the sum of squares, of the rows after
// it each square. What remains is at most 3 N operations, the same ones in the same
// order on the same numbers, side by side for all observations.
//
// Threads: one fit a thread. Nothing is allocated after construction.
template <int N>
class LocalFit {
 public:
  // The trial itself and the newest one, which may stand there again as neighbour.
  static constexpr std::size_t kMaxObservations = 3 * N + 2;
  static constexpr std::size_t kParameters = static_cast<std::size_t>(N) * (N + 1) + 1;

  using Coordinates = std::array<double, N>;

  void Clear() { count_ = 0; }
  // At most kMaxObservations.
  void Observe(const Coordinates& point, double value);

  // Fits the model, starting from M = all ones, b = `point`, c = `value`. Returns its
  // error. There must be an observation. `check_interruption` is called now and then and
  // may throw; see pattern_search.h.
  double FitModel(const Coordinates& point, double value,
                  const std::function<void()>& check_interruption = {});
  // Where the fitted model is least, searching from `start`.
  Coordinates MinimiseModel(const Coordinates& start,
                            const std::function<void()>& check_interruption = {});

  // Which the pattern search drives; see pattern_search.h. One is the error as a
  // function of the parameters, the other the model as a function of the point.
  class ErrorObjective;
  class ModelObjective;

 private:
  static constexpr std::size_t kLanes = 8;
  static constexpr std::size_t kPadded = (kMaxObservations + kLanes - 1) / kLanes * kLanes;

  using ObservationRow = std::array<double, kPadded>;

  std::size_t count_ = 0;
  alignas(kCacheLine) std::array<ObservationRow, N> coordinate_{};
  alignas(kCacheLine) ObservationRow value_{};
  std::array<double, kParameters> parameters_;

  // Scratch of the searches.
  std::array<double, kParameters> step_;
  std::array<double, kParameters> explored_;
  alignas(kCacheLine) std::array<ObservationRow, N> row_square_{};
  alignas(kCacheLine) ObservationRow product_{};
  alignas(kCacheLine) ObservationRow square_sum_{};
  alignas(kCacheLine) ObservationRow squared_error_{};
};

}  // namespace QuenloftSolver
