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

class Function final : public FunctionInterface {
 public:
  Function(int n, bool is_constraint) : n_(n), is_constraint_(is_constraint) {}
  double operator()(const double* x, const std::int32_t* k) override {
    double sum = is_constraint_ ? -0.4 : k != nullptr ? 0.1 * k[0] * x[0] : 0.0;
    for (int i = 0; i < n_; ++i) {
      const double d = x[i] - 0.3 - 0.04 * i;
      sum += is_constraint_ ? 0.3 * x[i] : d * d + (d < 0.1 ? 0.2 * d : 0.0);
    }
    return sum;
  }

 private:
  int n_;
  bool is_constraint_;
};

struct MemoryCase {
  int dimension;
  int threads;
  std::uint32_t trials;
  std::vector<std::int32_t> categories;
  int fit;
  bool guesses;  // steps are tried out and taken back
};

template <int N>
class SearchShortOfMemory {
 public:
  explicit SearchShortOfMemory(const MemoryCase& c)
      : case_(c), constraint_(N, true), target_(N, false) {}

  // The search as it is when memory ends after so many allocations and is there again once the
  // error has come out.
  std::shared_ptr<SolverBase> Run(std::int64_t allocations, int* errors) {
    SearchParameters parameters;
    parameters.fit = static_cast<std::uint32_t>(case_.fit);
    parameters.local_vs_global = 0.5;
    const std::vector<double> bounds = [] {
      std::vector<double> each;
      for (int k = 0; k < N; ++k) each.insert(each.end(), {-1.0, 1.5});
      return each;
    }();
    auto solver = CreateSolver(bounds, case_.categories, {&constraint_, &target_}, parameters);
    static_cast<Solver<N>&>(*solver).ForceTeam(case_.threads);
    most = 4096;  // the store reserves room for a few trials
    solver->Propose();
    most = std::numeric_limits<std::size_t>::max();
    std::uint32_t trials = 0;
    left = allocations;
    *errors = 0;
    while (solver->TestCount() < case_.trials) {
      try {
        if (case_.guesses) Guess(*solver);
        solver->Step();
      } catch (const std::bad_alloc&) {
        left = kNever;
        ++*errors;
        solver->Rollback();
        EXPECT_GE(solver->TestCount(), trials) << "keeps what it had";
        if (allocations % 2 == 0) solver = solver->Copy();
        static_cast<Solver<N>&>(*solver).ForceTeam(case_.threads);
      }
      trials = solver->TestCount();
    }
    used_ = allocations - left;
    left = kNever;
    solver->Propose();  // finishes
    return solver;
  }
  std::int64_t AllocationsUsed() const { return used_; }

 private:
  static void Guess(SolverBase& solver) {
    if (solver.TestCount() < solver.InitialCount() || solver.TestCount() % 8 != 0) return;
    solver.Checkpoint();
    for (int guess = 0; guess < 3; ++guess) {
      if (solver.Propose()) solver.Accept({1, -0.01 * guess});
    }
    solver.Rollback();
  }

  MemoryCase case_;
  Function constraint_;
  Function target_;
  std::int64_t used_ = 0;
};

template <int N>
void CompareShortOfMemory(const MemoryCase& c) {
  SearchShortOfMemory<N> search(c);
  int errors = 0;
  const auto undisturbed = search.Run(kNever - 1, &errors);
  const std::int64_t allocations = search.AllocationsUsed();
  ASSERT_GT(allocations, 100);
  std::int64_t failed = 0;
  for (std::int64_t k = 0; k < allocations; k += k < 300 ? 1 : 5) {
    SCOPED_TRACE(testing::Message() << "allocation " << k << " of " << allocations);
    const auto disturbed = search.Run(k, &errors);
    failed += errors;
    ASSERT_EQ(disturbed->TestCount(), undisturbed->TestCount());
    ASSERT_EQ(disturbed->BestPosition(), undisturbed->BestPosition());
    for (std::uint32_t p = 0; p < c.trials; ++p) {
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
  EXPECT_GT(failed, 100);
}

// An error comes out, no trial is lost, and the search goes on as if nothing had been.
TEST(Memory, RunsOutAtAnyAllocationOfASearch) {
  CompareShortOfMemory<2>({2, 1, 70, {}, 0, false});
  CompareShortOfMemory<2>({2, 2, 40, {2}, 0, false});
  CompareShortOfMemory<2>({2, 1, 30, {2}, 1, true});
  if (IsBuilt(4)) {
    CompareShortOfMemory<4>({4, 1, 40, {}, 0, true});
    CompareShortOfMemory<4>({4, 2, 40, {}, 0, false});
  }
}

}  // namespace
}  // namespace QuenloftSolver
