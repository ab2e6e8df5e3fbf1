// SPDX-License-Identifier: MIT
//
// Quenloft.TestFunction: a Grishagin function as a Python callable.

#pragma once

#include "module/py_ref.h"  // Python.h comes first

namespace QuenloftModule {

extern PyTypeObject TestFunctionType;

// The answer of both types to a call before a successful initialisation.
inline constexpr char kNotInitialisedMessage[] = "Test function is not initialised.";

}  // namespace QuenloftModule
