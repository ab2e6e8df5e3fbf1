// SPDX-License-Identifier: MIT

#include "module/function.h"

#include <limits>

#include "module/conversions.h"

using QuenloftModule::calling_python;
using QuenloftModule::PyRef;

namespace {

// Stores a new number, or nothing when there is none. The setter owns the number
// from here on, also when it refuses because somebody else holds the tuple.
bool Store(PyObject* tuple, std::uint32_t position, PyObject* number) {
  return number != nullptr && PyTuple_SetItem(tuple, position, number) == 0;
}

}  // namespace

Function::Function(PyObject* callable, std::uint32_t dimension, std::uint32_t categorical_count)
    : callable(callable),
      coordinates(QuenloftModule::BlankTuple(dimension).release()),
      categories(QuenloftModule::BlankTuple(categorical_count).release()),
      categorical_count(categorical_count),
      dimension(dimension) {}

double Function::operator()(const double* point, const std::int32_t* categorical) {
  const bool is_clean = PyErr_Occurred() == nullptr && Refill(point, categorical);
  if (is_clean) {
    const double value = Call();
    if (PyErr_Occurred() == nullptr) return value;
  } else {
    // The callable is called all the same, with the error set aside meanwhile: it
    // must not run with the indicator set. An error of its own is the later one
    // and takes the place of that which was set aside.
    QuenloftModule::SavedError earlier;
    earlier.Save();
    Call();
    if (PyErr_Occurred() == nullptr) earlier.Restore();
  }
  return std::numeric_limits<double>::quiet_NaN();
}

bool Function::Refill(const double* point, const std::int32_t* categorical) {
  for (std::uint32_t i = 0; i < dimension; ++i) {
    if (!Store(coordinates, i, PyFloat_FromDouble(point[i]))) return false;
  }
  for (std::uint32_t i = 0; i < categorical_count; ++i) {
    if (!Store(categories, i, PyLong_FromLong(categorical[i]))) return false;
  }
  return true;
}

double Function::Call() {
  // The free place in front lets a bound method put its object there.
  PyObject* arguments[] = {nullptr, coordinates, categories};
  const std::size_t count = categorical_count == 0 ? 1 : 2;
  const PyRef result = PyRef::steal(calling_python([&] {
    return PyObject_Vectorcall(callable, arguments + 1, count | PY_VECTORCALL_ARGUMENTS_OFFSET,
                               nullptr);
  }));
  // A missing result goes into the conversion as well, whose own TypeError for a
  // bad argument takes the place of what the callable raised.
  return calling_python([&] { return PyFloat_AsDouble(result.get()); });
}
