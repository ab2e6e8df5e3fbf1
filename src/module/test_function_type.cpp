// SPDX-License-Identifier: MIT

#include "module/test_function_type.h"

#include <cstdint>
#include <memory>

#include "module/conversions.h"
#include "module/guarded.h"
#include "module/test_function_object.h"
#include "testfunctions/grishagin_function.h"

namespace QuenloftModule {
namespace {

using QuenloftTestFunctions::GrishaginFunction;

struct TestFunction {
  PyRef argmin;  // tuple of two floats
  std::unique_ptr<GrishaginFunction> function;
};

using TestFunctionObject = ObjectOf<TestFunction>;

// May be repeated: the function is replaced. The tuple before is kept for ever.
// Keywords are ignored, here and in calls.
int Init(PyObject* self, PyObject* args, PyObject*) noexcept {
  return guarded([&] {
    unsigned number = 0;
    if (!PyArg_ParseTuple(args, "I", &number)) throw PythonError{};
    auto function = std::make_unique<GrishaginFunction>(static_cast<std::int32_t>(number));
    const GrishaginFunction::Minimizer minimizer = function->GlobalMinimizer();
    const double point[] = {minimizer.x, minimizer.y};
    PyRef argmin = FloatTuple(point, 2);

    TestFunction& test_function = TestFunctionObject::From(self);
    test_function.function = std::move(function);
    KeepForever(std::exchange(test_function.argmin, std::move(argmin)));
    return 0;
  });
}

PyObject* Call(PyObject* self, PyObject* args, PyObject*) noexcept {
  return guarded([&] {
    double x = 0.0;
    double y = 0.0;
    if (!PyArg_ParseTuple(args, "(dd)", &x, &y)) throw PythonError{};
    // Only now: converting the numbers can run code that initialises anew.
    const GrishaginFunction* function = TestFunctionObject::From(self).function.get();
    if (function == nullptr) RaiseTypeError(kNotInitialisedMessage);
    return PyFloat_FromDouble(function->grishagin_value(x, y));
  });
}

}  // namespace

PyTypeObject TestFunctionType =
    TestFunctionTypeOf<TestFunction>("Quenloft.TestFunction", "Girshagin function.", Init, Call);

}  // namespace QuenloftModule
