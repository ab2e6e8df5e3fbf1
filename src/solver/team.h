// SPDX-License-Identifier: MIT
//
// The thread team of the refresh loop: how many threads it may have, and when it
// pays to call it.

#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <thread>

#include "solver/aligned.h"

namespace QuenloftSolver {

// Raised by the thread that called a team, awaited by the others: what was written before is
// seen by those.
class alignas(kCacheLine) Signal {
 public:
  void Raise() { is_raised_.store(true, std::memory_order_release); }
  void Await() const {
    constexpr int kSpins = 2000;  // some ten microseconds, then others may have the core
    for (int spin = 0; !is_raised_.load(std::memory_order_acquire); ++spin) {
      if (spin < kSpins) {
        Pause();
      } else {
        std::this_thread::yield();
      }
    }
  }

 private:
  static void Pause() {
#if defined(__x86_64__)
    __builtin_ia32_pause();
#endif
  }

  std::atomic<bool> is_raised_{false};
};

class Stopwatch {
 public:
  double Nanoseconds() const {
    return std::chrono::duration<double, std::nano>(Clock::now() - start_).count();
  }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point start_ = Clock::now();
};

// Decides from one step to the next. Whatever it decides, the result of a step is the
// same.
//
// A loop gets one thread
//   - when its work is over before a team would have started;
//   - when the search mostly waits for its function: a team would gain it nothing, and
//     threads that spin in wait for the next loop would take the core from the function;
//   - while steps with one thread are the faster ones, as they are where other processes
//     keep the processors busy, or where cores are so far apart that what one has
//     written costs the others more time than they save;
//   - in a process forked from one that may have had a team, whose threads the fork did
//     not copy and whose runtime would wait for them for ever.
// Else it gets the OpenMP runtime's default.
//
// Which is faster is measured, over whole steps, as the caller pays after a loop for what
// the team has written. Steps differ by much, so their times are taken for equal work,
// and many in a row with the other number of threads are compared: a trial, the rarer the
// more often it told the same. Its first steps do not tell, as threads may have to be
// woken. It ends early when it is clear that they are no better, and when it has taken as
// long as all its steps should, and a little for threads to wake. Threads are started well
// before the first: they start on the core of the one that starts them, and take some
// milliseconds to leave it.
class Team {
 public:
  // The work of rebuilding `tables` neighbour tables among `candidates`, in about the
  // nanoseconds that it takes one thread.
  static double Work(double tables, std::size_t candidates, int dimension) {
    return tables * (static_cast<double>(candidates) + 100.0) * dimension;
  }

  // Threads for a loop of about this work, when the last evaluation took
  // `evaluation_nanoseconds`.
  int ThreadsFor(double expected_work, double evaluation_nanoseconds);
  // Whether the step after the last call of ThreadsFor is to be timed, and the evaluation
  // before the next: in two dimensions the clock would cost as much as the evaluation.
  bool IsTiming() const { return is_timing_; }
  // The work of the last loop, and what the step with it took, if it was timed.
  void Record(double work, double nanoseconds);

  // Number of the calling thread in its team, from 0.
  static int WorkerNumber();

 private:
  // Between what a step takes in three dimensions, where a team gains nothing, and in
  // four, where it begins to.
  static constexpr double kLeastWork = 6000.0;
  // In steps.
  static constexpr int kFirstInterval = 16;
  static constexpr int kShortestInterval = 256;
  static constexpr int kLongestInterval = 8192;
  static constexpr int kTrial = 40;
  static constexpr int kShortestTrial = 16;
  static constexpr int kUncounted = 4;
  // In nanoseconds: what threads may take to start, and to wake.
  static constexpr double kStart = 4e6;
  static constexpr double kWake = 1e6;

  enum Form { kOne, kTogether };
  Form Other() const { return preferred_ == kOne ? kTogether : kOne; }
  // Whether the steps counted in a trial took more than `times` what steps usually take.
  bool IsTrialWorse(double times) const {
    return trial_nanoseconds_ > times * cost_[preferred_] * trial_work_;
  }
  void EndTrial();

  Form preferred_ = kOne;
  // Nanoseconds per work, as lately measured; of the other form in the last trial.
  std::array<double, 2> cost_{0.0, 0.0};
  int steps_to_trial_ = kFirstInterval;
  int interval_ = kShortestInterval;
  double start_ = 0.0;  // nanoseconds until started threads may be tried

  bool is_trying_ = false;
  int steps_tried_ = 0;
  double trial_nanoseconds_ = 0.0;  // of the counted steps, as the next
  double trial_work_ = 0.0;
  double budget_ = 0.0;  // nanoseconds left

  // The last loop.
  bool is_timing_ = true;
  bool had_choice_ = false;
};

}  // namespace QuenloftSolver
