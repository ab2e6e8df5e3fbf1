// SPDX-License-Identifier: MIT
//
// The hot parts of the engine one by one, each on what a search hands to it.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "plain_form.h"
#include "registration.h"
#include "solver/aligned.h"
#include "solver/built_dimensions.h"
#include "solver/candidate_list.h"
#include "solver/create_solver.h"
#include "solver/key_bounds.h"
#include "solver/local_fit.h"
#include "solver/neighbour_selection.h"
#include "solver/solver.h"

namespace QuenloftSolver {
namespace {

// Random numbers in [0, 1) made beforehand and handed out in turn for ever.
class Uniform {
 public:
  explicit Uniform(std::uint32_t seed) : numbers_(4096) {
    std::mt19937 random(seed);
    for (double& number : numbers_) number = random() / 4294967296.0;
  }
  double Next() { return numbers_[next_++ % numbers_.size()]; }

 private:
  std::vector<double> numbers_;
  std::size_t next_ = 0;
};

// ---- Neighbour selection

// What a step at the end of a search has before it: the trials around the newest one,
// as many as steps listed on average, and of those the nearest, as many as were rebuilt.
template <int N>
struct Refresh {
  std::shared_ptr<SolverBase> base;
  const Solver<N>* solver;
  SearchCase problem = NativeCase(N);
  CandidateColumns<N> columns;
  std::vector<std::uint32_t> listed;
  std::size_t rebuilt_count;

  explicit Refresh(std::uint32_t trials) {
    base = CreateSolver(problem.bounds, problem.categories, problem.functions, problem.parameters);
    for (std::uint64_t step = 0; base->TestCount() < trials && step < StepLimit(trials); ++step) {
      base->Step();
    }
    solver = static_cast<const Solver<N>*>(base.get());
    const std::uint32_t count = solver->TestCount();
    const WorkCounters work = solver->Work();
    const auto& newest = solver->TrialAt(count - 1).coordinate;
    const auto square_distance = [&](std::uint32_t position) {
      double sum = 0.0;
      for (int k = 0; k < N; ++k) {
        const double d = solver->TrialAt(position).coordinate[k] - newest[k];
        sum += d * d;
      }
      return sum;
    };
    for (std::uint32_t p = 0; p < count; ++p) listed.push_back(p);
    std::stable_sort(listed.begin(), listed.end(), [&](std::uint32_t a, std::uint32_t b) {
      return square_distance(a) < square_distance(b);
    });
    listed.resize(std::clamp<std::size_t>(work.listed / count, 1, count));
    rebuilt_count = std::clamp<std::size_t>(work.rebuilt / count, 1, listed.size());
    columns.Resize(listed.size());
    for (std::size_t i = 0; i < listed.size(); ++i) {
      columns.Set(i, listed[i], solver->TrialAt(listed[i]), 0);
    }
  }
};

template <int N>
void SelectNeighbours(benchmark::State& state, std::uint32_t trials) {
  // Made once, not for each of the calls in which iterations are counted out.
  static const Refresh<N> refresh(trials);
  const Solver<N>& solver = *refresh.solver;
  std::vector<bool> is_listed(solver.TestCount());
  for (const std::uint32_t p : refresh.listed) is_listed[p] = true;
  const SelectionRules rules{std::cos(2.0 * 3.14159265358979323846 / SearchParameters().spread),
                             false};
  NeighbourSelection<N> selection;
  selection.Reserve(refresh.columns.Size());
  std::size_t table = 0;
  for (auto _ : state) {
    const Test<N>& trial = solver.TrialAt(refresh.listed[table++ % refresh.rebuilt_count]);
    selection.Begin(trial, refresh.columns);
    for (const Neighbour& neighbour : trial.neighbours) {
      if (neighbour.test == kNone) break;
      if (IsFace(neighbour.test)) continue;
      const auto position = static_cast<std::uint32_t>(neighbour.test);
      if (!is_listed[position]) selection.AddPrivate(position, solver.TrialAt(position), 0);
    }
    selection.Choose(rules);
    benchmark::DoNotOptimize(selection.ChosenCount());
  }
  const auto report = [&](const char* name, std::uint64_t count) {
    state.counters[name] =
        benchmark::Counter(static_cast<double>(count), benchmark::Counter::kAvgIterations);
  };
  report("candidates", selection.counters.candidates);
  report("kept", selection.counters.kept);
  report("cosines", selection.counters.cosines);
  report("rounded_cosines", selection.counters.rounded_cosines);
}

// ---- Candidate list

// What steps do to a full list: some trials are rebuilt, the candidates of their tables
// are stale, and those of their new tables are offered, two in three as they were. New keys
// rise slowly under noise, so that an offer finds its place anywhere in the list.
class ListTraffic {
 public:
  static constexpr std::uint32_t kTrials = 256;
  static constexpr std::uint32_t kRebuiltAtOnce = 6;
  static constexpr std::uint32_t kOffersOfEach = 6;
  static constexpr std::uint32_t kEntries = kTrials * kOffersOfEach;

  ListTraffic() : is_rebuilt_(kTrials), tables_(kEntries), noise_(1) {}

  // The candidate at `entry` of all tables, with a new key.
  const Candidate& Next(std::uint32_t entry) {
    const double rise = static_cast<double>(count_++) / static_cast<double>(kListCapacity);
    tables_[entry] = {rise + noise_.Next(), entry / kOffersOfEach,
                      static_cast<std::int32_t>(entry % kOffersOfEach)};
    return tables_[entry];
  }

  void NextStep() {
    for (const Candidate& candidate : offers_) is_rebuilt_[candidate.position] = 0;
    offers_.clear();
    for (std::uint32_t i = 0; i < kRebuiltAtOnce; ++i) {
      const std::uint32_t position = next_++ % kTrials;
      is_rebuilt_[position] = 1;
      for (std::uint32_t k = 0; k < kOffersOfEach; ++k) {
        const std::uint32_t entry = position * kOffersOfEach + k;
        offers_.push_back((next_ + k) % 3 == 0 ? Next(entry) : tables_[entry]);
      }
    }
  }

  // Valid until the next step.
  const std::vector<std::uint8_t>& IsRebuilt() const { return is_rebuilt_; }
  const std::vector<Candidate>& Offers() const { return offers_; }

 private:
  std::vector<std::uint8_t> is_rebuilt_;
  std::vector<Candidate> tables_;
  std::vector<Candidate> offers_;
  Uniform noise_;
  std::uint32_t count_ = 0;
  std::uint32_t next_ = 0;
};

template <typename Offer>
void FillList(ListTraffic& traffic, Offer offer) {
  for (std::uint32_t i = 0; i < traffic.kEntries; ++i) offer(traffic.Next(i));
}

// Offers of a full update, one by one.
template <typename Offer>
void OfferToList(benchmark::State& state, Offer offer) {
  ListTraffic traffic;
  FillList(traffic, offer);
  std::uint32_t i = 0;
  for (auto _ : state) offer(traffic.Next(i++ % traffic.kEntries));
}

void OfferCandidate(benchmark::State& state) {
  CandidateList list;
  OfferToList(state, [&](const Candidate& c) { list.Offer(c, UpdateMode::kFull); });
  state.counters["entries"] = static_cast<double>(list.Size());
}

void OfferCandidatePlainly(benchmark::State& state) {
  reference::List list;
  OfferToList(state, [&](const Candidate& c) { PlainOffer(list, c); });
  state.counters["entries"] = static_cast<double>(list.entries.size());
}

void UpdateList(benchmark::State& state) {
  ListTraffic traffic;
  CandidateList list;
  FillList(traffic, [&](const Candidate& c) { list.Offer(c, UpdateMode::kFull); });
  std::vector<std::uint32_t> rebuilt;
  for (auto _ : state) {
    traffic.NextStep();
    rebuilt.clear();
    for (const Candidate& candidate : traffic.Offers()) {
      if (rebuilt.empty() || rebuilt.back() != candidate.position) {
        rebuilt.push_back(candidate.position);
      }
    }
    list.MarkStale(rebuilt.data(), rebuilt.size());
    for (const Candidate& candidate : traffic.Offers()) list.Stage(candidate);
    list.Commit();
  }
  state.counters["entries"] = static_cast<double>(list.Size());
}

void UpdateListPlainly(benchmark::State& state) {
  ListTraffic traffic;
  reference::List list;
  FillList(traffic, [&](const Candidate& c) { PlainOffer(list, c); });
  for (auto _ : state) {
    traffic.NextStep();
    PlainUpdate(list, traffic.IsRebuilt(), traffic.Offers());
  }
  state.counters["entries"] = static_cast<double>(list.entries.size());
}

// ---- Key bounds

// Before an update of every trial: some keys change, and the key that a list's worth of
// trials reach is asked for.
void AskKeyBounds(benchmark::State& state) {
  constexpr std::size_t kTrials = 100000;
  constexpr int kChanges = 16;
  KeyBounds bounds;
  Uniform keys(2);
  Uniform positions(3);
  for (std::uint32_t p = 0; p < kTrials; ++p) bounds.Set(p, keys.Next());
  for (auto _ : state) {
    for (int i = 0; i < kChanges; ++i) {
      bounds.Set(static_cast<std::uint32_t>(positions.Next() * kTrials), keys.Next());
    }
    benchmark::DoNotOptimize(bounds.ReachedBy(kListCapacity));
  }
  state.counters["trials"] = static_cast<double>(kTrials);
  state.counters["changes"] = kChanges;
}

// ---- Local fit

// As many observations as a full table gives, around a point near the minimum of a
// rippled bowl.
template <int N>
struct FitData {
  std::array<double, N> point;
  double value;
  std::vector<reference::Observation<N>> observations;

  FitData() {
    Uniform uniform(4);
    point.fill(0.5);
    value = At(point);
    observations.push_back({point, value});
    while (observations.size() < LocalFit<N>::kMaxObservations) {
      std::array<double, N> x;
      for (double& coordinate : x) coordinate = 0.4 + 0.2 * uniform.Next();
      observations.push_back({x, At(x)});
    }
  }

 private:
  static double At(const std::array<double, N>& x) {
    static const auto bowl = RippledBowl(N, 0.1);
    return bowl(x.data(), nullptr);
  }
};

template <int N>
void FitModel(benchmark::State& state) {
  const FitData<N> data;
  LocalFit<N> fit;
  double error = 0.0;
  for (auto _ : state) {
    fit.Clear();
    for (const auto& observation : data.observations) {
      fit.Observe(observation.point, observation.value);
    }
    error = fit.FitModel(data.point, data.value);
  }
  state.counters["observations"] = static_cast<double>(data.observations.size());
  state.counters["error"] = error;
}

template <int N>
void FitModelPlainly(benchmark::State& state) {
  const FitData<N> data;
  double error = 0.0;
  for (auto _ : state) error = PlainFitError<N>(data.observations, data.point, data.value);
  state.counters["observations"] = static_cast<double>(data.observations.size());
  state.counters["error"] = error;
}

// ---- The machine

// A cache line to a second thread and back: what threads pay to see each other's writes.
void HandOver(benchmark::State& state) {
  struct alignas(2 * kCacheLine) Line {
    std::atomic<std::uint64_t> number{0};
  };
  Line there;
  Line back;
  constexpr std::uint64_t kEnd = UINT64_MAX;
  std::thread partner([&] {
    for (std::uint64_t seen = 0; seen != kEnd;) {
      const std::uint64_t number = there.number.load(std::memory_order_acquire);
      if (number == seen) continue;
      seen = number;
      back.number.store(number, std::memory_order_release);
    }
  });
  std::uint64_t number = 0;
  for (auto _ : state) {
    there.number.store(++number, std::memory_order_release);
    while (back.number.load(std::memory_order_acquire) != number) {
    }
  }
  there.number.store(kEnd, std::memory_order_release);
  partner.join();
}

// ---- Registration

template <typename Body>
void Register(const std::string& name, Body body) {
  benchmark::RegisterBenchmark(("part/" + name).c_str(), body)->Unit(benchmark::kMicrosecond);
}

template <int N>
void RegisterSelection(std::uint32_t trials) {
  if constexpr (IsBuilt(N)) {
    Register("selection/N:" + std::to_string(N) + "/engine",
             [=](benchmark::State& state) { SelectNeighbours<N>(state, trials); });
  }
}

template <int N>
void RegisterFit() {
  if constexpr (IsBuilt(N)) {
    const std::string name = "fit/N:" + std::to_string(N);
    Register(name + "/engine", FitModel<N>);
    Register(name + "/plain", FitModelPlainly<N>);
  }
}

}  // namespace

void RegisterParts(Scale scale) {
  const std::uint32_t divisor = scale == Scale::kQuick ? 20 : 1;
  RegisterSelection<2>(10000 / divisor);
  RegisterSelection<3>(5000 / divisor);
  RegisterSelection<4>(5000 / divisor);
  RegisterSelection<8>(2000 / divisor);
  RegisterSelection<16>(scale == Scale::kQuick ? 60 : 500);
  RegisterSelection<32>(scale == Scale::kQuick ? 80 : 300);
  Register("offer/engine", OfferCandidate);
  Register("offer/plain", OfferCandidatePlainly);
  Register("update/engine", UpdateList);
  Register("update/plain", UpdateListPlainly);
  Register("bounds/engine", AskKeyBounds);
  if (std::thread::hardware_concurrency() > 1) Register("handover/engine", HandOver);
  RegisterFit<2>();
  RegisterFit<4>();
  RegisterFit<8>();
}

}  // namespace QuenloftSolver
