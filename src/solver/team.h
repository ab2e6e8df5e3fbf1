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
    constexpr int kSpins = 2000;  // some fifty microseconds, then others may have the core
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
// A step gets one thread
//   - while steps are over before a team would have gained anything;
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
// woken. It ends early when it is clear that they are no better, and when its steps have taken
// half as long again as all of them should, and a little for threads to wake: it has stalled,
// and the next one is far off. Threads are started well before the first: they start on the
// core of the one that starts them, and take some milliseconds to leave it.
class Team {
 public:
  // The work of a step that rebuilds `tables` neighbour tables among `candidates`, in about the
  // nanoseconds that it takes one thread in three to eight dimensions. Within a search steps
  // of equal work take equal times, give or take a quarter.
  static double Work(std::size_t tables, std::size_t candidates, int dimension) {
    const auto count = static_cast<double>(candidates);
    const double per_table = count + 500.0;
    return (static_cast<double>(tables) * per_table + 40.0 * count + 2000.0) * dimension / 4.0;
  }

  // Threads for the next step, when the last evaluation took `evaluation_nanoseconds`.
  int ThreadsFor(double evaluation_nanoseconds);
  // Whether steps and evaluations are to be timed from now on, until ThreadsFor is called
  // again: in two dimensions the clock would cost as much as the evaluation.
  bool IsTiming() const { return is_timing_; }
  // The work of the step, and the nanoseconds that it took, 0 where it was not timed.
  void Record(double work, double nanoseconds);

  // For tests: so many threads for every step from now on, whatever they gain.
  void Force(int threads) { forced_ = threads; }

  // Number of the calling thread in its team, from 0.
  static int WorkerNumber();

 private:
  // Between what steps take in three dimensions, where a team gains nothing, and in
  // four, where it begins to.
  static constexpr double kLeastWork = 9000.0;
  // In steps.
  static constexpr int kFirstInterval = 32;
  static constexpr int kShortestInterval = 64;
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

  int forced_ = 0;
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
  double budget_ = 0.0;  // nanoseconds that its steps may yet take beyond the usual

  double typical_work_ = 0.0;  // of steps, as lately
  bool is_timing_ = false;
  bool has_choice_ = false;  // in this step
};

}  // namespace QuenloftSolver
