// SPDX-License-Identifier: MIT
//
// The local fit as the method is written: every value from scratch.

#pragma once

#include <array>
#include <cmath>
#include <functional>
#include <utility>
#include <vector>

namespace QuenloftSolver::reference {

using Objective = std::function<double(const std::vector<double>&)>;

inline double Explore(const Objective& f, std::vector<double>& z, std::vector<double>& delta,
                      double best) {
  for (std::size_t i = 0; i < z.size(); ++i) {
    const double start = z[i];
    z[i] = start + delta[i];
    double value = f(z);
    if (value < best) {
      best = value;
      continue;
    }
    z[i] = start - delta[i];
    delta[i] = -delta[i];
    value = f(z);
    if (value < best) {
      best = value;
    } else {
      z[i] = start;
    }
  }
  return best;
}

inline std::pair<std::vector<double>, double> PatternSearch(const Objective& f,
                                                            std::vector<double> base, double rho,
                                                            double epsilon) {
  std::vector<double> delta;
  for (const double b : base) delta.push_back(b * rho != 0.0 ? std::fabs(b * rho) : rho);
  double h = rho;
  double f_base = f(base);
  for (int iteration = 0; h > epsilon && iteration < 5000; ++iteration) {
    std::vector<double> next = base;
    double f_next = Explore(f, next, delta, f_base);
    while (f_next < f_base) {
      for (std::size_t i = 0; i < base.size(); ++i) {
        delta[i] = next[i] <= base[i] ? -std::fabs(delta[i]) : std::fabs(delta[i]);
        const double previous = base[i];
        base[i] = next[i];
        next[i] = 2.0 * next[i] - previous;
      }
      f_base = f_next;
      f_next = Explore(f, next, delta, f_base);
      if (f_next >= f_base) break;
      bool moves = false;
      for (std::size_t i = 0; i < base.size(); ++i) {
        moves = moves || std::fabs(next[i] - base[i]) > 0.5 * std::fabs(delta[i]);
      }
      if (!moves) break;
    }
    if (f_next >= f_base) {
      h *= rho;
      for (double& d : delta) d *= rho;
    }
  }
  return {base, f_base};
}

template <int N>
double Model(const std::vector<double>& p, const double* x) {
  double sum = 0.0;
  for (int k = 0; k < N; ++k) {
    double row = 0.0;
    for (int j = 0; j < N; ++j) row += p[k * (N + 1) + j] * x[j];
    row += p[k * (N + 1) + N];
    sum += row * row;
  }
  return sum + p.back();
}

template <int N>
struct Observation {
  std::array<double, N> point;
  double value;
};

template <int N>
double FitError(const std::vector<Observation<N>>& data, const std::vector<double>& p) {
  double sum = 0.0;
  for (const auto& observation : data) {
    const double error = observation.value - Model<N>(p, observation.point.data());
    sum += error * error;
  }
  return sum / static_cast<double>(data.size());
}

// The fitted parameters and their error.
template <int N>
std::pair<std::vector<double>, double> FitModel(const std::vector<Observation<N>>& data,
                                                const std::array<double, N>& centre, double value) {
  std::vector<double> p;
  for (int k = 0; k < N; ++k) {
    p.insert(p.end(), N, 1.0);
    p.push_back(centre[k]);
  }
  p.push_back(value);
  return PatternSearch([&](const auto& q) { return FitError<N>(data, q); }, p, 0.5, 1e-9);
}

template <int N>
std::array<double, N> MinimiseModel(const std::vector<double>& p,
                                    const std::array<double, N>& start) {
  const auto end = PatternSearch([&](const auto& x) { return Model<N>(p, x.data()); },
                                 {start.begin(), start.end()}, 0.5, 1e-9)
                       .first;
  std::array<double, N> point{};
  for (std::size_t k = 0; k < N; ++k) point[k] = end[k];
  return point;
}

}  // namespace QuenloftSolver::reference
