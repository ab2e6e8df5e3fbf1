// SPDX-License-Identifier: MIT
//
// The parts of the engine by themselves, against models of what they keep.

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <map>
#include <random>
#include <vector>

#include "search_cases.h"
#include "solver/built_dimensions.h"
#include "solver/create_solver.h"
#include "solver/key_bounds.h"
#include "solver/solver.h"

namespace QuenloftSolver {
namespace {

// Few distinct keys, some absent, some unknown; the store grows, and what was set after a
// checkpoint is taken back.
TEST(KeyBounds, AnswersAsAListOfAllKeys) {
  for (const std::uint32_t size : {1u, 16u, 17u, 300u, 5000u, 80000u}) {
    SCOPED_TRACE(size);
    std::mt19937 random(size);
    KeyBounds bounds;
    std::vector<double> model;
    std::vector<double> model_before;
    for (int round = 0; round < 12; ++round) {
      if (round % 4 == 1) {
        bounds.Checkpoint();
        model_before = model;
      }
      for (std::uint32_t i = 0; i < size / 2 + 1; ++i) {
        const std::uint32_t rank =
            random() % (size * (static_cast<std::uint32_t>(round) + 1) / 12 + 1);
        const std::uint32_t kind = random() % 100;
        const double key = kind == 0 && round % 2 == 0 ? KeyBounds::kUnknown
                           : kind < 40                 ? KeyBounds::kAbsent
                                                       : random() % 50;
        if (model.size() <= rank) model.resize(rank + 1, KeyBounds::kAbsent);
        model[rank] = key;
        bounds.Set(rank, key);
      }
      if (round % 4 == 3) {
        bounds.Rollback();
        model = model_before;
      }
      std::vector<double> known;
      std::size_t unknown = 0;
      for (std::uint32_t rank = 0; rank < model.size() + 3; ++rank) {
        const double key = rank < model.size() ? model[rank] : KeyBounds::kAbsent;
        ASSERT_EQ(bounds[rank], key) << rank;
        if (key == KeyBounds::kUnknown) {
          ++unknown;
        } else if (key != KeyBounds::kAbsent) {
          known.push_back(key);
        }
      }
      ASSERT_EQ(bounds.HasUnknown(), unknown > 0);
      std::sort(known.begin(), known.end(), std::greater<>());
      for (const std::size_t count :
           {std::size_t{1}, std::size_t{10}, known.size(), known.size() + 1}) {
        if (count == 0) continue;
        const double reached = bounds.ReachedBy(count);
        ASSERT_EQ(reached, count <= known.size() ? known[count - 1] : KeyBounds::kAbsent) << count;
        const double key = 25.0;
        std::vector<std::size_t> places;
        for (std::size_t rank = 0; rank < model.size(); ++rank) {
          if (model[rank] == key) places.push_back(rank);
        }
        const bool has_enough = count <= places.size();
        if (!model.empty() && has_enough) {
          ASSERT_EQ(bounds.EndOfFirst(count, key), places[count - 1] + 1);
          ASSERT_EQ(bounds.BeginOfLast(count, key), places[places.size() - count]);
        }
      }
      std::vector<std::uint32_t> needed;
      bounds.List([](double bound, std::size_t, std::size_t) { return bound >= 30.0; }, needed);
      std::vector<std::uint32_t> expected;
      for (std::uint32_t rank = 0; rank < model.size(); ++rank) {
        if (model[rank] >= 30.0) expected.push_back(rank);
      }
      ASSERT_EQ(needed, expected);
    }
  }
}

// Beyond the room that it reserves, which nobody waits for in a search.
TEST(TrialStore, GrowsBeyondItsReserve) {
  constexpr std::uint32_t kCount = kReservedTrials + 1000;
  TrialStore<1> store;
  store.Reserve();
  const auto point_of = [](std::uint32_t position) {
    return std::array<double, 1>{1.0 / (position + 1)};
  };
  for (std::uint32_t position = 0; position < kCount; ++position) {
    store.ReserveNext();
    store.Append(point_of(position), position % 3, {0, -1.0 * position}, 0);
    if (position % 1000 == 7) store.SetLocal(position);
  }
  ASSERT_EQ(store.Size(), kCount);
  for (std::uint32_t position = 0; position < kCount; ++position) {
    ASSERT_EQ(store[position].coordinate, point_of(position));
    ASSERT_EQ(store[position].value.value, -1.0 * position);
    ASSERT_EQ(store.Row(position).coordinate, point_of(position));
    ASSERT_EQ(store.Row(position).neighbours[0], position);
    ASSERT_EQ(store.MayBeLocal(position), position % 1000 == 7);
  }
}

// Updates of every trial look at few of them, whatever the problem has besides its target.
TEST(Candidates, PassOverMostTrialsInFullUpdates) {
  for (int kind = 0; kind < 4; ++kind) {
    SCOPED_TRACE(kind);
    SearchCase c;
    c.dimension = 2;
    c.bounds = {-1.0, 1.5, -1.0, 1.5};
    if (kind == 1) c.Add([](const double*, const std::int32_t*) { return -1.0; });
    if (kind == 2) {
      c.Add([](const double* x, const std::int32_t*) { return x[0] + x[1] - 1.0; });
      c.Add([](const double* x, const std::int32_t*) { return -x[0] - 0.8; });
    }
    if (kind == 3) c.categories = {2, 2};
    const auto bowl = RippledBowl(2, 0.1);
    c.Add([=](const double* x, const std::int32_t* k) {
      return bowl(x, k) + (k ? 0.01 * k[0] : 0.0);
    });
    const auto base = CreateSolver(c.bounds, c.categories, c.functions, c.parameters);
    const auto& solver = static_cast<const Solver<2>&>(*base);
    while (base->TestCount() < 20000) base->Step();
    const UpdateCounters before = solver.Work().updates;
    while (base->TestCount() < 40000) base->Step();
    const UpdateCounters after = solver.Work().updates;
    const auto updates = static_cast<double>(after.full_updates - before.full_updates);
    const auto visited = static_cast<double>(after.visited - before.visited);
    ASSERT_GT(updates, 5.0);
    // A list keeps a thousand segments of trials that have about four each.
    EXPECT_LT(visited / updates, 2.0 * kListCapacity * (kind == 3 ? 4 : kind == 2 ? 3 : 1));
  }
}

}  // namespace
}  // namespace QuenloftSolver
