// SPDX-License-Identifier: MIT

#include "module/minimize.h"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <exception>
#include <limits>
#include <map>
#include <stdexcept>
#include <vector>

#include "module/conversions.h"
#include "module/guarded.h"
#include "module/problem_type.h"
#include "module/result_type.h"
#include "module/test_type.h"
#include "solver/create_solver.h"
#include "solver/search_memory.h"

namespace QuenloftModule {
namespace {

using QuenloftSolver::SearchParameters;
using QuenloftSolver::SolverBase;
using QuenloftSolver::TestValue;

constexpr std::size_t kMaxLocals = 10;

// Far more categorical variables than a 32-bit number of combinations allows; a
// length beyond this is a lie, for which no room is to be made.
constexpr Py_ssize_t kMaxCategorical = 65536;
constexpr char kCombinationsMessage[] = "Categorical has too many combinations.";

// When a search ends. A condition counts as set when its bits differ from the
// default's, so the default given by hand sets nothing, and a NaN does.
struct StopConditions {
  std::uint32_t seconds = INT_MAX;
  std::uint32_t tests = INT_MAX;
  double radius = -DBL_MAX;
  double value = -DBL_MAX;

  bool IsAnySet() const {
    static_assert(sizeof(StopConditions) == 24, "compared byte by byte, so without padding");
    static const StopConditions defaults;
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison): bits are meant
    return std::memcmp(this, &defaults, sizeof defaults) != 0;
  }
};

struct Arguments {
  SearchParameters parameters;
  StopConditions stops;
};

// Integers wrap modulo 2^32: the interpreter's unsigned conversion does not check.
Arguments ParseArguments(PyObject* args, PyObject* kwargs) {
  static const char* const keywords[] = {
      "overestimation", "overestimation_local", "local_vs_global", "spread",     "cross", "fit",
      "stop_seconds",   "stop_tests",           "stop_radius",     "stop_value", nullptr};
  Arguments arguments;
  SearchParameters& parameters = arguments.parameters;
  StopConditions& stops = arguments.stops;
  if (!PyArg_ParseTupleAndKeywords(args, kwargs, "|$dddddIIIdd", const_cast<char**>(keywords),
                                   &parameters.overestimation, &parameters.overestimation_local,
                                   &parameters.local_vs_global, &parameters.spread,
                                   &parameters.cross, &parameters.fit, &stops.seconds, &stops.tests,
                                   &stops.radius, &stops.value)) {
    throw PythonError{};
  }
  return arguments;
}

// Marks the problem as being searched, from before the first call into Python
// until the result is built.
class RunningMark {
 public:
  explicit RunningMark(Problem& problem) : problem_(problem) {
    if (problem.is_running) RaiseTypeError("Minimize is already running on this problem.");
    problem.is_running = true;
  }
  ~RunningMark() { problem_.is_running = false; }
  RunningMark(const RunningMark&) = delete;
  RunningMark& operator=(const RunningMark&) = delete;

 private:
  Problem& problem_;
};

// The caller's objects as they were when Minimize was called. The search holds
// them until it ends, whatever the callables do to the problem meanwhile.
struct Inputs {
  explicit Inputs(const Problem& problem)
      : bounds(PyRef::borrow(problem.bounds.get())),
        categorical(PyRef::borrow(problem.categorical.get())),
        constraints(PyRef::borrow(problem.constraints.get())),
        target(PyRef::borrow(problem.target.get())) {
    if (!bounds) RaiseTypeError("Bounds are not set.");
    if (!target) RaiseTypeError("Target is not set.");
  }

  const PyRef bounds;
  const PyRef categorical;
  const PyRef constraints;
  const PyRef target;
};

Py_ssize_t LengthOf(const PyRef& sequence) {
  const Py_ssize_t length = PySequence_Size(sequence.get());
  if (length < 0) throw PythonError{};
  return length;
}

// Item i of the sequence, converted. The reference on the item is kept for ever. A
// failing conversion is not reported here: its value is used, and the error moves
// to `pending`, to fail the first evaluation. An item that cannot be fetched is
// passed to the conversion all the same, which fails in its own words.
template <typename Convert>
auto ConvertItem(const PyRef& sequence, Py_ssize_t i, SavedError& pending, Convert convert) {
  PyObject* const item = KeepForever(PyRef::steal(PySequence_GetItem(sequence.get(), i)));
  const auto value = convert(item);
  pending.Save();
  return value;
}

void ConvertBounds(Problem& problem, const PyRef& bounds, SavedError& pending) {
  const Py_ssize_t length = LengthOf(bounds);
  // Checked on the whole length, before there is room for an absurd one. An odd
  // value, in a list that changed since it was stored, is ignored.
  if (length / 2 < 1 || length / 2 > QuenloftSolver::kMaxDimension) {
    RaiseTypeError("Bounds must hold from 1 to 32 variables.");
  }
  problem.dimension = static_cast<std::uint32_t>(length) / 2;
  problem.bound_values.resize(length);
  for (Py_ssize_t i = 0; i < length; ++i) {
    problem.bound_values[i] = ConvertItem(bounds, i, pending, PyFloat_AsDouble);
  }
}

// The number of values of one categorical variable. A failed conversion (-1, with
// the error set) counts as one value: the search ends at its first evaluation, for
// which the engine need not count 2^32 - 1 values.
std::int32_t AsCategoricalSize(PyObject* item) {
  const std::int32_t size = AsInt32(item);
  if (size < 1 && PyErr_Occurred() == nullptr) RaiseTypeError(kCategoricalItemMessage);
  return std::max(size, 1);
}

void ConvertCategorical(Problem& problem, const PyRef& categorical, SavedError& pending) {
  const Py_ssize_t length = LengthOf(categorical);
  if (length > kMaxCategorical) RaiseTypeError(kCombinationsMessage);
  problem.categorical_values.resize(length, 1);
  for (Py_ssize_t i = 0; i < length; ++i) {
    problem.categorical_values[i] = ConvertItem(categorical, i, pending, AsCategoricalSize);
  }
}

// Raises where the search could not even begin. The first step would fill the memory
// otherwise, and what then ends the process is not an exception.
void CheckMemory(const Problem& problem, Py_ssize_t constraint_count,
                 const SearchParameters& parameters) {
  double combinations = 1.0;
  for (const std::int32_t size : problem.categorical_values) combinations *= size;
  const double functions = static_cast<double>(constraint_count) + 1.0;
  if (QuenloftSolver::LeastMemory(static_cast<int>(problem.dimension), combinations, functions,
                                  parameters) <= QuenloftSolver::MemoryLimit()) {
    return;
  }
  if (combinations > 1.0) RaiseTypeError(kCombinationsMessage);
  throw std::length_error("Too many constraints.");
}

void MakeAdapters(Problem& problem, const Inputs& inputs, Py_ssize_t constraint_count) {
  problem.adapters.clear();
  problem.functions.clear();
  const auto append = [&](PyObject* callable) {
    problem.adapters.emplace_back(callable, problem.dimension,
                                  static_cast<std::uint32_t>(problem.categorical_values.size()));
  };
  for (Py_ssize_t i = 0; i < constraint_count; ++i) {
    // The adapter keeps this reference, for ever.
    append(KeepForever(OrThrow(PySequence_GetItem(inputs.constraints.get(), i))));
    CheckSignalsNowAndThen(i);
  }
  // This one belongs to `inputs`, for as long as the search runs.
  append(inputs.target.get());
  // No adapter moves from here on.
  for (Function& adapter : problem.adapters) problem.functions.push_back(&adapter);
}

void MakeSolver(Problem& problem, const SearchParameters& parameters) {
  problem.solver = QuenloftSolver::CreateSolver(problem.bound_values, problem.categorical_values,
                                                problem.functions, parameters);
  if (!problem.solver) {
    PyErr_Format(PyExc_RuntimeError, "This build has no solver for %u variables.",
                 static_cast<unsigned>(problem.dimension));
    throw PythonError{};
  }
  // Callables in Python look at signals themselves; native ones, and the engine, do not.
  problem.solver->SetInterruptionCheck(CheckSignals);
}

// The calendar clock, in whole seconds.
std::int64_t CalendarSeconds() { return static_cast<std::int64_t>(std::time(nullptr)); }

// The first condition that holds decides; which one does not matter.
bool MustStop(const Problem& problem, const StopConditions& stops, std::int64_t start_seconds) {
  const SolverBase& solver = *problem.solver;
  const SolverBase::TestBase& best = *solver.GetTest(solver.BestPosition());
  if (CalendarSeconds() - start_seconds >= static_cast<std::int64_t>(stops.seconds)) return true;
  if (solver.TestCount() >= stops.tests) return true;
  if (stops.radius > best.Radius()) return true;
  // The index of a trial that reached the target is one less than the number of
  // functions, so this never holds. It is kept so: programs that give a value
  // only, and end the search from a callable, rely on it.
  const TestValue outcome = best.GetValue();
  return stops.value > outcome.value && static_cast<std::int64_t>(outcome.index) ==
                                            static_cast<std::int64_t>(problem.functions.size());
}

// Steps until a stop condition holds or the engine cannot go on: an evaluation
// failed (a Python error, if any, stays set), nothing is left to split, or memory
// is exhausted. All of these end the search quietly, with the trials so far.
void RunSteps(Problem& problem, const StopConditions& stops, std::int64_t start_seconds) {
  try {
    do {
      problem.solver->Step();
      CheckSignals();
    } while (!MustStop(problem, stops, start_seconds));
  } catch (const std::exception&) {
  }
}

// Positions of the trials marked as local minima, ascending by value: the ten
// lowest distinct values, each at the first trial that has it.
std::map<double, std::uint32_t> CollectLocals(const SolverBase& solver) {
  std::map<double, std::uint32_t> locals;
  const std::uint32_t count = solver.TestCount();
  for (std::uint32_t position = 0; position < count; ++position) {
    const SolverBase::TestBase& trial = *solver.GetTest(position);
    if ((trial.flags.load(std::memory_order_relaxed) & SolverBase::TestBase::kLocal) == 0) continue;
    locals.emplace(trial.GetValue().value, position);
    if (locals.size() > kMaxLocals) locals.erase(std::prev(locals.end()));
  }
  return locals;
}

PyRef MakeLocals(const Problem& problem) {
  std::vector<PyRef> tests;
  for (const auto& [value, position] : CollectLocals(*problem.solver)) {
    tests.push_back(MakeTest(problem, position));
  }
  PyRef tuple = OrThrow(PyTuple_New(static_cast<Py_ssize_t>(tests.size())));
  for (std::size_t i = 0; i < tests.size(); ++i) {
    PyTuple_SET_ITEM(tuple.get(), i, tests[i].release());
  }
  return tuple;
}

PyRef MakeResult(const Problem& problem, std::int64_t start_seconds) {
  PyRef object = PyRef::steal(ResultObject::Allocate(&ResultType));
  if (!object) RaiseTypeError("Failed to create result object.");
  Result& result = ResultObject::From(object.get());
  const std::uint32_t count = problem.solver->TestCount();
  // Both as signed 32-bit numbers, the seconds read anew.
  const std::int64_t seconds = CalendarSeconds() - start_seconds;
  result.tests = OrThrow(PyLong_FromLong(static_cast<std::int32_t>(count)));
  result.seconds =
      OrThrow(PyLong_FromLong(static_cast<std::int32_t>(static_cast<std::uint32_t>(seconds))));
  // Without a single trial the minimum stays empty.
  if (count > 0) result.minimum = MakeTest(problem, problem.solver->BestPosition());
  result.locals = MakeLocals(problem);
  return object;
}

PyRef Search(Problem& problem, const Arguments& arguments) {
  const Inputs inputs(problem);
  SavedError pending;
  ConvertBounds(problem, inputs.bounds, pending);
  if (inputs.categorical) ConvertCategorical(problem, inputs.categorical, pending);
  const Py_ssize_t constraint_count = inputs.constraints ? LengthOf(inputs.constraints) : 0;
  CheckMemory(problem, constraint_count, arguments.parameters);
  MakeAdapters(problem, inputs, constraint_count);
  MakeSolver(problem, arguments.parameters);

  const std::int64_t start_seconds = CalendarSeconds();
  pending.Restore();
  RunSteps(problem, arguments.stops, start_seconds);

  // A Python error of the search is set aside while the result is built, and set
  // again when it is returned.
  pending.Save();
  PyRef result = MakeResult(problem, start_seconds);
  pending.Restore();
  return result;
}

}  // namespace

PyObject* Minimize(PyObject* self, PyObject* args, PyObject* kwargs) noexcept {
  return guarded([&] {
    const Arguments arguments = ParseArguments(args, kwargs);
    if (!arguments.stops.IsAnySet()) {
      RaiseTypeError(
          "At least one stop condition must be set. Set stop_seconds, stop_tests, stop_radius, or "
          "stop_value.");
    }
    Problem& problem = ProblemObject::From(self);
    const RunningMark mark(problem);
    return Search(problem, arguments).release();
  });
}

}  // namespace QuenloftModule
