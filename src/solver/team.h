// SPDX-License-Identifier: MIT
//
// The thread team of the refresh loop: how many threads it may have, and when it
// pays to call it.

#pragma once

#include <cstddef>

namespace QuenloftSolver {

// What rebuilding `tables` neighbour tables among `candidates` costs one thread, about
// (a fit to the figures of benchmarks/engine for 2 to 32 dimensions).
inline double EstimatedNanoseconds(std::size_t tables, std::size_t candidates, int dimension) {
  return static_cast<double>(tables) * (static_cast<double>(candidates) + 100.0) * dimension;
}

// Threads for a loop of so much work, in nanoseconds, when the last evaluation took
// `evaluation_nanoseconds`: the OpenMP runtime's default or 1. It is 1
//   - when the work is over before a thread would have started;
//   - when the search mostly waits for its function: a team would gain it nothing, and
//     threads that spin in wait for the next loop would take the core from the function;
//   - in a process forked from one that may have had a team, whose threads the fork did
//     not copy and whose runtime would wait for them for ever.
// The result of the loop is the same with any number.
int TeamSize(double work_nanoseconds, double evaluation_nanoseconds);

// Number of the calling thread in its team, from 0.
int WorkerNumber();

}  // namespace QuenloftSolver
