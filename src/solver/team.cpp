// SPDX-License-Identifier: MIT

#include "solver/team.h"

#include <omp.h>

#include <atomic>

#if defined(__unix__) || defined(__APPLE__)
#include <pthread.h>
#endif

namespace QuenloftSolver {

namespace {

std::atomic<bool> lost_team{false};

bool WatchForks() {
#if defined(__unix__) || defined(__APPLE__)
  pthread_atfork(nullptr, nullptr, [] { lost_team.store(true, std::memory_order_relaxed); });
#endif
  return true;
}

}  // namespace

int TeamSize() {
  // Forks matter once a team may exist, so watching starts with the first question.
  static const bool is_watching = WatchForks();
  if (!is_watching || lost_team.load(std::memory_order_relaxed)) return 1;
  return omp_get_max_threads();
}

int WorkerNumber() { return omp_get_thread_num(); }

}  // namespace QuenloftSolver
