// SPDX-License-Identifier: MIT
//
// The trials of a search in the order in which they were made, as the local models read
// them: by columns, and those included that the engine has not been told of.

#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "solver/solver_base.h"

namespace QuenloftSearch {

class TrialLog {
 public:
  static constexpr std::uint32_t kNotInEngine = 0xffffffffU;

  // `function_count` counts the constraints and the target.
  TrialLog(std::uint32_t dimension, std::uint32_t function_count)
      : dimension_(dimension), function_count_(function_count) {}

  std::uint32_t FunctionCount() const { return function_count_; }

  std::uint32_t Dimension() const { return dimension_; }
  std::uint32_t Size() const { return static_cast<std::uint32_t>(values_.size()); }
  const double* Point(std::uint32_t trial) const {
    return &points_[static_cast<std::size_t>(trial) * dimension_];
  }
  const QuenloftSolver::TestValue& Value(std::uint32_t trial) const { return values_[trial]; }
  std::uint32_t Combination(std::uint32_t trial) const { return combinations_[trial]; }
  // What is known of the functions at the trial, the target last; NaN for the rest.
  const double* Functions(std::uint32_t trial) const {
    return &functions_[static_cast<std::size_t>(trial) * function_count_];
  }
  // The trial's position in the engine, or kNotInEngine.
  std::uint32_t EnginePosition(std::uint32_t trial) const { return positions_[trial]; }

  // Makes room for one trial: the next Append does not allocate.
  void ReserveNext() {
    Reserve(points_, dimension_);
    Reserve(combinations_, 1);
    Reserve(values_, 1);
    Reserve(positions_, 1);
    Reserve(functions_, function_count_);
  }

  // `functions` may be null where only the outcome is known.
  void Append(const double* point, std::uint32_t combination,
              const QuenloftSolver::TestValue& value, const double* functions,
              std::uint32_t position) {
    ReserveNext();
    points_.insert(points_.end(), point, point + dimension_);
    combinations_.push_back(combination);
    values_.push_back(value);
    positions_.push_back(position);
    if (functions != nullptr) {
      functions_.insert(functions_.end(), functions, functions + function_count_);
    } else {
      functions_.resize(functions_.size() + function_count_,
                        std::numeric_limits<double>::quiet_NaN());
    }
    functions_[functions_.size() - function_count_ + static_cast<std::size_t>(value.index)] =
        value.value;
  }

  // The engine was told of a trial that it did not hold, or has forgotten it.
  void SetEnginePosition(std::uint32_t trial, std::uint32_t position) {
    positions_[trial] = position;
  }

  // Forgets all trials but the first `size`.
  void Truncate(std::uint32_t size) {
    points_.resize(static_cast<std::size_t>(size) * dimension_);
    combinations_.resize(size);
    values_.resize(size);
    positions_.resize(size);
    functions_.resize(static_cast<std::size_t>(size) * function_count_);
  }

  bool IsBetter(std::uint32_t a, std::uint32_t b) const {
    return values_[a].index > values_[b].index ||
           (values_[a].index == values_[b].index && values_[a].value < values_[b].value);
  }

  double SquaredDistance(std::uint32_t trial, const double* point) const {
    const double* own = Point(trial);
    double square = 0.0;
    for (std::uint32_t k = 0; k < dimension_; ++k) {
      const double difference = own[k] - point[k];
      square += difference * difference;
    }
    return square;
  }

  // The first of the nearest trials of that combination, which has one, and its distance.
  std::pair<std::uint32_t, double> Nearest(const double* point, std::uint32_t combination) const {
    std::uint32_t nearest = 0;
    double least = std::numeric_limits<double>::infinity();
    for (std::uint32_t trial = 0; trial < Size(); ++trial) {
      if (combinations_[trial] != combination) continue;
      const double square = SquaredDistance(trial, point);
      if (square < least) {
        least = square;
        nearest = trial;
      }
    }
    return {nearest, std::sqrt(least)};
  }

 private:
  template <class T>
  static void Reserve(std::vector<T>& column, std::size_t more) {
    const std::size_t least = column.size() + more;
    if (least > column.capacity()) column.reserve(std::max(least, 2 * column.capacity()));
  }

  std::uint32_t dimension_;
  std::uint32_t function_count_;
  std::vector<double> points_;
  std::vector<std::uint32_t> combinations_;
  std::vector<QuenloftSolver::TestValue> values_;
  std::vector<std::uint32_t> positions_;
  std::vector<double> functions_;
};

}  // namespace QuenloftSearch
