// SPDX-License-Identifier: MIT
//
// Whether a step is worth a team of threads. Whatever is decided, its result is the same.

#pragma once

#include <cstddef>

namespace QuenloftSolver {

// Threads for a step that rebuilds `tables` neighbour tables among `candidates`: as many as
// are allowed (threads.h), or 1 where the step is over before a team has gathered.
int ThreadsFor(std::size_t tables, std::size_t candidates, int dimension);

// The calling thread's number in its team, from 0.
int NumberInTeam();

}  // namespace QuenloftSolver
