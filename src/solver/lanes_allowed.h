// SPDX-License-Identifier: MIT
//
// How wide the vectors may be.

#pragma once

#include <cstdlib>

namespace QuenloftSolver {

// Lanes of 32 bits: the environment's QUENLOFT_LANES, or else the most there are.
inline int LanesAllowed() {
  const char* lanes = std::getenv("QUENLOFT_LANES");
  return lanes != nullptr ? std::atoi(lanes) : 16;
}

}  // namespace QuenloftSolver
