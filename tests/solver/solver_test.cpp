// SPDX-License-Identifier: MIT
//
// What callers of the engine rely on besides the search itself.

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

#include "search_cases.h"
#include "solver/built_dimensions.h"
#include "solver/create_solver.h"
#include "solver/errors.h"

namespace QuenloftSolver {
namespace {

TEST(CreateSolver, MakesEveryBuiltDimensionAndNoOther) {
  const SearchCase c = NativeCase(1);
  for (std::size_t bounds = 0; bounds <= 70; ++bounds) {
    const auto solver =
        CreateSolver(std::vector<double>(bounds, 0.5), {2, 3, 4}, c.functions, c.parameters);
    const int n = static_cast<int>(bounds / 2);
    ASSERT_EQ(solver != nullptr, IsBuilt(n)) << bounds;
    if (!solver) continue;
    EXPECT_EQ(solver->Dimension(), bounds / 2);
    EXPECT_EQ(solver->TripleDimension(), 3 * (bounds / 2));
    EXPECT_EQ(solver->CombinationCount(), 24u);
    const std::int32_t* categories = solver->DecodeCombination(23);
    EXPECT_EQ(std::vector<std::int32_t>(categories, categories + 3),
              (std::vector<std::int32_t>{1, 2, 3}));
  }
}

TEST(Solver, StopsAtTheFirstViolatedConstraintAndMapsToTheBox) {
  SearchCase c;
  c.AddVariable(2.0, 6.0);
  std::string calls;
  const auto record = [&calls](char name, double value) {
    return [&calls, name, value](const double* x, const std::int32_t* k) {
      calls += name;
      EXPECT_EQ(k, nullptr);
      return x[0] == 4.0 ? 0.0 : value;  // the centre satisfies all: 0 is not above 0
    };
  };
  c.Add(record('a', -1.0));
  c.Add(record('b', 0.5));
  c.Add(record('t', 7.0));
  const auto solver = CreateSolver(c.bounds, c.categories, c.functions, c.parameters);
  solver->Initialize();
  EXPECT_EQ(calls, "abtabab");
  EXPECT_EQ(solver->GetTest(0)->GetValue().index, 2);
  EXPECT_EQ(solver->GetTest(1)->GetValue().index, 1);
  EXPECT_EQ(solver->GetTest(1)->GetValue().value, 0.5);
  EXPECT_EQ(solver->BestPosition(), 0u);
}

// Whatever ends a step, the trials before it stay, and the search can go on.
TEST(Solver, KeepsItsTrialsWhenAFunctionFails) {
  for (const int fails_at : {0, 2, 9}) {
    for (const bool throws : {false, true}) {
      int calls = 0;
      SearchCase c;
      c.AddVariable(0.0, 1.0);
      c.Add([&](const double* x, const std::int32_t*) {
        if (calls++ != fails_at) return x[0];
        if (throws) throw std::domain_error("mine");
        return std::numeric_limits<double>::infinity();
      });
      const auto solver = CreateSolver(c.bounds, c.categories, c.functions, c.parameters);
      const auto search = [&] {
        while (solver->TestCount() < 12) solver->Step();
      };
      if (throws) {
        EXPECT_THROW(search(), std::domain_error);
      } else {
        EXPECT_THROW(search(), EvaluationError);
      }
      EXPECT_EQ(solver->TestCount(), static_cast<std::uint32_t>(fails_at));
      if (fails_at == 9) {
        EXPECT_NO_THROW(search());
      } else if (fails_at == 2) {
        EXPECT_THROW(search(), SearchExhausted);
      }
    }
  }
}

}  // namespace
}  // namespace QuenloftSolver
