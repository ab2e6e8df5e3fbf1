// SPDX-License-Identifier: MIT
//
// Ownership of Python references. No other file of the module counts references
// by hand.

#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <unistd.h>

#include <utility>

namespace QuenloftModule {

// One owned reference, or none.
//
// Threads: every operation needs the interpreter lock. Releasing a reference can
// run Python code, which can reach whatever held it; so the holder is changed
// first and the old reference released last.
class PyRef {
 public:
  PyRef() = default;
  // Takes over a new reference, as most calls of the C API return it.
  static PyRef steal(PyObject* object) { return PyRef(object); }
  // Adds a reference to one that somebody else holds.
  static PyRef borrow(PyObject* object) {
    Py_XINCREF(object);
    return PyRef(object);
  }

  PyRef(PyRef&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  PyRef& operator=(PyRef&& other) noexcept {
    Release(std::exchange(object_, std::exchange(other.object_, nullptr)));
    return *this;
  }
  PyRef(const PyRef&) = delete;
  PyRef& operator=(const PyRef&) = delete;
  ~PyRef() { Release(object_); }

  PyObject* get() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  // Hands the reference to the caller.
  PyObject* release() { return std::exchange(object_, nullptr); }
  void reset() { *this = PyRef(); }

 private:
  explicit PyRef(PyObject* object) : object_(object) {}

  // What a reference is the last one to can run Python code as it goes, in which the
  // interpreter may end the thread; see ThreadEndGuard. (In a function that lets nothing
  // pass, the compiler leaves out the destructor of such a guard. No exception comes here.)
  static void Release(PyObject* object) noexcept {
    try {
      Py_XDECREF(object);
    } catch (...) {
      for (;;) pause();
    }
  }

  PyObject* object_ = nullptr;
};

// Gives up the reference without releasing it: the object lives for ever. The
// module's contract keeps items of the caller's sequences so.
inline PyObject* KeepForever(PyRef reference) { return reference.release(); }

// The error indicator, set aside so that Python can be called with none set
// (calling it with one set is not allowed, and asserts in a debug build).
class SavedError {
 public:
  // Moves the indicator here, in place of what was saved before; a clear
  // indicator leaves that as it is. The last error is the one that counts.
  void Save() {
    if (PyErr_Occurred() == nullptr) return;
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    type_ = PyRef::steal(type);
    value_ = PyRef::steal(value);
    traceback_ = PyRef::steal(traceback);
  }
  // Moves a saved error back to the indicator, in place of what it holds.
  void Restore() {
    if (type_) PyErr_Restore(type_.release(), value_.release(), traceback_.release());
  }

 private:
  PyRef type_;
  PyRef value_;
  PyRef traceback_;
};

}  // namespace QuenloftModule
