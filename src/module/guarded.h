// SPDX-License-Identifier: MIT
//
// The border between C++ and the interpreter: every function that the
// interpreter calls has the body `return guarded([&] { ... });`.

#pragma once

#include "module/py_ref.h"  // Python.h comes first

#include <unistd.h>

#include <exception>
#include <new>
#include <type_traits>

namespace QuenloftModule {

// The interpreter's error indicator is set. Not a std::exception: a handler of
// those must not take it for a failure of the engine.
struct PythonError {};

[[noreturn]] inline void RaiseTypeError(const char* message) {
  PyErr_SetString(PyExc_TypeError, message);
  throw PythonError{};
}

// A new reference from a call that sets the indicator where it returns none.
inline PyRef OrThrow(PyObject* made) {
  if (made == nullptr) throw PythonError{};
  return PyRef::steal(made);
}

// Keeps a thread that is being ended in the call that it was in.
//
// When the interpreter ends, it makes a daemon thread that asks for its lock
// leave through pthread_exit, which unwinds the C++ frames: it would end the
// process at the first `noexcept` or handler that swallows it, and run destructors
// that release references without the lock. The thread stays here instead, without
// the lock, until the process is gone, as CPython does from 3.14 on.
class ThreadEndGuard {
 public:
  ThreadEndGuard() = default;
  ThreadEndGuard(const ThreadEndGuard&) = delete;
  ThreadEndGuard& operator=(const ThreadEndGuard&) = delete;
  // Such an unwinding is none by an exception of C++.
  ~ThreadEndGuard() {
    while (!has_returned_ && std::uncaught_exceptions() == 0) pause();
  }
  void SetReturned() { has_returned_ = true; }

 private:
  bool has_returned_ = false;
};

// Calls what may run Python code for long.
template <typename Call>
auto calling_python(Call&& call) -> decltype(call()) {
  ThreadEndGuard guard;
  const auto result = call();
  guard.SetReturned();
  return result;
}

// Runs the handlers of signals that came in, as Python code does between its instructions.
inline void CheckSignals() {
  if (calling_python([] { return PyErr_CheckSignals(); }) < 0) throw PythonError{};
}

// The same in a loop over what may be very many items, of which this is number `i`.
inline void CheckSignalsNowAndThen(Py_ssize_t i) {
  if (i % 1024 == 0) CheckSignals();
}

// Runs the body; an exception becomes a Python error and the slot's value for
// failure, null or -1.
template <typename Body>
auto guarded(Body&& body) noexcept -> decltype(body()) {
  using Result = decltype(body());
  static_assert(std::is_pointer_v<Result> || std::is_same_v<Result, int>,
                "a slot returns an object or a status");
  try {
    return calling_python(body);
  } catch (const PythonError&) {
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_RuntimeError, error.what());
  } catch (...) {
    PyErr_SetString(PyExc_RuntimeError, "Unknown C++ exception.");
  }
  if constexpr (std::is_pointer_v<Result>) {
    return nullptr;
  } else {
    return -1;
  }
}

}  // namespace QuenloftModule
