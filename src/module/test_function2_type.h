// SPDX-License-Identifier: MIT
//
// Quenloft.TestFunction2: a GKLS function as a Python callable.

#pragma once

#include "module/py_ref.h"  // Python.h comes first

namespace QuenloftModule {

extern PyTypeObject TestFunction2Type;

}  // namespace QuenloftModule
