// SPDX-License-Identifier: MIT
//
// Minimises a C++ lambda with the engine alone: no Python is involved.
//
// The lambda is the six-hump camel function (Dixon and Szego, 1978) on
// [-3, 3] x [-2, 2]: six minima, two of them global, -1.031628 at
// (0.0898, -0.7127) and at (-0.0898, 0.7127).

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <utility>
#include <vector>

#include "solver/create_solver.h"
#include "solver/function_interface.h"
#include "solver/solver_base.h"

namespace {

// The engine's view of anything that can be called with a pointer to the
// coordinates.
template <typename Callable>
class FunctionOf final : public QuenloftSolver::FunctionInterface {
 public:
  explicit FunctionOf(Callable callable) : callable_(std::move(callable)) {}

  double operator()(const double* coordinates, const std::int32_t* /*categories*/) override {
    return callable_(coordinates);
  }

 private:
  Callable callable_;
};

}  // namespace

int main() {
  FunctionOf camel([](const double* at) {
    const double x = at[0] * at[0];
    const double y = at[1] * at[1];
    return (4.0 - 2.1 * x + x * x / 3.0) * x + at[0] * at[1] + (4.0 * y - 4.0) * y;
  });

  const std::vector<double> bounds = {-3.0, 3.0, -2.0, 2.0};
  const std::vector<QuenloftSolver::FunctionInterface*> functions = {&camel};
  QuenloftSolver::SearchParameters parameters;
  parameters.local_vs_global = 1.0;  // one step around the best trial for each over the whole box
  const auto solver =
      QuenloftSolver::CreateSolver(bounds, /*categorical_sizes=*/{}, functions, parameters);
  if (!solver) {
    std::fputs("This build of the engine has no solver for two variables.\n", stderr);
    return 1;
  }
  while (solver->TestCount() < 1000) solver->Step();

  const auto* best = solver->GetTest(solver->BestPosition());
  const double value = best->GetValue().value;
  double at[2];
  solver->ToBounds(best->Coordinate(), at);
  std::printf("minimum %.6f at (%.4f, %.4f) after %u evaluations\n", value, at[0], at[1],
              solver->TestCount());
  return std::abs(value - -1.031628) < 1e-3 ? 0 : 1;
}
