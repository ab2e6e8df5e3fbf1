// SPDX-License-Identifier: MIT

#include "module/problem_type.h"

#include <array>
#include <cstddef>
#include <limits>
#include <new>
#include <utility>
#include <vector>

#include "module/conversions.h"
#include "module/guarded.h"
#include "module/minimize.h"

namespace QuenloftModule {
namespace {

constexpr char kBoundsMessage[] = "Bounds must be even size a sequence of floats.";
constexpr char kCategoricalMessage[] = "Categorical must be a sequence of integers > 1.";
constexpr char kConstraintsMessage[] = "Constraints must be a sequence of callables.";
constexpr char kTargetMessage[] = "Target must be a callable.";

// Raises TypeError with `message` unless every item passes `is_valid`. A reference
// on every fetched item is kept for ever. An item that cannot be fetched arrives
// as null; the error of fetching it gives way to the message.
template <typename IsValid>
void CheckItems(PyObject* sequence, Py_ssize_t length, const char* message, IsValid is_valid) {
  // Positions have 32 bits; a negative length is an error of the length call.
  if (length < 0 || length > std::numeric_limits<std::uint32_t>::max()) RaiseTypeError(message);
  for (Py_ssize_t i = 0; i < length; ++i) {
    if (!is_valid(KeepForever(PyRef::steal(PySequence_GetItem(sequence, i))))) {
      RaiseTypeError(message);
    }
    CheckSignalsNowAndThen(i);
  }
}

void CheckBounds(PyObject* bounds) {
  if (bounds == nullptr || !PySequence_Check(bounds)) RaiseTypeError(kBoundsMessage);
  const Py_ssize_t length = PySequence_Size(bounds);
  if (length % 2 != 0) RaiseTypeError(kBoundsMessage);
  CheckItems(bounds, length, kBoundsMessage,
             [](PyObject* item) { return PyNumber_Check(item) != 0; });
}

// The two answers differ in a word, and stay so: programs match them.
void CheckCategorical(PyObject* categorical) {
  if (!PySequence_Check(categorical)) RaiseTypeError(kCategoricalMessage);
  CheckItems(categorical, PySequence_Size(categorical), kCategoricalItemMessage,
             [](PyObject* item) { return PyNumber_Check(item) != 0 && AsInt32(item) > 1; });
}

void CheckConstraints(PyObject* constraints) {
  if (!PySequence_Check(constraints)) RaiseTypeError(kConstraintsMessage);
  CheckItems(constraints, PySequence_Size(constraints), kConstraintsMessage,
             [](PyObject* item) { return item != nullptr && PyCallable_Check(item) != 0; });
}

// Stores a callable. Anything else leaves the old target in place and the error
// pending, but is not reported: the caller returns success with the indicator
// set, which the interpreter finds later.
void StoreTarget(Problem& problem, PyObject* target) {
  if (target != nullptr && PyCallable_Check(target) != 0) {
    problem.target = PyRef::borrow(target);
  } else {
    PyErr_SetString(PyExc_TypeError, kTargetMessage);
  }
}

// Each argument is checked and stored before the next one is looked at, so a
// failure leaves those before it in place.
int Init(PyObject* self, PyObject* args, PyObject* kwargs) noexcept {
  return guarded([&] {
    static const char* const keywords[] = {"bounds", "categorical", "constraints", "target",
                                           nullptr};
    PyObject* given[4] = {};
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, "|$OOOO", const_cast<char**>(keywords),
                                     &given[0], &given[1], &given[2], &given[3])) {
      return -1;
    }
    // The checks run Python code: hold what they look at.
    PyRef bounds = PyRef::borrow(given[0]);
    PyRef categorical = PyRef::borrow(given[1]);
    PyRef constraints = PyRef::borrow(given[2]);
    const PyRef target = PyRef::borrow(given[3]);
    Problem& problem = ProblemObject::From(self);

    CheckBounds(bounds.get());
    problem.bounds = std::move(bounds);
    if (categorical) CheckCategorical(categorical.get());
    problem.categorical = std::move(categorical);
    if (constraints) CheckConstraints(constraints.get());
    problem.constraints = std::move(constraints);
    StoreTarget(problem, target.get());
    return 0;
  });
}

// The references of a problem that goes, and how many of them are released.
struct Going {
  std::array<PyRef, 4> references;  // bounds, categorical, constraints, target
  std::size_t released = 0;
};

// Problems whose targets lead to other problems form chains of any length, and
// the interpreter limits the depth of deallocations for objects with garbage
// collection only. So a problem that goes while another one is going leaves its
// references to that one, which releases them next: in the order of nested calls.
void ReleaseWithoutNesting(Going going) {
  thread_local std::vector<Going>* waiting = nullptr;
  if (waiting != nullptr) {
    try {
      waiting->push_back(std::move(going));
    } catch (const std::bad_alloc&) {
      for (PyRef& reference : going.references) reference.reset();
    }
    return;
  }
  std::vector<Going> led_to;
  waiting = &led_to;
  for (PyRef& reference : going.references) {
    reference.reset();
    while (!led_to.empty()) {
      Going& last = led_to.back();
      PyRef next = std::move(last.references[last.released]);
      if (++last.released == last.references.size()) led_to.pop_back();
      next.reset();
    }
  }
  waiting = nullptr;
}

void Dealloc(PyObject* self) noexcept {
  Problem& problem = ProblemObject::From(self);
  Going going{{std::move(problem.bounds), std::move(problem.categorical),
               std::move(problem.constraints), std::move(problem.target)}};
  // The solver first, then what it points at: against the order of declaration.
  problem.~Problem();
  ReleaseWithoutNesting(std::move(going));
  Py_TYPE(self)->tp_free(self);
}

// An empty field is returned as null without an error, of which the interpreter
// makes its SystemError.
template <PyRef Problem::*field>
PyObject* Get(PyObject* self, void*) noexcept {
  return PyRef::borrow((ProblemObject::From(self).*field).get()).release();
}

int SetBounds(PyObject* self, PyObject* bounds, void*) noexcept {
  return guarded([&] {
    PyRef reference = PyRef::borrow(bounds);
    CheckBounds(bounds);
    ProblemObject::From(self).bounds = std::move(reference);
    return 0;
  });
}

// The entry for writing is the one for reading, and stays so: the constraints do
// not change, one more reference to them is taken, and the low half of its
// address is the status. So an assignment fails without an error, of which the
// interpreter makes its SystemError, or passes without effect when there are no
// constraints.
int SetConstraints(PyObject* self, PyObject*, void* closure) noexcept {
  PyObject* constraints = Get<&Problem::constraints>(self, closure);
  return static_cast<int>(reinterpret_cast<std::uintptr_t>(constraints));
}

int SetTarget(PyObject* self, PyObject* target, void*) noexcept {
  return guarded([&] {
    StoreTarget(ProblemObject::From(self), target);
    return 0;
  });
}

// There is no attribute for `categorical`: it is given to the initialisation only.
PyGetSetDef attributes[] = {
    {"bounds", Get<&Problem::bounds>, SetBounds, "Bounds.", nullptr},
    {"constraints", Get<&Problem::constraints>, SetConstraints, "Constraints.", nullptr},
    {"target", Get<&Problem::target>, SetTarget, "Target.", nullptr},
    {},
};

// The table of methods has one type for all calling conventions; this is the
// module's only cast of a function, made through the type that stands for any.
PyCFunction WithKeywords(PyCFunctionWithKeywords function) {
  return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function));
}

PyMethodDef methods[] = {
    {"Minimize", WithKeywords(Minimize), METH_VARARGS | METH_KEYWORDS, "Minimize the problem."},
    {},
};

}  // namespace

PyTypeObject ProblemType = [] {
  PyTypeObject type = StaticType("Quenloft.Problem", "Problem.", sizeof(ProblemObject));
  type.tp_new = ProblemObject::New;
  type.tp_init = Init;
  type.tp_dealloc = Dealloc;
  type.tp_methods = methods;
  type.tp_getset = attributes;
  return type;
}();

}  // namespace QuenloftModule
