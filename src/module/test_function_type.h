// SPDX-License-Identifier: MIT
//
// Quenloft.TestFunction: a Grishagin function as a Python callable.

#pragma once

#include "module/py_ref.h"  // Python.h comes first

namespace QuenloftModule {

extern PyTypeObject TestFunctionType;

}  // namespace QuenloftModule
