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

// The fits of values this large move on for hours, and are never believed: a search whose fits
// are interrupted is the one without them.
TEST(Solver, GoesOnAfterAnInterruptedFit) {
  struct Interruption {};
  SearchCase c;
  for (int k = 0; k < 2; ++k) c.AddVariable(0.0, 1.0);
  c.Add([](const double* x, const std::int32_t*) { return 1e14 * (x[0] + x[1]); });
  const auto plain = CreateSolver(c.bounds, c.categories, c.functions, c.parameters);
  c.parameters.fit = 1;
  const auto interrupted = CreateSolver(c.bounds, c.categories, c.functions, c.parameters);
  interrupted->Initialize();
  int calls = 0;
  interrupted->SetInterruptionCheck([&calls] {
    if (++calls % 3 == 0) throw Interruption{};
  });
  int interruptions = 0;
  for (int step = 0; step < 30; ++step) {
    plain->Step();
    try {
      interrupted->Step();
    } catch (const Interruption&) {
      ++interruptions;
    }
    ASSERT_EQ(interrupted->TestCount(), plain->TestCount());
    const std::uint32_t last = plain->TestCount() - 1;
    EXPECT_EQ(interrupted->GetTest(last)->GetValue().value, plain->GetTest(last)->GetValue().value);
    EXPECT_EQ(interrupted->GetTest(last)->Radius(), plain->GetTest(last)->Radius());
  }
  EXPECT_GT(interruptions, 1);
  EXPECT_EQ(calls, 3 * interruptions);
}

// The value of a case's functions at a proposal, as the solver would find it.
TestValue ValueOf(const SearchCase& c, const SolverBase& solver,
                  const SolverBase::Proposal& proposal) {
  std::vector<double> point(solver.Dimension());
  solver.ToBounds(proposal.point, point.data());
  const std::int32_t* categories =
      c.categories.empty() ? nullptr : solver.DecodeCombination(proposal.combination);
  return Evaluate(c.functions, point.data(), categories);
}

void ExpectSameTrials(const SolverBase& a, const SolverBase& b) {
  ASSERT_EQ(a.TestCount(), b.TestCount());
  EXPECT_EQ(a.BestPosition(), b.BestPosition());
  for (std::uint32_t p = 0; p < a.TestCount(); ++p) {
    const auto& x = *a.GetTest(p);
    const auto& y = *b.GetTest(p);
    ASSERT_TRUE(std::equal(x.Coordinate(), x.Coordinate() + a.Dimension(), y.Coordinate())) << p;
    ASSERT_EQ(x.CombinationIndex(), y.CombinationIndex()) << p;
    ASSERT_EQ(x.GetValue().value, y.GetValue().value) << p;
    ASSERT_EQ(x.flags.load(), y.flags.load()) << p;
    ASSERT_EQ(x.Radius(), y.Radius()) << p;
  }
}

TEST(Solver, HasTheSameTrialsWhenItIsAskedAndTold) {
  for (const int n : {1, 2, 3, 5}) {
    for (std::uint32_t seed = 0; seed < 8; ++seed) {
      const SearchCase c = RandomCase(n, seed);
      SCOPED_TRACE(c.name);
      const auto stepped = CreateSolver(c.bounds, c.categories, c.functions, c.parameters);
      const auto asked = CreateSolver(c.bounds, c.categories, c.functions, c.parameters);
      std::vector<TestValue> initial;
      for (std::uint32_t i = 0; i < asked->InitialCount(); ++i) {
        initial.push_back(ValueOf(c, *asked, asked->Initial(i)));
      }
      for (const TestValue& value : initial) {
        ASSERT_TRUE(asked->Propose());
        asked->Accept(value);
      }
      try {
        for (int step = 0; step < 120; ++step) stepped->Step();
      } catch (const SearchExhausted&) {  // some of these problems have few points
      }
      while (asked->TestCount() < stepped->TestCount()) {
        const auto proposal = asked->Propose();
        if (!proposal) continue;
        ASSERT_EQ(asked->Propose()->point, proposal->point) << "the same until it is accepted";
        asked->Accept(ValueOf(c, *asked, *proposal));
      }
      ExpectSameTrials(*stepped, *asked);
    }
  }
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
  const TestValue value = ValueOf(c, *solver, {minimum, 0});
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

// A caller may evaluate at another point than the one proposed, or not at all.
TEST(Solver, TakesAnotherPointInPlaceOfTheProposedOne) {
  SearchCase c = NativeCase(3);
  const auto solver = CreateSolver(c.bounds, c.categories, c.functions, c.parameters);
  const auto snap = [](double x) { return std::round(x * 16.0) / 16.0; };
  int discarded = 0;
  while (solver->TestCount() < 300) {
    const auto proposal = solver->Propose();
    if (!proposal) continue;
    double point[3];
    std::transform(proposal->point, proposal->point + 3, point, snap);
    bool is_trial = false;
    for (std::uint32_t p = 0; p < solver->TestCount(); ++p) {
      is_trial |= std::equal(point, point + 3, solver->GetTest(p)->Coordinate());
    }
    if (is_trial) {
      solver->Discard();
      ++discarded;
    } else {
      solver->Accept(ValueOf(c, *solver, {point, 0}), point);
    }
  }
  EXPECT_GT(discarded, 0);
  EXPECT_LT(solver->GetTest(solver->BestPosition())->GetValue().value, 0.1);
}

}  // namespace
}  // namespace QuenloftSolver
