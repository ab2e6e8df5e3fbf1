// SPDX-License-Identifier: MIT
//
// How many threads the engine may use.

#pragma once

namespace QuenloftSolver {

// For the steps of every solver from now on, until it is called again; at least 1. Without
// a call they are what OMP_NUM_THREADS asks for, and 1 where it says nothing: a search for an
// expensive function gains nothing from more, and where threads may not be had the OpenMP
// runtime ends the process. Results do not depend on it.
//
// Without OpenMP there is one thread. A process forked from this one searches with one thread,
// whatever is set.
void SetThreadCount(int threads);

}  // namespace QuenloftSolver
