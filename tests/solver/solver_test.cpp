// SPDX-License-Identifier: MIT
//
// What callers of the engine rely on besides the search itself.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "search_cases.h"
#include "solver/built_dimensions.h"
#include "solver/create_solver.h"
#include "solver/errors.h"
#include "solver/evaluation.h"
#include "solver/trial.h"

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

TEST(CreateSolver, KeepsTheFunctionsOfATemporaryVector) {
  LambdaFunction bowl([](const double* x, const std::int32_t*) { return x[0] * x[0]; });
  const auto solver = CreateSolver({-1.0, 2.0}, {}, {&bowl}, SearchParameters());
  while (solver->TestCount() < 50) solver->Step();
  EXPECT_NEAR(solver->GetTest(solver->BestPosition())->GetValue().value, 0.0, 1e-3);
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

TEST(Solver, IsInterruptedAmongTheInitialTrials) {
  struct Interruption {};
  const SearchCase c = NativeCase(5);
  const auto solver = CreateSolver(c.bounds, c.categories, c.functions, c.parameters);
  int left = 3;
  solver->SetInterruptionCheck([&left] {
    if (--left == 0) throw Interruption{};
  });
  EXPECT_THROW(solver->Step(), Interruption);
  EXPECT_EQ(solver->TestCount(), 3u);
  while (solver->TestCount() < solver->InitialCount()) {
    solver->Propose();
    solver->Accept({0, 1.0});
  }
  EXPECT_TRUE(solver->Propose());
}

// Every segment around an inserted trial takes it into account, and the search goes on to
// find what it showed.
TEST(Solver, LinksInsertedTrialsWithTheirNeighbours) {
  SearchCase c = NativeCase(2);
  const auto solver = CreateSolver(c.bounds, c.categories, c.functions, c.parameters);
  for (int step = 0; step < 30; ++step) solver->Step();
  const double minimum[] = {(0.3 + 1.0) / 2.5, (0.34 + 1.0) / 2.5};
  const std::uint32_t anchor = solver->Nearest(minimum, 0);
  const double distance = std::hypot(solver->GetTest(anchor)->Coordinate()[0] - minimum[0],
                                     solver->GetTest(anchor)->Coordinate()[1] - minimum[1]);
  const double point[] = {0.3, 0.34};
  const TestValue value = Evaluate(c.functions, point, nullptr);
  EXPECT_TRUE(solver->Insert(minimum, 0, value, anchor));
  const std::uint32_t inserted = solver->TestCount() - 1;
  EXPECT_EQ(solver->BestPosition(), inserted);
  const auto table_of = [&](std::uint32_t position) {
    std::vector<std::int32_t> tests;
    for (std::uint32_t i = 0; i < solver->TripleDimension(); ++i) {
      tests.push_back(solver->GetTest(position)->Neighbours()[i].test);
    }
    return tests;
  };
  EXPECT_EQ(table_of(inserted).front(), static_cast<std::int32_t>(anchor));
  const std::vector<std::int32_t> anchors = table_of(anchor);
  EXPECT_EQ(std::count(anchors.begin(), anchors.end(), static_cast<std::int32_t>(inserted)), 1);
  EXPECT_EQ(solver->GetTest(inserted)->Neighbours()[0].distance, distance);
  EXPECT_NE(solver->GetTest(inserted)->flags & SolverBase::TestBase::kLocal, 0u);
  for (int step = 0; step < 200; ++step) solver->Step();
  EXPECT_EQ(solver->BestPosition(), inserted);
}

}  // namespace
}  // namespace QuenloftSolver
