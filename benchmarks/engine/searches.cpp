// SPDX-License-Identifier: MIT
//
// Whole searches with a native objective, in the engine and in the plain form.

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <memory>
#include <string>

#include "plain_form.h"
#include "registration.h"
#include "solver/built_dimensions.h"
#include "solver/create_solver.h"
#include "solver/solver.h"
#include "solver/threads.h"

namespace QuenloftSolver {
namespace {

// Of the process so far.
double PeakMegabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
#if defined(__APPLE__)
  return static_cast<double>(usage.ru_maxrss) / 1e6;
#else
  return static_cast<double>(usage.ru_maxrss) * 1024.0 / 1e6;
#endif
}

void Report(benchmark::State& state, const SearchOutcome& outcome) {
  const double trials = outcome.trials;
  state.counters["trials"] = trials;
  state.counters["sum_of_values"] = outcome.sum_of_values;
  state.counters["trials_per_second"] =
      benchmark::Counter(trials, benchmark::Counter::kIsIterationInvariantRate);
}

template <int N>
void SearchPlainly(benchmark::State& state, std::uint32_t trials) {
  const SearchCase problem = NativeCase(N);
  SearchOutcome outcome;
  for (auto _ : state) outcome = PlainSearch<N>(problem, trials);
  Report(state, outcome);
}

template <int N>
void Search(benchmark::State& state, std::uint32_t trials, int threads) {
  const SearchCase problem = NativeCase(N);
  SetThreadCount(threads);
  std::shared_ptr<SolverBase> base;
  for (auto _ : state) {
    base = CreateSolver(problem.bounds, problem.categories, problem.functions, problem.parameters);
    for (std::uint64_t step = 0; base->TestCount() < trials && step < StepLimit(trials); ++step) {
      base->Step();
    }
  }
  SetThreadCount(1);

  const auto& solver = static_cast<const Solver<N>&>(*base);
  SearchOutcome outcome;
  outcome.trials = solver.TestCount();
  for (std::uint32_t p = 0; p < outcome.trials; ++p) {
    outcome.sum_of_values += solver.TrialAt(p).value.value;
  }
  Report(state, outcome);
  state.counters["peak_megabytes"] = PeakMegabytes();
  const WorkCounters work = solver.Work();
  const auto report = [&](const char* name, std::uint64_t count) {
    state.counters[name] = static_cast<double>(count) / outcome.trials;
  };
  report("listed", work.listed);
  report("refreshed", work.rebuilt);
  report("candidates", work.selections.candidates);
  report("kept", work.selections.kept);
  report("cosines", work.selections.cosines);
  report("rounded_cosines", work.selections.rounded_cosines);
  report("offers", work.updates.offers);
  report("entries_visited", work.updates.entries_visited);
  report("full_updates", work.updates.full_updates);
}

template <typename Body>
benchmark::internal::Benchmark* Register(const std::string& name, Body body) {
  return benchmark::RegisterBenchmark(name.c_str(), body)->Unit(benchmark::kMillisecond);
}

// The forms of the engine search again and again for `seconds`, or once where that is 0: the
// first search of a process also pays for its memory and its threads. The plain form searches
// once.
template <int N>
void RegisterSize(std::uint32_t trials, double seconds, bool with_all_forms = true) {
  if constexpr (IsBuilt(N)) {
    const std::string name =
        "search/N:" + std::to_string(N) + "/trials:" + std::to_string(trials) + "/";
    for (const int threads : {1, 2}) {
      if (threads > 1 && !with_all_forms) continue;
      auto* const form =
          Register(name + "engine/threads:" + std::to_string(threads),
                   [=](benchmark::State& state) { Search<N>(state, trials, threads); });
      if (seconds > 0.0) {
        form->MinTime(seconds);
      } else {
        form->Iterations(1);
      }
    }
    if (!with_all_forms) return;
    Register(name + "plain", [=](benchmark::State& state) {
      SearchPlainly<N>(state, trials);
    })->Iterations(1);
  }
}

// What a trial costs as the search grows, whatever the problem has besides its target.
SearchCase GrowthCase(const std::string& kind) {
  SearchCase problem;
  problem.dimension = 2;
  problem.AddVariable(-1.0, 1.5);
  problem.AddVariable(-1.0, 1.5);
  if (kind == "2-combinations") problem.categories = {2};
  if (kind == "12-combinations") problem.categories = {4, 3};
  const int constraints = kind == "constraint" ? 1 : kind == "3-constraints" ? 3 : 0;
  for (int i = 0; i < constraints; ++i) {
    // The first always holds.
    problem.Add([i](const double* x, const std::int32_t*) { return i * (x[0] + i * x[1]) - 1.5; });
  }
  const auto bowl = RippledBowl(2, 0.1);
  const bool has_categories = !problem.categories.empty();
  problem.Add([=](const double* x, const std::int32_t* c) {
    return bowl(x, c) + (has_categories ? 0.01 * c[0] * (1.0 + x[0]) : 0.0);
  });
  return problem;
}

void Grow(benchmark::State& state, const std::string& kind, std::uint32_t trials) {
  const SearchCase problem = GrowthCase(kind);
  std::shared_ptr<SolverBase> solver;
  for (auto _ : state) {
    solver =
        CreateSolver(problem.bounds, problem.categories, problem.functions, problem.parameters);
    while (solver->TestCount() < trials) solver->Step();
  }
  const WorkCounters work = static_cast<const Solver<2>&>(*solver).Work();
  state.counters["full_updates"] = static_cast<double>(work.updates.full_updates) / trials;
  state.counters["visited"] = static_cast<double>(work.updates.visited) / trials;
}

}  // namespace

void RegisterGrowth(Scale scale) {
  if constexpr (IsBuilt(2)) {
    for (const char* const kind :
         {"plain", "constraint", "3-constraints", "2-combinations", "12-combinations"}) {
      for (const std::uint32_t trials : {50000u, 100000u, 200000u, 400000u}) {
        const std::uint32_t count = scale == Scale::kQuick ? trials / 100 : trials;
        Register("growth/" + std::string(kind) + "/trials:" + std::to_string(count),
                 [=](benchmark::State& state) { Grow(state, kind, count); })
            ->Iterations(1);
      }
    }
  }
}

void RegisterSearches(Scale scale) {
  if (scale == Scale::kLarge) {
    RegisterSize<2>(1000000, 0.0, false);
    return;
  }
  const bool is_quick = scale == Scale::kQuick;
  const std::uint32_t divisor = is_quick ? 20 : 1;
  const double seconds = is_quick ? 0.0 : 0.5;
  RegisterSize<2>(10000 / divisor, seconds);
  RegisterSize<2>(100000 / divisor, seconds);
  RegisterSize<3>(5000 / divisor, seconds);
  RegisterSize<4>(5000 / divisor, seconds);
  RegisterSize<8>(3000 / divisor, seconds);
  // Quick ones go a little beyond the initial cross of 2 N + 1 trials.
  RegisterSize<16>(is_quick ? 60 : 1000, seconds);
  RegisterSize<32>(is_quick ? 80 : 1000, seconds);
}

}  // namespace QuenloftSolver
