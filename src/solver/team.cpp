// SPDX-License-Identifier: MIT

#include "solver/team.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>

#include "solver/threads.h"

#if defined(__unix__) || defined(__APPLE__)
#include <pthread.h>
#endif
#ifdef _OPENMP
#include <omp.h>
#endif

namespace QuenloftSolver {
namespace {

// The first number of OMP_NUM_THREADS, which may be a list of one for each level.
int ThreadsAskedFor() {
  const char* text = std::getenv("OMP_NUM_THREADS");
  return text == nullptr ? 1 : std::max(std::atoi(text), 1);
}

std::atomic<int>& AllowedThreads() {
  static std::atomic<int> threads{ThreadsAskedFor()};
  return threads;
}

// A fork copies the calling thread alone, and an OpenMP runtime that had a team before, for
// whichever library, waits for the others for ever. So forks are watched from the moment in
// which this library is loaded.
std::atomic<bool> was_forked{false};
[[maybe_unused]] const bool is_watching = [] {
#if defined(__unix__) || defined(__APPLE__)
  pthread_atfork(nullptr, nullptr, [] { was_forked.store(true, std::memory_order_relaxed); });
#endif
  return true;
}();

}  // namespace

void SetThreadCount(int threads) { AllowedThreads().store(std::max(threads, 1)); }

int NumberInTeam() {
#ifdef _OPENMP
  return omp_get_thread_num();
#else
  return 0;
#endif
}

int ThreadsFor(std::size_t tables, std::size_t candidates, int dimension) {
  // A team costs some microseconds a step, and each core has to fetch what the others have
  // written. A table looks at every candidate, and takes some hundred more for itself.
  constexpr std::size_t kLeastWork = 200000;  // coordinates looked at
#ifdef _OPENMP
  const int threads = AllowedThreads().load(std::memory_order_relaxed);
#else
  const int threads = 1;
#endif
  if (threads == 1 || was_forked.load(std::memory_order_relaxed)) return 1;
  const std::size_t work = tables * (candidates + 500) * static_cast<std::size_t>(dimension);
  return work < kLeastWork ? 1 : threads;
}

}  // namespace QuenloftSolver
