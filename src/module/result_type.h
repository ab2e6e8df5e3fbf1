// SPDX-License-Identifier: MIT
//
// Quenloft.Result: what a search found, as a Python object of its own.

#pragma once

#include "module/static_type.h"  // Python.h comes first

namespace QuenloftModule {

// Read-only to Python. A member that is empty reads as a missing attribute.
struct Result {
  PyRef seconds;  // int: whole seconds of the calendar clock that the search took
  PyRef tests;    // int: number of trials
  PyRef minimum;  // Quenloft.Test of the best trial; empty when there is no trial
  PyRef locals;   // tuple of Quenloft.Test, ascending by value
};

using ResultObject = ObjectOf<Result>;

extern PyTypeObject ResultType;

}  // namespace QuenloftModule
