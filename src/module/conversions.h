// SPDX-License-Identifier: MIT
//
// Numbers between C++ and Python.

#pragma once

#include "module/guarded.h"  // Python.h comes first

#include <cstdint>

namespace QuenloftModule {

// A tuple of `count` floats.
PyRef FloatTuple(const double* values, std::uint32_t count);

// A tuple of `count` times None, to be refilled: it can be reached through the
// garbage collector before its first use, so no item is ever null.
PyRef BlankTuple(std::uint32_t count);

// The interpreter's conversion to a C int of 32 bits. An integer that does not
// fit is an OverflowError; -1 with the indicator set for any failure.
std::int32_t AsInt32(PyObject* object);

}  // namespace QuenloftModule
