// SPDX-License-Identifier: MIT

#include "module/test_type.h"

#include <array>
#include <cstddef>

#include "module/conversions.h"
#include "module/guarded.h"
#include "module/problem_type.h"
#include "solver/create_solver.h"

namespace QuenloftModule {
namespace {

using TestObject = ObjectOf<Test>;

void Dealloc(PyObject* self) noexcept {
  Test& test = TestObject::From(self);
  test.index.reset();
  test.value.reset();
  test.coordinate.reset();
  test.categorical.reset();
  test.radius.reset();
  test.~Test();
  Py_TYPE(self)->tp_free(self);
}

PyObject* Text(PyObject* self) noexcept {
  return guarded([&] {
    const Test& test = TestObject::From(self);
    return PyUnicode_FromFormat(
        "Index: %U\nValue: %U\nCoordinate: %U\nCategorical: %U\nRadius: %U\n",
        MemberText(test.index).get(), MemberText(test.value).get(),
        MemberText(test.coordinate).get(), MemberText(test.categorical).get(),
        MemberText(test.radius).get());
  });
}

PyMemberDef members[] = {
    ReadOnlyMember("index", offsetof(TestObject, value.index), "Index."),
    ReadOnlyMember("value", offsetof(TestObject, value.value), "Value."),
    ReadOnlyMember("coordinate", offsetof(TestObject, value.coordinate), "Coordinate."),
    ReadOnlyMember("categorical", offsetof(TestObject, value.categorical), "Categorical."),
    ReadOnlyMember("radius", offsetof(TestObject, value.radius), "Radius."),
    PyMemberDef{},
};

// The categorical values of a combination. Making the tuple can run Python code
// (the garbage collector may start), and with it another search; so it is made
// before the values are decoded into the thread's one buffer.
PyRef CategoricalTuple(const Problem& problem, std::uint32_t combination) {
  const std::size_t count = problem.categorical_values.size();
  PyRef tuple = BlankTuple(static_cast<std::uint32_t>(count));
  const std::int32_t* categories = problem.solver->DecodeCombination(combination);
  for (std::size_t i = 0; i < count; ++i) {
    PyTuple_SetItem(tuple.get(), static_cast<Py_ssize_t>(i),
                    OrThrow(PyLong_FromLong(categories[i])).release());
  }
  return tuple;
}

}  // namespace

PyTypeObject TestType = [] {
  PyTypeObject type = StaticType("Quenloft.Test", "Test", sizeof(TestObject));
  type.tp_dealloc = Dealloc;
  type.tp_str = Text;
  type.tp_members = members;
  return type;
}();

PyRef MakeTest(const Problem& problem, std::uint32_t position) {
  PyRef object = PyRef::steal(TestObject::Allocate(&TestType));
  if (!object) RaiseTypeError("Failed to create result object.");
  Test& test = TestObject::From(object.get());

  const QuenloftSolver::SolverBase::TestBase& trial = *problem.solver->GetTest(position);
  const QuenloftSolver::TestValue outcome = trial.GetValue();
  test.index = OrThrow(PyLong_FromLong(outcome.index));
  test.value = OrThrow(PyFloat_FromDouble(outcome.value));
  test.radius = OrThrow(PyFloat_FromDouble(trial.Radius()));

  std::array<double, QuenloftSolver::kMaxDimension> bounded;
  problem.solver->ToBounds(trial.Coordinate(), bounded.data());
  test.coordinate = FloatTuple(bounded.data(), problem.dimension);

  if (!problem.categorical_values.empty()) {
    test.categorical = CategoricalTuple(problem, trial.CombinationIndex());
  }
  return object;
}

PyRef MemberText(const PyRef& member) { return OrThrow(PyObject_Str(member.get())); }

}  // namespace QuenloftModule
