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
    const bool has_failed = !std::isfinite(constraints.back());
    if (has_failed || constraints.back() > 0.0) {
      return MakeOutcome(problem, {}, constraints, has_failed);
    }
  }
  const double value = (*c.functions.back())(point.x.data(), point.categories.data());
  return MakeOutcome(problem, value, constraints, !std::isfinite(value));
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

// The engine takes the worst value of the same index for that of a failed evaluation, in the
// order of the trials and not in that of the values.
TEST(Search, FailedEvaluationsCountAsTheWorstSoFarWhateverTheOrder) {
  SearchCase c;
  SearchCase plain;
  for (int k = 0; k < 2; ++k) {
    c.AddVariable(-1.0, 1.5);
    plain.AddVariable(-1.0, 1.5);
  }
  c.Add([](const double* x, const std::int32_t*) {
    return x[0] > 1.0 ? kNan : x[1] > 1.0 ? kInfinity : 0.3 - x[0] * x[1];
  });
  c.Add([](const double* x, const std::int32_t*) { return x[0] + x[1] < -1.0 ? kNan : x[0]; });
  double worst = -1.0;
  plain.Add([&](const double* x, const std::int32_t* k) {
    const double value = (*c.functions[0])(x, k);
    if (!std::isfinite(value)) return worst < 0.0 ? 1.0 : worst;
    if (value > 0.0) worst = std::max(worst, value);
    return value;
  });
  plain.Add([&](const double* x, const std::int32_t* k) {
    return std::isnan((*c.functions[1])(x, k)) ? 1.0 : 0.0;
  });
  plain.Add([&](const double* x, const std::int32_t* k) { return (*c.functions[1])(x, k); });
  const auto expected = PlainSearch(plain, 60);

  Problem problem = ProblemOf(c);
  problem.has_hidden_constraint = true;
  Search search(problem);
  search.SetLimit(60);
  Workers(c, 6, 5).Run(search);
  search.Advance();
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
}

TEST(Search, RefusesWrongProblems) {
  const struct {
    const char* name;
    std::vector<Variable> variables;
    std::vector<std::int32_t> categories;
  } cases[] = {{"no variables", {}, {}},
               {"only a fixed one", {{1, 1}}, {}},
               {"too many", std::vector<Variable>(33, {0, 1}), {}},
               {"reversed", {{1, 0}}, {}},
               {"NaN", {{0, kNan}}, {}},
               {"logarithm of zero", {{0, 1, true}}, {}},
               {"integer without a count", {{0, 3, false, true}}, {}},
               {"half integers", {{0.5, 3.5, false, true, 4}}, {}},
               {"a count that does not fit", {{0, 3, false, true, 3}}, {}},
               {"no choice", {{0, 1}}, {0}},
               {"too many choices", {{0, 1}}, {65536, 65536}}};
  for (const auto& c : cases) {
    Problem problem;
    problem.variables = c.variables;
    problem.category_sizes = c.categories;
    EXPECT_THROW(Search search(problem), std::invalid_argument) << c.name;
  }
}

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
