// SPDX-License-Identifier: MIT
//
// Quenloft.Test: one trial of a search, as a Python object of its own.

#pragma once

#include "module/static_type.h"  // Python.h comes first

#include <cstdint>

namespace QuenloftModule {

struct Problem;

// Read-only to Python. A member that is empty reads as a missing attribute.
struct Test {
  PyRef index;        // int: number of the first violated constraint, or of constraints
  PyRef value;        // float: what the function at that index answered
  PyRef coordinate;   // tuple of floats, in the problem's own coordinates
  PyRef categorical;  // tuple of ints; empty when the problem has no categorical variables
  PyRef radius;       // float: distance to the farthest neighbour, in the unit box
};

extern PyTypeObject TestType;

// A new Quenloft.Test of the trial at `position` in the store of the problem's
// solver. It does not depend on the solver any more. Throws PythonError.
PyRef MakeTest(const Problem& problem, std::uint32_t position);

// The string conversion of a member, or the interpreter's marker for an absent
// object. Throws PythonError.
PyRef MemberText(const PyRef& member);

}  // namespace QuenloftModule
