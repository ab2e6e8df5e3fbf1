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

int TeamSize(double work_nanoseconds, double evaluation_nanoseconds) {
  // Waking a thread that still spins takes some 2 microseconds.
  constexpr double kLeastWork = 8000.0;
  constexpr double kMostEvaluation = 20.0;  // times the work
  if (work_nanoseconds < kLeastWork ||
      evaluation_nanoseconds > kMostEvaluation * work_nanoseconds) {
    return 1;
  }
  // Forks matter once a team may exist, so watching starts with the first loop for one.
  static const bool is_watching = WatchForks();
  if (!is_watching || lost_team.load(std::memory_order_relaxed)) return 1;
  return omp_get_max_threads();
}

int WorkerNumber() { return omp_get_thread_num(); }

}  // namespace QuenloftSolver
