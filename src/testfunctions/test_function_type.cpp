// SPDX-License-Identifier: MIT

#include "testfunctions/test_function_type.h"

#include <cstddef>
#include <cstdint>
#include <memory>

#include "module/conversions.h"
#include "module/guarded.h"
#include "module/static_type.h"
#include "testfunctions/grishagin_function.h"

namespace QuenloftModule {
namespace {

using QuenloftTestFunctions::GrishaginFunction;

struct TestFunction {
  PyRef argmin;  // tuple of two floats
  std::unique_ptr<GrishaginFunction> function;
  std::uint32_t function_number = 0;
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
    test_function.function_number = number;
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

// The function itself stays allocated, by contract, as the tuples before do.
void Dealloc(PyObject* self) noexcept {
  TestFunction& test_function = TestFunctionObject::From(self);
  (void)test_function.function.release();
  test_function.~TestFunction();
  Py_TYPE(self)->tp_free(self);
}

PyMemberDef members[] = {
    ReadOnlyMember("argmin", offsetof(TestFunctionObject, value.argmin), "argmin"),
    PyMemberDef{},
};

}  // namespace

PyTypeObject TestFunctionType = [] {
  PyTypeObject type =
      StaticType("Quenloft.TestFunction", "Girshagin function.", sizeof(TestFunctionObject));
  type.tp_new = TestFunctionObject::New;
  type.tp_init = Init;
  type.tp_call = Call;
  type.tp_dealloc = Dealloc;
  type.tp_members = members;
  return type;
}();

}  // namespace QuenloftModule
