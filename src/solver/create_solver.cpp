// SPDX-License-Identifier: MIT

#include "solver/create_solver.h"

#include <array>
#include <cstddef>
#include <utility>

#include "solver/built_dimensions.h"
#include "solver/make_solver.h"

namespace QuenloftSolver {

namespace {

using Maker = std::shared_ptr<SolverBase> (*)(Definition);

template <int N>
constexpr Maker MakerOf() {
  if constexpr (IsBuilt(N)) {
    return &MakeSolver<N>;
  } else {
    return nullptr;
  }
}

// Slot N - 1 makes solvers of dimension N.
template <int... I>
constexpr std::array<Maker, sizeof...(I)> AllMakers(std::integer_sequence<int, I...>) {
  return {MakerOf<I + 1>()...};
}

constexpr auto kMakers = AllMakers(std::make_integer_sequence<int, kMaxDimension>());

}  // namespace

std::shared_ptr<SolverBase> CreateSolver(const std::vector<double>& bounds,
                                         const std::vector<std::int32_t>& categorical_sizes,
                                         std::vector<FunctionInterface*> functions,
                                         const SearchParameters& parameters) {
  const std::size_t dimension = bounds.size() / 2;
  if (dimension < 1 || dimension > kMakers.size()) return nullptr;
  const Maker maker = kMakers[dimension - 1];
  return maker == nullptr ? nullptr
                          : maker({bounds, categorical_sizes, std::move(functions), parameters});
}

}  // namespace QuenloftSolver
