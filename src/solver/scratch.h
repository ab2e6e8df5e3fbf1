// SPDX-License-Identifier: MIT
//
// Members that a copy does without.

#pragma once

namespace QuenloftSolver {

// A T that means nothing between two calls: a copy of what holds it begins with an empty one.
template <typename T>
struct Scratch : T {
  Scratch() = default;
  Scratch(const Scratch&) : T() {}
  Scratch& operator=(const Scratch&) { return *this; }
};

}  // namespace QuenloftSolver
