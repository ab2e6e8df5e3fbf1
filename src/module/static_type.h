// SPDX-License-Identifier: MIT
//
// What the five static types of the module have in common.

#pragma once

#include "module/py_ref.h"  // Python.h comes first
// The kinds of members; part of Python.h from 3.12 on only.
#include <structmember.h>

#include <new>
#include <type_traits>

namespace QuenloftModule {

// An object of the interpreter that holds a C++ value. The fields of the value
// stand apart from the head, so that they can be constructed in place without
// touching it.
template <typename Value>
struct ObjectOf {
  // Nothing is allocated that could fail where no exception may pass. (A deque allocates.)
  static_assert(std::is_nothrow_default_constructible_v<Value>, "slots make one");

  PyObject_HEAD Value value;

  static Value& From(PyObject* self) { return reinterpret_cast<ObjectOf*>(self)->value; }

  // A new object through the type's own allocation slot; null when that fails.
  static PyObject* Allocate(PyTypeObject* type) {
    PyObject* self = type->tp_alloc(type, 0);
    if (self != nullptr) new (&From(self)) Value();
    return self;
  }

  // Creation slot: generic creation (arguments are left to the initialisation),
  // then the C++ value, empty.
  static PyObject* New(PyTypeObject* type, PyObject* args, PyObject* kwargs) noexcept {
    PyObject* self = PyType_GenericNew(type, args, kwargs);
    if (self != nullptr) new (&From(self)) Value();
    return self;
  }
};

// A type with the default flags: no garbage collection, no subclassing, no
// instance dictionary. Slots are assigned by name afterwards.
constexpr PyTypeObject StaticType(const char* name, const char* doc, std::size_t basic_size) {
  PyTypeObject type{};
  type.ob_base = PyVarObject{PyObject_HEAD_INIT(nullptr) 0};
  type.tp_name = name;
  type.tp_doc = doc;
  type.tp_basicsize = static_cast<Py_ssize_t>(basic_size);
  type.tp_flags = Py_TPFLAGS_DEFAULT;
  return type;
}

// A read-only member that raises AttributeError while it is empty. `offset` is
// that of a PyRef, which is laid out as the one pointer that it holds.
constexpr PyMemberDef ReadOnlyMember(const char* name, std::size_t offset, const char* doc) {
  return PyMemberDef{name, T_OBJECT_EX, static_cast<Py_ssize_t>(offset), READONLY, doc};
}
static_assert(sizeof(PyRef) == sizeof(PyObject*), "members read a PyRef as a pointer");

}  // namespace QuenloftModule
