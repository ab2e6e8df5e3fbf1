// SPDX-License-Identifier: MIT

#include "solver/team.h"

#include <omp.h>

#include <algorithm>
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

int Team::ThreadsFor(double work, double evaluation_nanoseconds) {
  constexpr double kMostEvaluation = 20.0;  // times the work
  if (work < kLeastWork || evaluation_nanoseconds > kMostEvaluation * work) return 1;
  if (loops_to_wait_ > 0) {
    --loops_to_wait_;
    return 1;
  }
  // Forks matter once a team may exist, so watching starts with the first loop for one.
  static const bool is_watching = WatchForks();
  if (!is_watching || lost_team.load(std::memory_order_relaxed)) return 1;
  return omp_get_max_threads();
}

void Team::Record(int threads, double work, double nanoseconds) {
  constexpr double kSmoothing = 0.1;
  constexpr int kLongestWait = 1024;
  if (threads == 1) {
    nanoseconds_per_work_ += kSmoothing * (nanoseconds / work - nanoseconds_per_work_);
  } else if (nanoseconds > nanoseconds_per_work_ * work) {
    loops_to_wait_ = next_wait_;
    next_wait_ = std::min(2 * next_wait_, kLongestWait);
  } else {
    next_wait_ = std::max(next_wait_ / 2, 1);
  }
}

int Team::WorkerNumber() { return omp_get_thread_num(); }

}  // namespace QuenloftSolver
