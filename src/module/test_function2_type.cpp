// SPDX-License-Identifier: MIT

#include "module/test_function2_type.h"

#include <cstdint>
#include <memory>
#include <stdexcept>

#include "module/conversions.h"
#include "module/guarded.h"
#include "module/test_function_object.h"
#include "testfunctions/gkls_function.h"

namespace QuenloftModule {
namespace {

using QuenloftTestFunctions::GklsFunction;

constexpr std::uint32_t kMaxCallDimension = 6;

// As parsed by the last initialisation that parsed; one whose construction failed
// changes nothing in an object that holds a function.
struct Parameters {
  std::uint32_t dimension = 0;
  std::uint32_t minima_count = 0;
  double global_distance = 0.0;
  double global_radius = 0.0;
  std::uint32_t function_number = 0;
};

struct TestFunction2 {
  PyRef argmin;  // tuple of `dimension` floats
  std::unique_ptr<GklsFunction> function;
  Parameters parameters;  // of `function`, where there is one
};

using TestFunction2Object = ObjectOf<TestFunction2>;

// Throws PythonError with a TypeError in the generator's words.
std::unique_ptr<GklsFunction> Generate(const Parameters& parameters) {
  try {
    return std::make_unique<GklsFunction>(static_cast<std::int32_t>(parameters.dimension),
                                          parameters.minima_count, parameters.global_distance,
                                          parameters.global_radius, parameters.function_number);
  } catch (const std::runtime_error& error) {
    RaiseTypeError(error.what());
  }
}

// May be repeated: the function is replaced. The tuple before is kept for ever.
// Keywords are ignored, here and in calls.
int Init(PyObject* self, PyObject* args, PyObject*) noexcept {
  return guarded([&] {
    Parameters parameters;
    if (!PyArg_ParseTuple(args, "IIddI", &parameters.dimension, &parameters.minima_count,
                          &parameters.global_distance, &parameters.global_radius,
                          &parameters.function_number)) {
      throw PythonError{};
    }
    TestFunction2& test_function = TestFunction2Object::From(self);
    if (!test_function.function) test_function.parameters = parameters;
    std::unique_ptr<GklsFunction> function = Generate(parameters);
    PyRef argmin = FloatTuple(function->GlobalMinimizer(), parameters.dimension);

    test_function.parameters = parameters;
    test_function.function = std::move(function);
    KeepForever(std::exchange(test_function.argmin, std::move(argmin)));
    return 0;
  });
}

// The point given in a call, for a dimension that calls support.
bool ParsePoint(PyObject* args, std::uint32_t dimension, double* point) {
  static constexpr const char* kFormats[] = {"(dd)", "(ddd)", "(dddd)", "(ddddd)", "(dddddd)"};
  return PyArg_ParseTuple(args, kFormats[dimension - 2], &point[0], &point[1], &point[2], &point[3],
                          &point[4], &point[5]) != 0;
}

PyObject* Call(PyObject* self, PyObject* args, PyObject*) noexcept {
  return guarded([&]() -> PyObject* {
    const TestFunction2& test_function = TestFunction2Object::From(self);
    const std::uint32_t dimension = test_function.parameters.dimension;
    // Null without an error, of which the interpreter makes its SystemError. An
    // object that was never initialised has dimension 0.
    if (dimension < 2 || dimension > kMaxCallDimension) return nullptr;

    double point[kMaxCallDimension];
    if (!ParsePoint(args, dimension, point)) throw PythonError{};
    // Only now: converting the numbers can run code that initialises anew.
    const GklsFunction* function = test_function.function.get();
    if (function == nullptr) RaiseTypeError(kNotInitialisedMessage);
    if (test_function.parameters.dimension != dimension) {
      RaiseTypeError("Test function was initialised anew during the call.");
    }
    return PyFloat_FromDouble(function->GKLS_d_value(point));
  });
}

}  // namespace

PyTypeObject TestFunction2Type =
    TestFunctionTypeOf<TestFunction2>("Quenloft.TestFunction2", "GKLS function.", Init, Call);

}  // namespace QuenloftModule
