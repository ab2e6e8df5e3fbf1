// SPDX-License-Identifier: MIT
//
// The module "Quenloft" and its two entry points.

#include "module/guarded.h"  // Python.h comes first

#include "module/problem_type.h"
#include "module/result_type.h"
#include "module/test_function2_type.h"
#include "module/test_function_type.h"
#include "module/test_type.h"

namespace QuenloftModule {
namespace {

// State size -1: static types, hence one module per process, that cannot be
// initialised anew for a sub-interpreter.
PyModuleDef definition = {PyModuleDef_HEAD_INIT,
                          "Quenloft",
                          "Minimizer.",
                          -1,
                          nullptr,
                          nullptr,
                          nullptr,
                          nullptr,
                          nullptr};

struct NamedType {
  const char* name;
  PyTypeObject* type;
};

PyObject* InitModule() noexcept {
  return guarded([] {
    const NamedType types[] = {
        {"Test", &TestType},
        {"Result", &ResultType},
        {"Problem", &ProblemType},
        {"TestFunction", &TestFunctionType},
        {"TestFunction2", &TestFunction2Type},
    };
    for (const NamedType& entry : types) {
      if (PyType_Ready(entry.type) < 0) throw PythonError{};
    }
    PyRef module = OrThrow(PyModule_Create(&definition));
    for (const NamedType& entry : types) {
      PyRef type = PyRef::borrow(reinterpret_cast<PyObject*>(entry.type));
      // Consumes the reference, but only on success.
      if (PyModule_AddObject(module.get(), entry.name, type.get()) < 0) throw PythonError{};
      type.release();
    }
    return module.release();
  });
}

}  // namespace
}  // namespace QuenloftModule

PyMODINIT_FUNC PyInit_Quenloft() { return QuenloftModule::InitModule(); }

// The name that goes with the file's stem.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
PyMODINIT_FUNC PyInit__Quenloft() { return PyInit_Quenloft(); }
