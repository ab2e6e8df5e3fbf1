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
thread_local bool has_team = false;

bool WatchForks() {
#if defined(__unix__) || defined(__APPLE__)
  pthread_atfork(nullptr, nullptr, [] { lost_team.store(true, std::memory_order_relaxed); });
#endif
  return true;
}

// False if the calling thread has one.
bool StartTeam() {
  // Forks matter once a team may exist.
  [[maybe_unused]] static const bool is_watching = WatchForks();
  if (has_team) return false;
  has_team = true;
  std::atomic<int> threads{0};  // or the compiler might leave out the region
#pragma omp parallel
  threads.fetch_add(1, std::memory_order_relaxed);
  return true;
}

}  // namespace

int Team::ThreadsFor(double evaluation_nanoseconds) {
  constexpr double kMostEvaluation = 20.0;  // times the work
  constexpr double kMostExcess = 0.5;       // of what the steps of a trial usually take
  if (forced_ > 0) return forced_;
  const int most = omp_get_max_threads();
  is_timing_ = most > 1 && typical_work_ >= kLeastWork;
  has_choice_ = is_timing_ && evaluation_nanoseconds <= kMostEvaluation * typical_work_ &&
                !lost_team.load(std::memory_order_relaxed);
  if (!has_choice_) return 1;
  if (!is_trying_) {
    if (steps_to_trial_ > 0) --steps_to_trial_;
    if (steps_to_trial_ == 0 && StartTeam()) start_ = kStart;
    if (steps_to_trial_ == 0 && start_ <= 0.0) {
      is_trying_ = true;
      steps_tried_ = 0;
      trial_nanoseconds_ = trial_work_ = 0.0;
      budget_ = kWake + kMostExcess * cost_[preferred_] * typical_work_ * kTrial;
    }
  }
  const Form form = is_trying_ ? Other() : preferred_;
  return form == kOne ? 1 : most;
}

void Team::Record(double work, double nanoseconds) {
  constexpr double kSmoothing = 0.05;
  constexpr double kClearly = 1.2;      // times what steps usually take
  constexpr double kSuspicious = 1.25;  // times what steps took with one thread
  constexpr double kMost = 4.0;  // times the usual: an interruption, or an update of every trial
  typical_work_ += kSmoothing * (work - typical_work_);
  if (!has_choice_ || nanoseconds == 0.0) return;
  double& cost = cost_[preferred_];
  const double usual = cost * work;
  if (is_trying_) {
    ++steps_tried_;
    budget_ -= nanoseconds - usual;
    if (steps_tried_ > kUncounted) {
      trial_nanoseconds_ += std::min(nanoseconds, kMost * usual);
      trial_work_ += work;
    }
    const bool is_clear = steps_tried_ >= kShortestTrial && IsTrialWorse(kClearly);
    if (steps_tried_ == kTrial || budget_ < 0.0 || is_clear) EndTrial();
    return;
  }
  start_ -= nanoseconds;
  const double sample = nanoseconds / work;
  cost = cost == 0.0 ? sample : cost + kSmoothing * (std::min(sample, kMost * cost) - cost);
  if (preferred_ == kTogether && cost > kSuspicious * cost_[kOne]) steps_to_trial_ = 0;
}

void Team::EndTrial() {
  is_trying_ = false;
  if (trial_work_ > 0.0) cost_[Other()] = trial_nanoseconds_ / trial_work_;
  if (steps_tried_ == kTrial && !IsTrialWorse(1.0)) {
    preferred_ = Other();
    interval_ = kShortestInterval;
  } else {
    const bool was_stalled = budget_ < 0.0;
    interval_ = std::min((was_stalled ? 8 : 2) * interval_, kLongestInterval);
  }
  steps_to_trial_ = interval_;
}

int Team::WorkerNumber() { return omp_get_thread_num(); }

}  // namespace QuenloftSolver
