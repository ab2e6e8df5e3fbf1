// SPDX-License-Identifier: MIT
//
// The thread team of the refresh loop: how many threads it may have, and when it
// pays to call it.

#pragma once

namespace QuenloftSolver {

// Tables times candidates times coordinates below which one thread is faster than
// waking another (benchmarks/engine prints the ratio of both).
inline constexpr double kLeastWorkForTeam = 60000.0;

// Threads that a parallel loop may use: the OpenMP runtime's default, but 1 in a
// process forked from one that had a team, whose threads the fork did not copy and
// whose runtime would wait for them for ever.
int TeamSize();

// Number of the calling thread in its team, from 0.
int WorkerNumber();

}  // namespace QuenloftSolver
