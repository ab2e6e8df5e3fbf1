// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <cassert>

#include "solver/local_fit.h"

namespace QuenloftSolver {

// Of the rows and the place in a row being explored, product_ holds the row's sum
// over the settled parameters, square_sum_ the squares of the settled rows, and
// row_square_ each row's square at the point where the exploration started.
template <int N>
class LocalFit<N>::ErrorObjective {
 public:
  explicit ErrorObjective(LocalFit& fit)
      : fit_(fit), lanes_((fit.count_ + kLanes - 1) / kLanes * kLanes) {}

  double Value(const double* parameters) {
    StartExploring(parameters);
    const double constant = parameters[kParameters - 1];
    ObservationRow sum{};
    for (const ObservationRow& square : fit_.row_square_) {
#pragma omp simd
      for (std::size_t i = 0; i < lanes_; ++i) sum[i] += square[i];
    }
    return MeanSquaredError(sum, constant);
  }

  void StartExploring(const double* parameters) {
    parameters_ = parameters;
    row_ = 0;
    for (int k = 0; k < N; ++k) {
      const double* row = parameters + static_cast<std::size_t>(k) * (N + 1);
      ObservationRow& square = fit_.row_square_[k];
#pragma omp simd
      for (std::size_t i = 0; i < lanes_; ++i) {
        double product = 0.0;
        for (int j = 0; j < N; ++j) product += row[j] * fit_.coordinate_[j][i];
        product += row[N];
        square[i] = product * product;
      }
    }
    fit_.product_.fill(0.0);
    fit_.square_sum_.fill(0.0);
  }

  double Try(std::size_t parameter, double value) {
    if (parameter == kParameters - 1) return MeanSquaredError(fit_.square_sum_, value);
    const int place = static_cast<int>(parameter - static_cast<std::size_t>(row_) * (N + 1));
    const double* row = parameters_ + static_cast<std::size_t>(row_) * (N + 1);
    alignas(kCacheLine) ObservationRow sum;
#pragma omp simd
    for (std::size_t i = 0; i < lanes_; ++i) {
      double product = fit_.product_[i];
      if (place < N) {
        product += value * fit_.coordinate_[place][i];
        for (int j = place + 1; j < N; ++j) product += row[j] * fit_.coordinate_[j][i];
        product += row[N];
      } else {
        product += value;
      }
      double squares = fit_.square_sum_[i] + product * product;
      for (int k = row_ + 1; k < N; ++k) squares += fit_.row_square_[k][i];
      sum[i] = squares;
    }
    return MeanSquaredError(sum, parameters_[kParameters - 1]);
  }

  void Keep(std::size_t parameter, double value) {
    if (parameter == kParameters - 1) return;
    const int place = static_cast<int>(parameter - static_cast<std::size_t>(row_) * (N + 1));
    if (place < N) {
#pragma omp simd
      for (std::size_t i = 0; i < lanes_; ++i) {
        fit_.product_[i] += value * fit_.coordinate_[place][i];
      }
      return;
    }
#pragma omp simd
    for (std::size_t i = 0; i < lanes_; ++i) {
      const double product = fit_.product_[i] + value;
      fit_.square_sum_[i] += product * product;
      fit_.product_[i] = 0.0;
    }
    ++row_;
  }

 private:
  double MeanSquaredError(const ObservationRow& square_sum, double constant) {
    ObservationRow& squared = fit_.squared_error_;
#pragma omp simd
    for (std::size_t i = 0; i < lanes_; ++i) {
      const double error = fit_.value_[i] - (square_sum[i] + constant);
      squared[i] = error * error;
    }
    double sum = 0.0;
    for (std::size_t i = 0; i < fit_.count_; ++i) sum += squared[i];
    return sum / static_cast<double>(fit_.count_);
  }

  LocalFit& fit_;
  const std::size_t lanes_;
  const double* parameters_ = nullptr;
  int row_ = 0;
};

template <int N>
class LocalFit<N>::ModelObjective {
 public:
  explicit ModelObjective(const LocalFit& fit) : fit_(fit) {}

  double Value(const double* point) const {
    double sum = 0.0;
    const double* row = fit_.parameters_.data();
    for (int k = 0; k < N; ++k, row += N + 1) {
      double product = 0.0;
      for (int j = 0; j < N; ++j) product += row[j] * point[j];
      product += row[N];
      sum += product * product;
    }
    return sum + fit_.parameters_[kParameters - 1];
  }
  void StartExploring(const double* point) { std::copy_n(point, N, point_.begin()); }
  double Try(std::size_t i, double coordinate) {
    point_[i] = coordinate;
    return Value(point_.data());
  }
  void Keep(std::size_t i, double coordinate) { point_[i] = coordinate; }

 private:
  const LocalFit& fit_;
  Coordinates point_;
};

template <int N>
void LocalFit<N>::Observe(const Coordinates& point, double value) {
  assert(count_ < kMaxObservations);
  for (int k = 0; k < N; ++k) coordinate_[k][count_] = point[k];
  value_[count_] = value;
  ++count_;
}

template <int N>
double LocalFit<N>::FitModel(const Coordinates& point, double value,
                             const std::function<void()>& check_interruption) {
  for (int k = 0; k < N; ++k) {
    double* row = parameters_.data() + static_cast<std::size_t>(k) * (N + 1);
    std::fill_n(row, N, 1.0);
    row[N] = point[k];
  }
  parameters_[kParameters - 1] = value;
  ErrorObjective error(*this);
  return PatternSearch(error, parameters_.data(), kParameters, {step_.data(), explored_.data()},
                       PatternSearchOptions{}, check_interruption);
}

template <int N>
typename LocalFit<N>::Coordinates LocalFit<N>::MinimiseModel(
    const Coordinates& start, const std::function<void()>& check_interruption) {
  Coordinates point = start;
  ModelObjective model(*this);
  PatternSearch(model, point.data(), N, {step_.data(), explored_.data()}, PatternSearchOptions{},
                check_interruption);
  return point;
}

}  // namespace QuenloftSolver
