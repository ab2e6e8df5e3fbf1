// SPDX-License-Identifier: MIT
//
// Quenloft.Problem.Minimize: the driver of a search.

#pragma once

#include "module/py_ref.h"  // Python.h comes first

namespace QuenloftModule {

// Method slot of Quenloft.Problem; keywords only. Steps a new solver until a stop
// condition holds, an evaluation fails or nothing is left to split, and returns a
// new Quenloft.Result.
//
// A Python error in a callable (or in the conversion of an item of the problem)
// ends the search, and the result is returned with that error set: the caller
// receives the interpreter's SystemError with the error as its cause. An error
// that leaves nothing to search, and a signal handler that raises, is raised as it
// is.
PyObject* Minimize(PyObject* self, PyObject* args, PyObject* kwargs) noexcept;

}  // namespace QuenloftModule
