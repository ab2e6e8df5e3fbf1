// SPDX-License-Identifier: MIT
//
// One search on many workers, in simulated time: how many times faster than on one, by
// what the look-ahead takes for the values that are still to come.
//
// An evaluation takes 20 to 60 ms, drawn once for each point; the search itself takes no
// time. A run ends with its 300th trial.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <queue>
#include <string>
#include <utility>
#include <vector>

#include "search/search.h"
#include "testfunctions/gkls_function.h"

namespace {

using QuenloftSearch::Guesser;
using QuenloftSearch::Point;
using QuenloftSearch::PointKey;
using QuenloftSearch::Problem;
using QuenloftSearch::Search;
using QuenloftSearch::Unknown;
using QuenloftSolver::SolverBase;
using QuenloftSolver::TestValue;
using Function = std::function<double(const double*)>;

constexpr std::size_t kTrials = 300;

struct Case {
  const char* name;
  int dimension;
  double lower, upper;
  Function function;
};

Function Gkls(int dimension, double distance, double radius, std::uint32_t number) {
  const QuenloftTestFunctions::GklsFunction function(dimension, 10, distance, radius, number);
  return [function](const double* x) { return function.GKLS_d_value(x); };
}

double Rosenbrock(const double* x) {
  double sum = 0.0;
  for (int k = 0; k < 3; ++k) {
    const double a = x[k + 1] - x[k] * x[k];
    sum += 100.0 * a * a + (1.0 - x[k]) * (1.0 - x[k]);
  }
  return sum;
}

double Quadratic(const double* x) {
  double sum = 0.0;
  for (int k = 0; k < 6; ++k) sum += (k + 1) * (x[k] - 0.3) * (x[k] - 0.3);
  return sum;
}

// Dixon and Szego, 1978.
double SixHumpCamel(const double* at) {
  const double x = at[0] * at[0];
  const double y = at[1] * at[1];
  return (4.0 - 2.1 * x + x * x / 3.0) * x + at[0] * at[1] + (4.0 * y - 4.0) * y;
}

double Rastrigin3(const double* x) {
  double sum = 30.0;
  for (int k = 0; k < 3; ++k) sum += x[k] * x[k] - 10.0 * std::cos(6.283185307179586 * x[k]);
  return sum;
}

std::vector<Case> Cases() {
  return {{"GKLS 2D hard 1", 2, -1, 1, Gkls(2, 0.9, 0.1, 1)},
          {"GKLS 2D hard 2", 2, -1, 1, Gkls(2, 0.9, 0.1, 2)},
          {"GKLS 3D simple 1", 3, -1, 1, Gkls(3, 0.66, 0.2, 1)},
          {"GKLS 3D simple 2", 3, -1, 1, Gkls(3, 0.66, 0.2, 2)},
          {"GKLS 5D simple 1", 5, -1, 1, Gkls(5, 0.66, 0.3, 1)},
          {"GKLS 5D simple 2", 5, -1, 1, Gkls(5, 0.66, 0.3, 2)},
          {"Rosenbrock 4", 4, -2, 2, Rosenbrock},
          {"quadratic 6", 6, -1, 1, Quadratic},
          {"six-hump camel", 2, -2, 2, SixHumpCamel},
          {"Rastrigin 3", 3, -4, 5, Rastrigin3}};
}

double Milliseconds(const Point& point) {
  std::uint64_t z = QuenloftSearch::PointKeyHash{}({point.x, 0}) + 0x9e3779b97f4a7c15u;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
  z ^= z >> 31;
  return 20.0 + 40.0 * static_cast<double>(z >> 11) * 0x1p-53;
}

struct Run {
  double milliseconds;
  std::size_t evaluations;
};

// Without local models where batch is 0.
Run Simulate(const Case& c, std::size_t workers, std::uint32_t batch,
             Guesser guesser = QuenloftSearch::GuessByPlane) {
  Problem problem;
  problem.has_local_models = batch > 0;
  if (batch > 0) {
    problem.batch = batch;
    problem.parameters.overestimation = 2.5;
  }
  problem.variables.assign(static_cast<std::size_t>(c.dimension), {c.lower, c.upper});
  Search search(problem);
  search.SetGuesser(guesser);
  search.SetLimit(kTrials);
  using Job = std::pair<double, Point>;
  const auto later = [](const Job& a, const Job& b) {
    return a.first != b.first ? a.first > b.first : a.second.id > b.second.id;
  };
  std::priority_queue<Job, std::vector<Job>, decltype(later)> busy(later);
  Run run{0.0, 0};
  while (search.TrialCount() < kTrials) {
    for (Point& point : search.Ask(workers - busy.size())) {
      const double end = run.milliseconds + Milliseconds(point);
      busy.push({end, std::move(point)});
    }
    const Job job = busy.top();
    busy.pop();
    run.milliseconds = job.first;
    ++run.evaluations;
    search.Tell(job.second, c.function(job.second.x.data()));
    search.Advance();
  }
  return run;
}

// Guesses that were tried beside GuessByPlane.

double Distance(const SolverBase& solver, std::uint32_t position, const double* point) {
  const double* coordinates = solver.GetTest(position)->Coordinate();
  double square = 0.0;
  for (std::uint32_t k = 0; k < solver.Dimension(); ++k) {
    square += (coordinates[k] - point[k]) * (coordinates[k] - point[k]);
  }
  return std::sqrt(square);
}

// The mean of two trials, weighted by the distance to the other one.
double Mean(const SolverBase& solver, std::uint32_t a, std::uint32_t b, const double* point) {
  const double to_a = Distance(solver, a, point);
  const double to_b = Distance(solver, b, point);
  const double value = solver.GetTest(a)->GetValue().value;
  return value + to_a / (to_a + to_b) * (solver.GetTest(b)->GetValue().value - value);
}

TestValue NearestTwo(const SolverBase& solver, const Unknown& unknown) {
  std::vector<std::pair<double, std::uint32_t>> trials;
  for (std::uint32_t p = 0; p < solver.TestCount(); ++p) {
    trials.emplace_back(Distance(solver, p, unknown.point), p);
  }
  if (trials.size() < 2) return {0, 0.0};
  std::partial_sort(trials.begin(), trials.begin() + 2, trials.end());
  return {0, Mean(solver, trials[0].second, trials[1].second, unknown.point)};
}

// Of the ends of the segment; at a face of the one there is.
template <typename Combine>  // double(double mean, double larger)
TestValue OfEnds(const SolverBase& solver, const Unknown& unknown, Combine combine) {
  if (unknown.anchor < 0) return {0, 0.0};
  const auto a = static_cast<std::uint32_t>(unknown.anchor);
  const auto b = unknown.partner < 0 ? a : static_cast<std::uint32_t>(unknown.partner);
  return {
      0, combine(Mean(solver, a, b, unknown.point), std::max(solver.GetTest(a)->GetValue().value,
                                                             solver.GetTest(b)->GetValue().value))};
}

TestValue MeanOfEnds(const SolverBase& solver, const Unknown& unknown) {
  return OfEnds(solver, unknown, [](double mean, double) { return mean; });
}

TestValue LargerEnd(const SolverBase& solver, const Unknown& unknown) {
  return OfEnds(solver, unknown, [](double, double larger) { return larger; });
}

TestValue Mix(const SolverBase& solver, const Unknown& unknown) {
  return OfEnds(solver, unknown, [](double mean, double larger) { return (mean + larger) / 2; });
}

// What Ask(8) costs after 1,000 trials, in milliseconds: the mean of twenty.
double AskMilliseconds(const Case& c) {
  Problem problem;
  problem.has_local_models = false;
  problem.variables.assign(static_cast<std::size_t>(c.dimension), {c.lower, c.upper});
  Search search(problem);
  const auto evaluate = [&](const Point& point) {
    search.Tell(point, c.function(point.x.data()));
    search.Advance();
  };
  while (search.TrialCount() < 1000) evaluate(search.Ask()[0]);
  double seconds = 0.0;
  for (int i = 0; i < 20; ++i) {
    const auto start = std::chrono::steady_clock::now();
    const std::vector<Point> points = search.Ask(8);
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    for (const Point& point : points) evaluate(point);
  }
  return seconds / 20 * 1e3;
}

}  // namespace

// A row of the table: how many times faster `workers` are than one, on every case.
void Compare(const char* name, std::size_t workers, std::uint32_t batch, Guesser guesser) {
  const std::vector<Case> cases = Cases();
  std::printf("%-18s %7zu", name, workers);
  double log_sum = 0.0;
  double log_sum_of_eight = 0.0;
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const double gain = Simulate(cases[i], 1, batch, guesser).milliseconds /
                        Simulate(cases[i], workers, batch, guesser).milliseconds;
    log_sum += std::log(gain);
    if (i < 8) log_sum_of_eight += std::log(gain);
    std::printf(" | %.2f", gain);
  }
  std::printf(" | %.2f | %.2f\n", std::exp(log_sum_of_eight / 8),
              std::exp(log_sum / static_cast<double>(cases.size())));
}

int main() {
  const std::pair<const char*, Guesser> guessers[] = {{"plane", QuenloftSearch::GuessByPlane},
                                                      {"nearest two trials", NearestTwo},
                                                      {"mean of the ends", MeanOfEnds},
                                                      {"larger end", LargerEnd},
                                                      {"mean of these two", Mix}};
  std::printf("speed-up over one worker\n%-18s %7s", "guess", "workers");
  for (const Case& c : Cases()) std::printf(" | %s", c.name);
  std::printf(" | mean of the first eight | of all\n");
  for (const auto& [name, guesser] : guessers) {
    for (const std::size_t workers : {4, 8, 16}) Compare(name, workers, 0, guesser);
  }
  for (const std::uint32_t workers : {4, 8, 16}) {
    Compare("models, batch 1", workers, 1, QuenloftSearch::GuessByPlane);
    Compare("models, batch", workers, workers, QuenloftSearch::GuessByPlane);
  }
  std::printf("\nask(8) after 1,000 trials, ms\n");
  for (const Case& c : Cases()) std::printf("%-18s %.3f\n", c.name, AskMilliseconds(c));
}
