// SPDX-License-Identifier: MIT

#include "module/conversions.h"

#include <limits>

namespace QuenloftModule {

PyRef FloatTuple(const double* values, std::uint32_t count) {
  PyRef tuple = OrThrow(PyTuple_New(count));
  for (std::uint32_t i = 0; i < count; ++i) {
    PyTuple_SET_ITEM(tuple.get(), i, OrThrow(PyFloat_FromDouble(values[i])).release());
  }
  return tuple;
}

PyRef BlankTuple(std::uint32_t count) {
  PyRef tuple = OrThrow(PyTuple_New(count));
  for (std::uint32_t i = 0; i < count; ++i) {
    PyTuple_SET_ITEM(tuple.get(), i, PyRef::borrow(Py_None).release());
  }
  return tuple;
}

std::int32_t AsInt32(PyObject* object) {
  const long value = PyLong_AsLong(object);
  if (value < std::numeric_limits<std::int32_t>::min() ||
      value > std::numeric_limits<std::int32_t>::max()) {
    PyErr_SetString(PyExc_OverflowError, "Python int too large to convert to C long");
    return -1;
  }
  return static_cast<std::int32_t>(value);
}

}  // namespace QuenloftModule
