// SPDX-License-Identifier: MIT
//
// The thread team of the refresh loop: how many threads it may have, and when it
// pays to call it.

#pragma once

#include <cstddef>

namespace QuenloftSolver {

// Decides from one loop to the next. Whatever it decides, the result of a loop is the
// same.
//
// A loop gets one thread
//   - when its work is over before a team would have started;
//   - when the search mostly waits for its function: a team would gain it nothing, and
//     threads that spin in wait for the next loop would take the core from the function;
//   - for some time after a team was slower than one thread would have been, as it is
//     where other processes keep the processors busy: a loop then waits for threads that
//     are not running;
//   - in a process forked from one that may have had a team, whose threads the fork did
//     not copy and whose runtime would wait for them for ever.
// Else it gets the OpenMP runtime's default.
class Team {
 public:
  // The work of rebuilding `tables` neighbour tables among `candidates`, in about the
  // nanoseconds that it takes one thread.
  static double Work(std::size_t tables, std::size_t candidates, int dimension) {
    return static_cast<double>(tables) * (static_cast<double>(candidates) + 100.0) * dimension;
  }

  // Whether a loop is large enough to tell what one that may get a team would take, so
  // that it and the evaluations around it are timed: in two dimensions the clock would
  // cost as much as the evaluation.
  static bool IsWorthTiming(double work) { return work >= kLeastWork / 2.0; }

  // Threads for a loop, when the last evaluation took `evaluation_nanoseconds`.
  int ThreadsFor(double work, double evaluation_nanoseconds);
  // What the loop then took, if it is worth timing.
  void Record(int threads, double work, double nanoseconds);

  // Number of the calling thread in its team, from 0.
  static int WorkerNumber();

 private:
  // Between what a step takes in three dimensions, where a team gains nothing, and in
  // four, where it begins to.
  static constexpr double kLeastWork = 8000.0;

  double nanoseconds_per_work_ = 1.0;  // of one thread, as lately measured
  int loops_to_wait_ = 0;
  int next_wait_ = 1;
};

}  // namespace QuenloftSolver
