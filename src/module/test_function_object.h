// SPDX-License-Identifier: MIT
//
// What the types of the two families of test functions have in common. Their values have the
// fields `argmin`, a PyRef to a tuple of floats, and `function`, a unique_ptr.

#pragma once

#include "module/static_type.h"  // Python.h comes first

#include <cstddef>

namespace QuenloftModule {

// The answer to a call before a successful initialisation.
inline constexpr char kNotInitialisedMessage[] = "Test function is not initialised.";

// The function itself stays allocated, by contract, as the tuples before do.
template <typename TestFunction>
void DeallocTestFunction(PyObject* self) noexcept {
  TestFunction& test_function = ObjectOf<TestFunction>::From(self);
  (void)test_function.function.release();
  test_function.~TestFunction();
  Py_TYPE(self)->tp_free(self);
}

template <typename TestFunction>
PyTypeObject TestFunctionTypeOf(const char* name, const char* doc, initproc init,
                                ternaryfunc call) {
  using Object = ObjectOf<TestFunction>;
  static PyMemberDef members[] = {
      ReadOnlyMember("argmin", offsetof(Object, value.argmin), "argmin"),
      PyMemberDef{},
  };
  PyTypeObject type = StaticType(name, doc, sizeof(Object));
  type.tp_new = Object::New;
  type.tp_init = init;
  type.tp_call = call;
  type.tp_dealloc = DeallocTestFunction<TestFunction>;
  type.tp_members = members;
  return type;
}

}  // namespace QuenloftModule
