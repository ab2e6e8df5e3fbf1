// SPDX-License-Identifier: MIT
//
// Whole searches with a native objective, in the engine and in the plain form.

#include <benchmark/benchmark.h>
#include <omp.h>
#include <sys/resource.h>

#include <memory>
#include <string>

#include "plain_form.h"
#include "registration.h"
#include "solver/built_dimensions.h"
#include "solver/create_solver.h"
#include "solver/solver.h"

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
  const int threads_before = omp_get_max_threads();
  omp_set_num_threads(threads);
  std::shared_ptr<SolverBase> base;
  for (auto _ : state) {
    base = CreateSolver(problem.bounds, problem.categories, problem.functions, problem.parameters);
    for (std::uint64_t step = 0; base->TestCount() < trials && step < StepLimit(trials); ++step) {
      base->Step();
    }
  }
  omp_set_num_threads(threads_before);

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
  report("refreshed", work.refreshed);
  report("candidates", work.candidates);
  report("kept", work.kept);
  report("cosines", work.cosines);
  report("rounded_cosines", work.rounded_cosines);
  report("offers", work.offers);
  report("entries_visited", work.entries_visited);
  report("full_updates", work.full_updates);
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

}  // namespace

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
