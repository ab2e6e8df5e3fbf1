// SPDX-License-Identifier: MIT
//
// Problems that tests and benchmarks search: smooth, rugged and flat functions with
// constraints and categories, all computed the same way on every machine.

#pragma once

#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "solver/function_interface.h"
#include "solver/solver_base.h"

namespace QuenloftSolver {

class LambdaFunction final : public FunctionInterface {
 public:
  using Body = std::function<double(const double*, const std::int32_t*)>;
  explicit LambdaFunction(Body body) : body_(std::move(body)) {}
  double operator()(const double* x, const std::int32_t* c) override { return body_(x, c); }

 private:
  Body body_;
};

struct SearchCase {
  std::string name;
  int dimension;
  std::vector<double> bounds;
  std::vector<std::int32_t> categories;
  SearchParameters parameters;
  std::vector<std::unique_ptr<LambdaFunction>> owned;
  std::vector<FunctionInterface*> functions;

  void AddVariable(double lower, double upper) {
    bounds.push_back(lower);
    bounds.push_back(upper);
  }

  void Add(LambdaFunction::Body body) {
    owned.push_back(std::make_unique<LambdaFunction>(std::move(body)));
    functions.push_back(owned.back().get());
  }
};

// A bowl with ripples, shifted off the centre; `ripple` 0 leaves the bowl.
inline LambdaFunction::Body RippledBowl(int n, double ripple) {
  return [n, ripple](const double* x, const std::int32_t*) {
    double sum = 0.0;
    for (int k = 0; k < n; ++k) {
      const double d = x[k] - 0.3 - 0.04 * k;
      sum += d * d + ripple * (1.0 - std::cos(9.0 * d));
    }
    return sum;
  };
}

inline SearchCase NativeCase(int n, double ripple = 0.1) {
  SearchCase c;
  c.dimension = n;
  for (int k = 0; k < n; ++k) c.AddVariable(-1.0, 1.5);
  c.Add(RippledBowl(n, ripple));
  return c;
}

// A problem drawn from `seed`: its shape, its size and all its settings.
inline SearchCase RandomCase(int n, std::uint32_t seed) {
  std::mt19937 random(seed * 64 + static_cast<std::uint32_t>(n));
  const auto uniform = [&] { return random() / 4294967296.0; };
  SearchCase c;
  c.name = "dimension " + std::to_string(n) + ", seed " + std::to_string(seed);
  c.dimension = n;
  for (int k = 0; k < n; ++k) {
    const double lower = -1.0 - uniform();
    c.AddVariable(lower, 1.0 + uniform());
  }
  if (random() % 3 == 0) c.categories.assign(1 + random() % 2, 2);
  for (auto constraints = random() % 3; constraints > 0; --constraints) {
    const double offset = 0.3 * uniform();
    const int axis = static_cast<int>(random() % static_cast<unsigned>(n));
    c.Add([=](const double* x, const std::int32_t*) { return x[axis] * x[axis] - offset - 0.2; });
  }
  // Values on a coarse grid make many ties.
  const double grid = random() % 3 == 0 ? 0.25 : 0.0;
  const double ripple = 0.3 * uniform();
  const auto bowl = RippledBowl(n, ripple);
  const bool has_categories = !c.categories.empty();
  c.Add([=](const double* x, const std::int32_t* k) {
    const double value = bowl(x, k) + (has_categories ? 0.1 * k[0] * x[0] : 0.0);
    return grid == 0.0 ? value : std::floor(value / grid) * grid;
  });
  c.parameters.overestimation = 1.2 + 2.0 * uniform();
  c.parameters.local_vs_global = random() % 4 * 0.4;
  c.parameters.spread = random() % 4 == 0 ? 3.0 + 20.0 * uniform() : 12.0;
  c.parameters.cross = random() % 4 == 0 ? 1.0 : random() % 4 == 0 ? 0.0 : 0.99;
  c.parameters.fit = random() % 4 == 0 && n <= 3 ? 2 : 0;
  c.parameters.reserve = random() % 4 == 0 ? 0.5 : 0.0;
  return c;
}

}  // namespace QuenloftSolver
