// SPDX-License-Identifier: MIT

#include "module/result_type.h"

#include <cstddef>

#include "module/guarded.h"
#include "module/test_type.h"

namespace QuenloftModule {
namespace {

void Dealloc(PyObject* self) noexcept {
  Result& result = ResultObject::From(self);
  result.seconds.reset();
  result.tests.reset();
  result.minimum.reset();
  result.locals.reset();
  result.~Result();
  Py_TYPE(self)->tp_free(self);
}

// The local minima are not part of the text.
PyObject* Text(PyObject* self) noexcept {
  return guarded([&] {
    const Result& result = ResultObject::From(self);
    return PyUnicode_FromFormat("Seconds: %U\nTests: %U\n\nGLOBAL MINIMUM:\n%U\n",
                                MemberText(result.seconds).get(), MemberText(result.tests).get(),
                                MemberText(result.minimum).get());
  });
}

PyMemberDef members[] = {
    ReadOnlyMember("seconds", offsetof(ResultObject, value.seconds), "Seconds spent."),
    ReadOnlyMember("tests", offsetof(ResultObject, value.tests), "Number of tests performed."),
    ReadOnlyMember("minimum", offsetof(ResultObject, value.minimum), "Global minimum."),
    ReadOnlyMember("locals", offsetof(ResultObject, value.locals), "Local minimums."),
    PyMemberDef{},
};

}  // namespace

PyTypeObject ResultType = [] {
  PyTypeObject type = StaticType("Quenloft.Result", "Search result", sizeof(ResultObject));
  type.tp_dealloc = Dealloc;
  type.tp_str = Text;
  type.tp_members = members;
  return type;
}();

}  // namespace QuenloftModule
