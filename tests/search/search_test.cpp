// SPDX-License-Identifier: MIT
//
// A search has the trials of the plain engine, however it is asked and told.

#include "search/search.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "solver/create_solver.h"
#include "solver/errors.h"
#include "solver/evaluation.h"
#include "solver/search_cases.h"

namespace QuenloftSearch {
namespace {

using QuenloftSolver::RandomCase;
using QuenloftSolver::SearchCase;
using QuenloftSolver::SolverBase;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

Problem ProblemOf(const SearchCase& c) {
  Problem problem;
  for (std::size_t k = 0; k < c.bounds.size(); k += 2) {
    problem.variables.push_back({c.bounds[k], c.bounds[k + 1]});
  }
  problem.category_sizes = c.categories;
  problem.constraint_count = static_cast<std::uint32_t>(c.functions.size()) - 1;
  problem.parameters = c.parameters;
  problem.has_local_models = false;
  return problem;
}

Outcome Evaluate(const SearchCase& c, const Problem& problem, const Point& point) {
  std::vector<double> constraints;
  for (std::size_t k = 0; k + 1 < c.functions.size(); ++k) {
    constraints.push_back((*c.functions[k])(point.x.data(), point.categories.data()));
    if (constraints.back() > 0.0) return MakeOutcome(problem, {}, constraints, false);
  }
  const double value = (*c.functions.back())(point.x.data(), point.categories.data());
  return MakeOutcome(problem, value, constraints, false);
}

// The trials of the plain engine, up to `count` or until it is exhausted.
std::shared_ptr<SolverBase> PlainSearch(const SearchCase& c, std::uint32_t count) {
  auto solver = QuenloftSolver::CreateSolver(c.bounds, c.categories, c.functions, c.parameters);
  try {
    while (solver->TestCount() < count) solver->Step();
  } catch (const QuenloftSolver::SearchExhausted&) {
  }
  return solver;
}

void ExpectTrialsOf(const SolverBase& plain, std::uint32_t count, const Search& search) {
  const Trials trials = search.GetTrials();
  ASSERT_EQ(trials.value.rows, std::min(plain.TestCount(), count));
  std::vector<double> x(plain.Dimension());
  for (std::uint32_t i = 0; i < trials.value.rows; ++i) {
    const auto& trial = *plain.GetTest(i);
    plain.ToBounds(trial.Coordinate(), x.data());
    ASSERT_TRUE(std::equal(x.begin(), x.end(), trials.x.Row(i))) << "trial " << i;
    ASSERT_EQ(trials.index[i], trial.GetValue().index) << "trial " << i;
    ASSERT_EQ(trials.value[i], trial.GetValue().value) << "trial " << i;
    const std::int32_t* categories = plain.DecodeCombination(trial.CombinationIndex());
    ASSERT_TRUE(std::equal(categories, categories + plain.CategoricalSizes().size(),
                           trials.categories.Row(i)));
  }
}

// Workers that take their time: points come back in an order drawn from `random`.
class Workers {
 public:
  Workers(const SearchCase& c, std::size_t count, std::uint32_t seed)
      : case_(c), count_(count), random_(seed) {}

  // Until the search is finished.
  void Run(Search& search) {
    while (Turn(search)) {
    }
  }

  // Fills idle workers and lets one finish. False when there is nothing to do.
  bool Turn(Search& search) {
    if (busy_.size() < count_) {
      const std::size_t asked = 1 + random_() % (count_ - busy_.size());
      for (Point& point : search.Ask(asked)) busy_.push_back(std::move(point));
    }
    if (busy_.empty()) return false;
    const std::size_t i = random_() % busy_.size();
    search.Tell(busy_[i], Evaluate(case_, search.GetProblem(), busy_[i]));
    busy_.erase(busy_.begin() + static_cast<std::ptrdiff_t>(i));
    ++evaluations_;
    return true;
  }

  std::vector<Point>& Busy() { return busy_; }
  std::size_t Evaluations() const { return evaluations_; }

 private:
  const SearchCase& case_;
  const std::size_t count_;
  std::mt19937 random_;
  std::vector<Point> busy_;
  std::size_t evaluations_ = 0;
};

TEST(Search, HasTheTrialsOfTheEngineForAnyWorkersAndOrder) {
  constexpr std::uint32_t kTrials = 80;
  for (const int n : {1, 2, 3, 5}) {
    for (std::uint32_t seed = 0; seed < 10; ++seed) {
      const SearchCase c = RandomCase(n, seed);
      const auto plain = PlainSearch(c, kTrials);
      for (const std::size_t count : {1, 3, 8}) {
        SCOPED_TRACE(c.name + ", workers " + std::to_string(count));
        Search search(ProblemOf(c));
        search.SetLimit(kTrials);
        Workers workers(c, count, seed);
        workers.Run(search);
        search.Advance();
        EXPECT_TRUE(search.IsFinished());
        ExpectTrialsOf(*plain, kTrials, search);
        EXPECT_EQ(search.OpenPoints().size(), workers.Evaluations() - search.TrialCount());
        if (count == 1) {
          EXPECT_EQ(workers.Evaluations(), search.TrialCount());
        }
      }
    }
  }
}

void ExpectSameTrials(const Search& a, const Search& b) {
  const Trials x = a.GetTrials();
  const Trials y = b.GetTrials();
  ASSERT_EQ(x.value.rows, y.value.rows);
  for (std::size_t i = 0; i < x.value.rows; ++i) {
    ASSERT_TRUE(std::equal(x.x.Row(i), x.x.Row(i) + x.x.width, y.x.Row(i))) << "trial " << i;
    ASSERT_EQ(x.value[i], y.value[i]) << "trial " << i;
    ASSERT_EQ(x.kind[i], y.kind[i]) << "trial " << i;
  }
  EXPECT_EQ(a.Best(), b.Best());
  EXPECT_EQ(a.Locals(), b.Locals());
  EXPECT_EQ(a.BestRadius(), b.BestRadius());
}

// With everything that a search may have at once.
SearchCase FullCase() {
  SearchCase c;
  c.name = "full";
  c.AddVariable(-1.0, 1.5);
  c.AddVariable(0.0, 9.0);
  c.categories = {2, 1};
  c.Add([](const double* x, const std::int32_t*) { return x[0] - 0.1 * x[1] - 0.2; });
  c.Add([](const double* x, const std::int32_t* k) {
    return (x[0] - 0.4) * (x[0] - 0.4) + 0.1 * std::cos(x[1]) + 0.2 * k[0];
  });
  return c;
}

Problem FullProblem() {
  const SearchCase c = FullCase();
  Problem problem = ProblemOf(c);
  problem.has_local_models = true;
  problem.has_hidden_constraint = true;
  problem.variables[1] = {0.0, 9.0, false, true, 10};
  problem.known = {{{0.3, 2.0}, {1, 0}, MakeOutcome(problem, 0.1, {-0.5}, false)},
                   {{1.2, 0.0}, {0, 0}, MakeOutcome(problem, {}, {1.0}, false)}};
  return problem;
}

TEST(Search, HasOneWorkersTrialsWithLatticeModelsAndKnownPoints) {
  const SearchCase c = FullCase();
  Search one(FullProblem());
  one.SetLimit(60);
  Workers(c, 1, 0).Run(one);
  EXPECT_EQ(one.TrialCount(), 62u) << "known points are not counted";
  for (const std::size_t count : {2, 8, 16}) {
    Search many(FullProblem());
    many.SetLimit(60);
    Workers(c, count, 7).Run(many);
    many.Advance();
    ExpectSameTrials(one, many);
  }
}

TEST(Search, GoesOnFromACopyAndFromASavedState) {
  const SearchCase c = FullCase();
  for (const std::size_t turns : {0, 3, 9, 40}) {
    Search search(FullProblem());
    search.SetLimit(50);
    Workers workers(c, 5, 3);
    for (std::size_t turn = 0; turn < turns; ++turn) workers.Turn(search);
    const auto copy = search.Copy();
    Search restored(FullProblem());
    restored.SetLimit(50);
    restored.Restore(search.Save());
    ExpectSameTrials(search, restored);
    // The points that are out may be told to any of the three.
    Workers of_copy = workers;
    Workers of_restored = workers;
    workers.Run(search);
    of_copy.Run(*copy);
    of_restored.Run(restored);
    ExpectSameTrials(search, *copy);
    ExpectSameTrials(search, restored);
    EXPECT_EQ(search.OpenPoints().size(), restored.OpenPoints().size());
  }
}

TEST(Search, AsksForNothingBeyondItsLimit) {
  const SearchCase c = QuenloftSolver::NativeCase(2);
  Search search(ProblemOf(c));
  search.SetLimit(3);
  const std::vector<Point> first = search.Ask(100);
  EXPECT_EQ(first.size(), 3u) << "fewer than the initial points";
  for (const Point& point : first) search.Tell(point, Evaluate(c, search.GetProblem(), point));
  EXPECT_TRUE(search.Ask(100).empty());
  EXPECT_TRUE(search.IsFinished());
  EXPECT_FALSE(search.IsExhausted());
  search.SetLimit(40);
  Workers(c, 6, 1).Run(search);
  search.Advance();
  ExpectTrialsOf(*PlainSearch(c, 40), 40, search);
}

// The engine takes the worst value of the same index for that of a failed evaluation, in the
// order of the trials and not in that of the values.
TEST(Search, FailedEvaluationsCountAsTheWorstSoFarWhateverTheOrder) {
  const auto constraint = [](const double* x) {
    return x[0] > 1.0 ? kNan : x[1] > 1.0 ? kInfinity : 0.3 - x[0] * x[1];
  };
  const auto objective = [](const double* x) { return x[0] + x[1] < -1.0 ? kNan : x[0]; };
  double worst = -1.0;
  SearchCase plain;
  plain.AddVariable(-1.0, 1.5);
  plain.AddVariable(-1.0, 1.5);
  plain.Add([&](const double* x, const std::int32_t*) {
    const double value = constraint(x);
    if (!std::isfinite(value)) return worst < 0.0 ? 1.0 : worst;
    if (value > 0.0) worst = std::max(worst, value);
    return value;
  });
  plain.Add(
      [&](const double* x, const std::int32_t*) { return std::isnan(objective(x)) ? 1.0 : 0.0; });
  plain.Add([&](const double* x, const std::int32_t*) { return objective(x); });
  const auto expected = PlainSearch(plain, 60);

  Problem problem = ProblemOf(plain);
  problem.constraint_count = 1;
  problem.has_hidden_constraint = true;
  Search search(problem);
  search.SetLimit(60);
  std::mt19937 random(5);
  std::vector<Point> busy;
  while (!search.IsFinished()) {
    for (Point& point : search.Ask(6 - busy.size())) busy.push_back(std::move(point));
    const std::size_t i = random() % busy.size();
    const double* x = busy[i].x.data();
    const double value = constraint(x);
    const bool holds = value <= 0.0;
    const bool has_failed = !std::isfinite(value) || (holds && std::isnan(objective(x)));
    search.Tell(busy[i],
                MakeOutcome(problem, holds ? std::optional<double>(objective(x)) : std::nullopt,
                            {value}, has_failed));
    busy.erase(busy.begin() + static_cast<std::ptrdiff_t>(i));
    search.Advance();
  }
  const Trials trials = search.GetTrials();
  std::size_t failed = 0;
  std::vector<double> x(2);
  for (std::uint32_t i = 0; i < 60; ++i) {
    expected->ToBounds(expected->GetTest(i)->Coordinate(), x.data());
    ASSERT_TRUE(std::equal(x.begin(), x.end(), trials.x.Row(i))) << i;
    ASSERT_EQ(trials.index[i], expected->GetTest(i)->GetValue().index) << i;
    failed += !std::isfinite(trials.value[i]);
  }
  EXPECT_GT(failed, 5u);
  EXPECT_TRUE(std::isfinite(trials.value[*search.Best()]));
}

struct LatticeCase {
  const char* name;
  std::vector<Variable> variables;
  std::vector<std::int32_t> categories;
  std::size_t points;
};

class Lattice : public testing::TestWithParam<LatticeCase> {};

// The value grows with the number of the point, in an order that misleads.
double Scrambled(const Point& point) {
  return static_cast<double>(PointKeyHash{}({point.x, 0}) % 1000) +
         (point.categories.empty() ? 0 : 10 * point.categories[0]);
}

TEST_P(Lattice, EveryPointIsATrialOnceAndThenTheSearchIsExhausted) {
  for (const bool has_local_models : {false, true}) {
    Problem problem;
    problem.variables = GetParam().variables;
    problem.category_sizes = GetParam().categories;
    problem.has_local_models = has_local_models;
    Search search(problem);
    std::set<std::pair<std::vector<double>, std::vector<std::int32_t>>> seen;
    double least = kInfinity;
    for (std::vector<Point> points = search.Ask(3); !points.empty(); points = search.Ask(3)) {
      for (const Point& point : points) {
        EXPECT_TRUE(Space(problem).Contains(point.x));
        ASSERT_TRUE(seen.insert({point.x, point.categories}).second) << "asked for twice";
        least = std::min(least, Scrambled(point));
        search.Tell(point, Scrambled(point));
      }
    }
    EXPECT_TRUE(search.IsExhausted());
    EXPECT_EQ(search.TrialCount(), GetParam().points);
    EXPECT_EQ(search.GetTrials().value[*search.Best()], least);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Spaces, Lattice,
    testing::Values(
        LatticeCase{"OneInteger", {{0, 2, false, true, 3}}, {}, 3},
        LatticeCase{"IntegersAndChoices", {{1, 20, false, true, 20}}, {3}, 60},
        LatticeCase{"Steps", {{0, 1, false, false, 11}, {-3, 3, false, true, 4}}, {}, 44},
        LatticeCase{"Logarithmic", {{1, 40, true, true, 40}, {5, 5}}, {2}, 80},
        LatticeCase{"BeyondTheEnginesLists",
                    {{0, 12, false, true, 13}, {0, 12, false, true, 13}, {0, 6, false, true, 7}},
                    {},
                    1183}),
    [](const auto& info) { return info.param.name; });

TEST(Space, TakesEveryPointOfALatticeToItsCellAndBack) {
  Problem problem;
  problem.variables = {{-7, 12, false, true, 20},
                       {0, 1, false, false, 11},
                       {3, 3},
                       {2, 300, true, true, 299},
                       {1e-3, 10, true}};
  const Space space(problem);
  const std::vector<double> bounds = space.EngineBounds();
  ASSERT_EQ(bounds.size(), 8u);
  for (int k = 0; k < 300; ++k) {
    std::vector<double> x = {-7.0 + k % 20, ((10 - k % 11) * 0.0 + k % 11 * 1.0) / 10, 3,
                             2.0 + k % 299, std::pow(10.0, -3.0 + k * 4.0 / 299)};
    x[4] = std::clamp(x[4], 1e-3, 10.0);
    std::vector<double> engine = space.Encode(x);
    for (std::size_t i = 0; i < 4; ++i) {
      ASSERT_GE(engine[i], 0.0);
      ASSERT_LE(engine[i], 1.0);
      engine[i] = bounds[2 * i] + engine[i] * (bounds[2 * i + 1] - bounds[2 * i]);
    }
    const std::vector<double> back = space.Decode(engine.data());
    for (std::size_t i = 0; i < 4; ++i) ASSERT_EQ(back[i], x[i]) << i << " at " << k;
    ASSERT_NEAR(back[4], x[4], 1e-12);
    ASSERT_TRUE(space.Contains(back));
  }
  for (const double unit : {0.0, 1.0}) {
    std::vector<double> engine;
    for (std::size_t i = 0; i < 4; ++i) engine.push_back(bounds[2 * i + (unit > 0.5)]);
    const std::vector<double> x = space.Decode(engine.data());
    for (std::size_t i : {0, 1, 3, 4}) {
      const double bound = unit > 0.5 ? problem.variables[i].upper : problem.variables[i].lower;
      EXPECT_NEAR(x[i], bound, i == 4 ? 1e-14 * bound : 0.0);
    }
  }
}

struct WrongProblem {
  const char* name;
  Problem problem;
};

class WrongProblems : public testing::TestWithParam<WrongProblem> {};

TEST_P(WrongProblems, AreRefused) {
  EXPECT_THROW(Search search(GetParam().problem), std::invalid_argument);
}

Problem OfVariables(std::vector<Variable> variables) {
  Problem problem;
  problem.variables = std::move(variables);
  return problem;
}

Problem WithCategories(std::vector<std::int32_t> sizes) {
  Problem problem = OfVariables({{0, 1}});
  problem.category_sizes = std::move(sizes);
  return problem;
}

INSTANTIATE_TEST_SUITE_P(
    Search, WrongProblems,
    testing::Values(WrongProblem{"NoVariables", OfVariables({})},
                    WrongProblem{"OnlyFixed", OfVariables({{1, 1}})},
                    WrongProblem{"TooMany", OfVariables(std::vector<Variable>(33, {0, 1}))},
                    WrongProblem{"Reversed", OfVariables({{1, 0}})},
                    WrongProblem{"Nan", OfVariables({{0, kNan}})},
                    WrongProblem{"LogarithmOfZero", OfVariables({{0, 1, true}})},
                    WrongProblem{"IntegerWithoutCount", OfVariables({{0, 3, false, true}})},
                    WrongProblem{"HalfInteger", OfVariables({{0.5, 3.5, false, true, 4}})},
                    WrongProblem{"CountThatDoesNotFit", OfVariables({{0, 3, false, true, 3}})},
                    WrongProblem{"NoChoice", WithCategories({0})},
                    WrongProblem{"TooManyChoices", WithCategories({65536, 65536})}),
    [](const auto& info) { return info.param.name; });

TEST(Search, MayBeAskedAndToldByManyThreads) {
  const SearchCase c = QuenloftSolver::NativeCase(3);
  Search search(ProblemOf(c));
  search.SetLimit(200);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      while (!search.IsFinished()) {
        for (const Point& point : search.Ask(1)) {
          search.Tell(point, Evaluate(c, search.GetProblem(), point));
        }
        search.Advance();
        search.GetTrials();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  ExpectTrialsOf(*PlainSearch(c, 200), 200, search);
}

}  // namespace
}  // namespace QuenloftSearch
