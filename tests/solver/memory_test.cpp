// SPDX-License-Identifier: MIT
//
// Memory that runs out at each of the allocations of a search.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <numeric>
#include <utility>
#include <vector>

#include "search_cases.h"
#include "solver/built_dimensions.h"
#include "solver/create_solver.h"
#include "solver/solver.h"

namespace {

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
// Allocations of this thread that succeed before those that do not.
thread_local std::int64_t left = kNever;
// Bytes that one may have.
thread_local std::size_t most = std::numeric_limits<std::size_t>::max();

void* Allocate(std::size_t size, std::size_t alignment) {
  if (size > most || (left != kNever && left-- <= 0)) throw std::bad_alloc();
  void* memory = nullptr;
  if (posix_memalign(&memory, std::max(alignment, sizeof(void*)), size) != 0) {
    throw std::bad_alloc();
  }
  return memory;
}

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
  return Allocate(size, alignof(std::max_align_t));
}
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment) {
  return Allocate(size, static_cast<std::size_t>(alignment));
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::align_val_t) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  std::free(memory);
}

namespace QuenloftSolver {
namespace {

struct MemoryCase {
  int threads;
  std::uint32_t trials;
  std::vector<std::int32_t> categories;
  std::uint32_t fit;
  bool guesses;  // steps are tried out and taken back
};

template <int N>
SearchCase ConstrainedCase(const MemoryCase& memory) {
  SearchCase c;
  for (int k = 0; k < N; ++k) c.AddVariable(-1.0, 1.5);
  c.categories = memory.categories;
  c.Add([](const double* x, const std::int32_t*) {
    return 0.3 * std::accumulate(x, x + N, 0.0) - 0.4;
  });
  c.Add([](const double* x, const std::int32_t* k) {
    double sum = k != nullptr ? 0.1 * k[0] * x[0] : 0.0;
    for (int i = 0; i < N; ++i) {
      const double d = x[i] - 0.3 - 0.04 * i;
      sum += d * d + (d < 0.1 ? 0.2 * d : 0.0);
    }
    return sum;
  });
  c.parameters.fit = memory.fit;
  c.parameters.local_vs_global = 0.5;
  return c;
}

void Guess(SolverBase& solver) {
  if (solver.TestCount() < solver.InitialCount() || solver.TestCount() % 8 != 0) return;
  solver.Checkpoint();
  for (int guess = 0; guess < 3; ++guess) {
    if (solver.Propose()) solver.Accept({1, -0.01 * guess});
  }
  solver.Rollback();
}

// The search as it is when memory ends after so many allocations and is there again once the
// error has come out.
template <int N>
std::shared_ptr<SolverBase> Run(const SearchCase& c, const MemoryCase& memory,
                                std::int64_t* allocations, int* errors) {
  auto solver = CreateSolver(c.bounds, c.categories, c.functions, c.parameters);
  static_cast<Solver<N>&>(*solver).ForceTeam(memory.threads);
  most = 4096;  // the store reserves room for a few trials
  solver->Propose();
  most = std::numeric_limits<std::size_t>::max();
  const bool is_copied = *allocations % 2 == 0;
  std::uint32_t trials = 0;
  left = *allocations;
  while (solver->TestCount() < memory.trials) {
    try {
      if (memory.guesses) Guess(*solver);
      solver->Step();
    } catch (const std::bad_alloc&) {
      left = kNever;
      ++*errors;
      solver->Rollback();
      EXPECT_GE(solver->TestCount(), trials) << "keeps what it had";
      if (is_copied) solver = solver->Copy();
      static_cast<Solver<N>&>(*solver).ForceTeam(memory.threads);
    }
    trials = solver->TestCount();
  }
  *allocations -= left;
  left = kNever;
  solver->Propose();  // finishes
  return solver;
}

template <int N>
void CompareShortOfMemory(const MemoryCase& memory) {
  const SearchCase c = ConstrainedCase<N>(memory);
  int errors = 0;
  std::int64_t allocations = kNever - 1;
  const auto undisturbed = Run<N>(c, memory, &allocations, &errors);
  ASSERT_EQ(errors, 0);
  ASSERT_GT(allocations, 100);
  for (std::int64_t k = 0; k < allocations; k += k < 300 ? 1 : 5) {
    SCOPED_TRACE(testing::Message() << "allocation " << k << " of " << allocations);
    std::int64_t until_failure = k;
    const auto disturbed = Run<N>(c, memory, &until_failure, &errors);
    ASSERT_EQ(disturbed->TestCount(), undisturbed->TestCount());
    ASSERT_EQ(disturbed->BestPosition(), undisturbed->BestPosition());
    for (std::uint32_t p = 0; p < memory.trials; ++p) {
      const auto& got = *disturbed->GetTest(p);
      const auto& expected = *undisturbed->GetTest(p);
      ASSERT_TRUE(std::equal(got.Coordinate(), got.Coordinate() + N, expected.Coordinate())) << p;
      ASSERT_EQ(got.flags.load(), expected.flags.load()) << p;
      for (int i = 0; i < 3 * N; ++i) {
        const Neighbour& a = got.Neighbours()[i];
        const Neighbour& b = expected.Neighbours()[i];
        ASSERT_EQ(a.test, b.test) << p;
        ASSERT_EQ(a.global_characteristic, b.global_characteristic) << p;
        ASSERT_EQ(a.local_characteristic, b.local_characteristic) << p;
      }
    }
  }
  EXPECT_GT(errors, 100);
}

// An error comes out, no trial is lost, and the search goes on as if nothing had been.
TEST(Memory, RunsOutAtAnyAllocationOfASearch) {
  CompareShortOfMemory<2>({1, 70, {}, 0, false});
  CompareShortOfMemory<2>({2, 40, {2}, 0, false});
  CompareShortOfMemory<2>({1, 30, {2}, 1, true});
  if (IsBuilt(4)) {
    CompareShortOfMemory<4>({1, 40, {}, 0, true});
    CompareShortOfMemory<4>({2, 40, {}, 0, false});
  }
}

}  // namespace
}  // namespace QuenloftSolver
