// SPDX-License-Identifier: MIT
//
// The adapter between the engine and one Python callable.

#pragma once

#include "module/py_ref.h"  // Python.h comes first

#include <cstdint>

#include "solver/function_interface.h"

// Evaluates a Python callable at the solver's points.
//
// The callable is given the coordinates as a tuple of floats and, where the
// problem has categorical variables, their values as a tuple of integers. Both
// tuples are made once and refilled in place before every call. Whoever keeps one
// of them makes its next refill fail: its old contents stay, and that evaluation
// fails with the interpreter's internal-call error. The other is refilled.
//
// An evaluation fails by answering NaN with the error indicator set; it never
// throws. It fails when the indicator was set before, too, whatever the callable
// answers.
//
// Ownership: the adapter releases nothing, ever. The reference to the callable is
// the maker's affair, and the two tuples outlive the adapter by design; so it can
// be dropped without the interpreter, at the price of two tuples each.
// Cost: one call by the vectorcall protocol. Allocates nothing but the integers and
// those floats whose predecessors somebody has kept.
// Threads: on the thread that holds the interpreter lock. The tuples are shared
// state: two evaluations of one adapter must not overlap.
class Function final : public QuenloftSolver::FunctionInterface {
 public:
  // `callable` must outlive the last evaluation. Throws PythonError when the
  // tuples cannot be made.
  Function(PyObject* callable, std::uint32_t dimension, std::uint32_t categorical_count);

  double operator()(const double* point, const std::int32_t* categorical) override;

 private:
  // False, with the indicator set, when some item of a tuple could not be changed.
  bool Refill(const double* point, const std::int32_t* categorical);
  // The callable's answer; a failure leaves the indicator set.
  double Call();

  PyObject* callable;
  PyObject* coordinates;  // tuple of `dimension` floats
  PyObject* categories;   // tuple of `categorical_count` integers
  std::uint32_t categorical_count;
  std::uint32_t dimension;
};
