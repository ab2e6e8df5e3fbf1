// SPDX-License-Identifier: MIT
//
// The engine against the method as it is written, bit for bit: trials, tables,
// marks, slopes and lists, after every few steps.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "reference_solver.h"
#include "search_cases.h"
#include "solver/built_dimensions.h"
#include "solver/create_solver.h"
#include "solver/lanes_allowed.h"
#include "solver/list_demand.h"
#include "solver/solver.h"

namespace QuenloftSolver {
namespace {

template <typename T, typename U>
bool SameBits(const T& a, const U& b) {
  static_assert(sizeof(T) == sizeof(U));
  return std::memcmp(&a, &b, sizeof(T)) == 0;
}

testing::AssertionResult SameList(const CandidateList& list, const reference::List& expected) {
  if (list.Size() != expected.entries.size()) {
    return testing::AssertionFailure()
           << "lists " << list.Size() << ", not " << expected.entries.size();
  }
  for (std::size_t i = 0; i < list.Size(); ++i) {
    if (!SameBits(list[i], expected.entries[i])) {
      return testing::AssertionFailure() << "candidate " << i;
    }
  }
  return testing::AssertionSuccess();
}

testing::AssertionResult SameLists(const Candidates& candidates, StepKind kind,
                                   const std::vector<reference::List>& expected) {
  for (std::uint32_t c = 0; c < expected.size(); ++c) {
    testing::AssertionResult result = SameList(candidates.List(kind, c), expected[c]);
    if (!result) return result << ", class " << c << (kind == StepKind::kLocal ? ", local" : "");
  }
  return testing::AssertionSuccess();
}

template <int N>
testing::AssertionResult SameTrials(const Solver<N>& solver, const reference::Solver<N>& plain) {
  constexpr std::uint32_t kCompared = ~std::uint32_t{SolverBase::TestBase::kExcluded};
  for (std::uint32_t p = 0; p < plain.tests.size(); ++p) {
    const Test<N>& got = solver.TrialAt(p);
    const reference::Trial<N>& expected = plain.tests[p];
    const char* differs = !SameBits(got.coordinate, expected.coordinate)     ? "point"
                          : got.combination != expected.combination          ? "combination"
                          : !SameBits(got.value.value, expected.value.value) ? "value"
                          : !SameBits(got.slope, expected.slope)             ? "slope"
                          : !SameBits(got.radius, expected.radius)           ? "radius"
                          : !SameBits(got.extent, expected.extent)           ? "extent"
                          : (got.flags.load() & kCompared) != (expected.flags & kCompared)
                              ? "flags"
                              : nullptr;
    if (differs != nullptr) return testing::AssertionFailure() << "trial " << p << ": " << differs;
    for (int i = 0; i < 3 * N; ++i) {
      const Neighbour& a = got.neighbours[i];
      const Neighbour& b = expected.neighbours[i];
      if (a.test != b.test || !SameBits(a.distance, b.distance) ||
          !SameBits(a.global_characteristic, b.global_characteristic) ||
          !SameBits(a.local_characteristic, b.local_characteristic)) {
        return testing::AssertionFailure() << "trial " << p << ", neighbour " << i;
      }
    }
  }
  return testing::AssertionSuccess();
}

template <int N>
testing::AssertionResult SameState(const Solver<N>& solver, const reference::Solver<N>& plain) {
  testing::AssertionResult result = SameTrials(solver, plain);
  const Candidates& candidates = solver.GetCandidates();
  if (result) result = SameLists(candidates, StepKind::kLocal, plain.local_lists);
  if (result) result = SameLists(candidates, StepKind::kGlobal, plain.global_lists);
  return result;
}

template <typename Action>
std::string ErrorOf(Action action) {
  try {
    action();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "";
}

// With `team` threads for every step, or as many as the engine likes.
template <int N>
void CompareSearches(const SearchCase& c, int steps, int every = 8, int team = 0) {
  if constexpr (IsBuilt(N)) {
    const auto base = CreateSolver(c.bounds, c.categories, c.functions, c.parameters);
    auto& solver = static_cast<Solver<N>&>(*base);
    if (team > 0) solver.ForceTeam(team);
    reference::Solver<N> plain(c.bounds, c.categories, c.functions, c.parameters);
    SCOPED_TRACE(c.name);
    for (int step = 0; step < steps; ++step) {
      const std::string error = ErrorOf([&] { plain.Step(); });
      ASSERT_EQ(ErrorOf([&] { base->Step(); }), error) << "step " << step;
      if (!error.empty()) return;
      ASSERT_EQ(solver.TestCount(), plain.tests.size());
      ASSERT_EQ(solver.BestPosition(), plain.best_position);
      if (step % every != 0 && step != steps - 1) continue;
      ASSERT_TRUE(SameState(solver, plain)) << "step " << step;
    }
  }
}

template <int N>
void CompareRandomSearches(int count, int steps) {
  for (int seed = 0; seed < count; ++seed) {
    CompareSearches<N>(RandomCase(N, static_cast<std::uint32_t>(seed)), steps);
    if (testing::Test::HasFatalFailure()) return;
  }
}

TEST(SolverAgainstReference, AgreesBitForBitOnRandomProblems) {
  for (const int lanes : {4, 8, kMostLanes}) {
    SCOPED_TRACE(std::to_string(lanes) + " lanes");
    lanes_allowed = lanes;
    const bool is_all = lanes == kMostLanes;
    CompareRandomSearches<1>(is_all ? 12 : 4, 200);
    CompareRandomSearches<2>(is_all ? 24 : 8, 300);
    CompareRandomSearches<3>(is_all ? 16 : 8, 250);
    CompareRandomSearches<5>(is_all ? 10 : 5, 150);
    CompareRandomSearches<12>(3, 40);
    CompareRandomSearches<32>(2, 12);
  }
}

// Long enough for lists to overflow, for updates that pass over most trials, and for
// ties by the thousand: where the search has converged to the last bit, and where the
// function is flat.
TEST(SolverAgainstReference, AgreesInLongSearches) {
  CompareSearches<2>(NativeCase(2), 1500);
  CompareSearches<2>(NativeCase(2), 90000, 15000);
  SearchCase flat;
  flat.dimension = 1;
  flat.AddVariable(0.0, 1.0);
  flat.Add([](const double* x, const std::int32_t*) { return x[0] < 0.9 ? 0.0 : 1.0; });
  flat.parameters.local_vs_global = 1.0;
  CompareSearches<1>(flat, 12000, 3000);
}

// Towards a corner where coordinates halve without end, until products of distances are
// lost to underflow.
TEST(SolverAgainstReference, AgreesWhereDistancesVanish) {
  SearchCase c;
  c.dimension = 2;
  c.bounds = {0.0, 1.0, 0.0, 1.0};
  c.Add([](const double* x, const std::int32_t*) { return std::cbrt(x[0] + 2.0 * x[1]); });
  c.parameters.local_vs_global = 1.0;
  for (const int lanes : {4, 8, kMostLanes}) {
    SCOPED_TRACE(std::to_string(lanes) + " lanes");
    lanes_allowed = lanes;
    CompareSearches<2>(c, lanes == kMostLanes ? 3200 : 1500, 400);
  }
}

// Where one category's initial trials say nothing of slopes, and the next one's do.
TEST(SolverAgainstReference, AgreesWhereACategoryIsFlat) {
  SearchCase c;
  c.dimension = 2;
  c.bounds = {0.0, 1.0, 0.0, 1.0};
  c.categories = {2};
  c.Add([](const double* x, const std::int32_t* k) { return k[0] == 0 ? 9.0 : 5.0 * x[0] + x[1]; });
  CompareSearches<2>(c, 60);
}

// Where values and slopes overflow and settings cancel them, some keys are NaN beside others
// that are not: what then becomes of a list depends on where its binary searches end.
TEST(SolverAgainstReference, AgreesWhereKeysAreNotNumbers) {
  const auto problem = [](double x, double y, double radius, double low, double high, double at) {
    SearchCase c;
    c.dimension = 2;
    c.bounds = {0.0, 1.0, 0.0, 1.0};
    c.Add([=](const double* p, const std::int32_t*) {
      return (p[0] - x) * (p[0] - x) + (p[1] - y) * (p[1] - y) - radius;
    });
    c.Add([=](const double* p, const std::int32_t*) { return p[0] < at ? low : high; });
    c.parameters.overestimation_local = 0.0;
    c.parameters.local_vs_global = 3.0;
    return c;
  };
  CompareSearches<2>(problem(0.185, 0.37, 0.3, 1e308, 1e308 / 3, 0.3), 200, 1);
  for (std::uint32_t seed = 0; seed < 500; ++seed) {
    std::mt19937 random(seed);
    const auto uniform = [&] { return random() / 4294967296.0; };
    const double x = uniform(), y = uniform(), radius = 0.5 * uniform(), at = uniform();
    const double size = random() % 3 == 0 ? 1e300 : 1.5e308;
    SearchCase c =
        problem(x, y, radius, size * (2.0 * uniform() - 1.0), size * (2.0 * uniform() - 1.0), at);
    c.name = "seed " + std::to_string(seed);
    if (random() % 3 == 0) c.categories = {2};
    if (random() % 3 == 0) c.parameters.overestimation_local = 1.1;
    if (random() % 3 == 0) c.parameters.overestimation = 0.0;
    if (random() % 3 == 0) c.parameters.reserve = 0.5;
    c.parameters.local_vs_global = random() % 4 * 0.8;
    CompareSearches<2>(c, 120, 4);
    if (testing::Test::HasFailure()) return;
  }
}

// Slopes that overflow, keys that equal the mark for "not computed", and settings
// that no user would choose: an unusual search, but the same one.
TEST(SolverAgainstReference, AgreesOnExtremeValuesAndSettings) {
  const auto with = [](double value, auto change) {
    SearchCase c;
    c.dimension = 2;
    c.name = "value " + std::to_string(value);
    c.bounds = {0.0, 1.0, 0.0, 1.0};
    c.Add([value](const double* x, const std::int32_t*) { return x[0] < 0.4 ? value : value / 3; });
    change(c.parameters);
    return c;
  };
  const auto unchanged = [](SearchParameters&) {};
  CompareSearches<2>(with(0.0, unchanged), 60);
  CompareSearches<2>(with(-std::numeric_limits<double>::max(), unchanged), 60);
  CompareSearches<2>(with(1e308, unchanged), 60);
  CompareSearches<2>(with(1.0, [](SearchParameters& p) { p.overestimation = 0.0; }), 60);
  CompareSearches<2>(with(1.0, [](SearchParameters& p) { p.overestimation = -1.0; }), 60);
  CompareSearches<2>(with(1.0, [](SearchParameters& p) { p.overestimation = NAN; }), 60);
  CompareSearches<2>(with(1.0, [](SearchParameters& p) { p.cross = 1.7; }), 60);
  CompareSearches<2>(with(1.0, [](SearchParameters& p) { p.cross = 1e200; }), 60);
  CompareSearches<2>(with(1.0, [](SearchParameters& p) { p.spread = 0.0; }), 60);
  CompareSearches<2>(with(1.0, [](SearchParameters& p) { p.spread = 3.0; }), 60);
  CompareSearches<2>(with(1.0, [](SearchParameters& p) { p.local_vs_global = 3.0; }), 60);
}

// A full list whose least key, 1, many trials share, listed or not, most of them on one
// segment alone; better ones are listed but for a few. Now and then a key is NaN.
TEST(ListDemand, PassesOverTrialsThatLeaveNoTrace) {
  for (std::uint32_t round = 0; round < 600; ++round) {
    std::mt19937 random(round);
    const std::uint32_t ties = 1 + random() % 5;
    const std::uint32_t better = static_cast<std::uint32_t>(kListCapacity) - ties;
    const std::uint32_t all_better = better + random() % 2 * (random() % ties);
    const std::uint32_t tied_trials = ties + random() % (4 * ties);
    std::vector<std::array<double, 2>> keys(3 * kListCapacity / 2, {0.0, -1.0});
    for (std::uint32_t i = 0; i < all_better + tied_trials; ++i) {
      keys[i][0] = i < all_better ? 2 + random() % 3 : 1;
    }
    std::shuffle(keys.begin(), keys.end(), random);
    if (round % 3 == 0) keys[random() % keys.size()][1] = 1.0;
    if (round % 8 == 0) keys[random() % keys.size()][1] = NAN;

    KeyBounds bounds;
    std::vector<Candidate> listed, tied;
    for (std::uint32_t p = 0; p < keys.size(); ++p) {
      const auto [a, b] = keys[p];
      bounds.Set(p, KeyBounds::Better(KeyBounds::Better(KeyBounds::kAbsent, a), b));
      if (a > 1.0 && listed.size() < better) listed.push_back({a, p, 0});
      if (a == 1.0) tied.push_back({a, p, 0});
    }
    std::rotate(tied.begin(), tied.begin() + random() % tied_trials, tied.end());
    const auto tied_end = tied.begin() + ties + random() % (tied_trials - ties + 1);
    std::sample(tied.begin(), tied_end, std::back_inserter(listed), ties, random);
    std::shuffle(listed.begin(), listed.end(), random);
    CandidateList list;
    reference::List plain;
    for (const Candidate& candidate : listed) {
      list.Offer(candidate, UpdateMode::kFull);
      plain.Offer(candidate, true);
    }
    const ListDemand demand(list, bounds, [](std::uint32_t position) { return position; });
    demand.Prepare(list);
    std::vector<std::uint32_t> needed;
    bounds.List([&](double bound, std::size_t first,
                    std::size_t end) { return demand.Needs(bound, first, end); },
                needed);
    EXPECT_TRUE(round % 8 == 0 || needed.size() < keys.size()) << "passes over some";
    for (const std::uint32_t p : needed) {
      for (std::int32_t test = 0; test < 2; ++test) {
        const double key = keys[p][static_cast<std::size_t>(test)];
        if (demand.Wants(key)) list.Offer({key, p, test}, UpdateMode::kFull);
      }
    }
    for (std::uint32_t p = 0; p < keys.size(); ++p) {
      for (std::int32_t test = 0; test < 2; ++test) {
        plain.Offer({keys[p][static_cast<std::size_t>(test)], p, test}, true);
      }
    }
    ASSERT_TRUE(SameList(list, plain)) << "round " << round;
  }
}

// Guesses are stepped through from a checkpoint and taken back, before each step, by a search
// that is now and then replaced by its copy: the whole state is that of one that never did.
template <int N>
void CompareWithSpeculation(const SearchCase& c, int steps) {
  SCOPED_TRACE(c.name);
  reference::Solver<N> plain(c.bounds, c.categories, c.functions, c.parameters);
  auto base = CreateSolver(c.bounds, c.categories, c.functions, c.parameters);
  base->Rollback();
  std::mt19937 random(1);
  for (int step = 0; step < steps; ++step) {
    base->Checkpoint();
    try {
      for (auto guesses = random() % 10; guesses > 0; --guesses) {
        if (!base->Propose()) continue;
        // Steep ones raise slopes; poor ones are of another class.
        const auto index = static_cast<std::int32_t>(random() % c.functions.size());
        const int exponent = -40 + static_cast<int>(random() % 9);
        base->Accept({index, std::ldexp(static_cast<double>(random()), exponent)});
      }
    } catch (const SearchExhausted&) {
    }
    base->Rollback();
    if (step % 16 == 7) base = base->Copy();
    const std::string error = ErrorOf([&] { plain.Step(); });
    ASSERT_EQ(ErrorOf([&] { base->Step(); }), error) << "step " << step;
    if (!error.empty()) return;
    if (step % 4 != 0) continue;
    const auto& solver = static_cast<const Solver<N>&>(*base);
    ASSERT_EQ(solver.TestCount(), plain.tests.size());
    ASSERT_TRUE(SameState(solver, plain)) << "step " << step;
  }
}

TEST(SolverAgainstReference, AgreesAfterGuessesAreTakenBack) {
  for (std::uint32_t seed = 0; seed < 12; ++seed) {
    CompareWithSpeculation<1>(RandomCase(1, seed), 100);
    CompareWithSpeculation<2>(RandomCase(2, seed), 150);
    CompareWithSpeculation<3>(RandomCase(3, seed), 100);
    CompareWithSpeculation<5>(RandomCase(5, seed), 60);
    if (testing::Test::HasFailure()) return;
  }
  CompareWithSpeculation<2>(NativeCase(2), 500);
}

TEST(SolverAgainstReference, AgreesForAnyNumberOfThreads) {
  for (const int team : {2, 3, 5}) {
    SCOPED_TRACE(team);
    CompareSearches<2>(RandomCase(2, 3), 200, 8, team);
    CompareSearches<3>(RandomCase(3, 5), 200, 8, team);
    CompareSearches<5>(NativeCase(5), 300, 8, team);
    CompareSearches<12>(NativeCase(12), 120, 8, team);
  }
}

}  // namespace
}  // namespace QuenloftSolver
