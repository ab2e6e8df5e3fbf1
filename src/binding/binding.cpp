// SPDX-License-Identifier: MIT
//
// The search for the Python package: positions of choices instead of choices, and no
// defaults. What users see is python/Quenloft/_search.py.
//
// Conventions: conversions first, then one operation of the search without the
// interpreter's lock where that may take long, then conversions back. Exceptions become
// ValueError (std::invalid_argument), MemoryError and RuntimeError.

#include <nanobind/nanobind.h>
#include <nanobind/ndarray.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/tuple.h>
#include <nanobind/stl/unique_ptr.h>
#include <nanobind/stl/vector.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

#include "search/search.h"

namespace nb = nanobind;

namespace QuenloftBinding {
namespace {

using QuenloftSearch::ColumnView;
using QuenloftSearch::OpenPoint;
using QuenloftSearch::Outcome;
using QuenloftSearch::Point;
using QuenloftSearch::Problem;
using QuenloftSearch::Search;
using QuenloftSearch::Trials;

// Between two looks at signals.
constexpr std::size_t kTrialsAtOnce = 256;
constexpr std::size_t kPointsAtOnce = 64;
// A look-ahead further than this is guesswork.
constexpr std::size_t kMostPoints = 1000;

template <typename Values, typename Convert>
nb::tuple MakeTuple(const Values& values, Convert convert) {
  nb::object tuple = nb::steal(PyTuple_New(static_cast<Py_ssize_t>(values.size())));
  if (!tuple) nb::raise_python_error();
  for (std::size_t k = 0; k < values.size(); ++k) {
    PyObject* item = convert(k, values[k]);
    if (item == nullptr) nb::raise_python_error();
    PyTuple_SET_ITEM(tuple.ptr(), static_cast<Py_ssize_t>(k), item);
  }
  return nb::borrow<nb::tuple>(tuple);
}

nb::tuple FromNumbers(const std::vector<double>& values) {
  return MakeTuple(values, [](std::size_t, double value) { return PyFloat_FromDouble(value); });
}

// (x, positions of the choices, id): whole numbers as int.
nb::tuple FromPoint(const Search& search, const Point& point) {
  const Problem& problem = search.GetProblem();
  const nb::tuple x = MakeTuple(point.x, [&](std::size_t k, double value) {
    return problem.variables[k].is_integer ? PyLong_FromDouble(value) : PyFloat_FromDouble(value);
  });
  const nb::tuple categories = MakeTuple(
      point.categories, [](std::size_t, std::int32_t value) { return PyLong_FromLong(value); });
  return nb::make_tuple(x, categories, point.id);
}

nb::list FromPoints(const Search& search, const std::vector<Point>& points) {
  nb::list list;
  for (const Point& point : points) list.append(FromPoint(search, point));
  return list;
}

nb::object FromOutcome(const std::optional<Outcome>& outcome) {
  if (!outcome) return nb::none();
  return nb::make_tuple(outcome->index, outcome->value, FromNumbers(outcome->constraints),
                        outcome->objective);
}

// A point as FromPoint gives it; its positions are not looked at.
Point ToPoint(std::uint64_t id, const nb::tuple& x) {
  Point point{id, {}, {}};
  for (const nb::handle coordinate : x) {
    point.x.push_back(PyFloat_AsDouble(coordinate.ptr()));
    if (PyErr_Occurred() != nullptr) nb::raise_python_error();
  }
  return point;
}

Outcome ToOutcome(const nb::tuple& outcome) {
  return {nb::cast<std::int32_t>(outcome[0]), nb::cast<double>(outcome[1]),
          nb::cast<std::vector<double>>(outcome[2]), nb::cast<double>(outcome[3])};
}

// A read-only memoryview of the column, of one dimension where its width is one by nature.
template <typename T>
nb::object FromColumn(const ColumnView<T>& view, bool is_matrix) {
  auto* holder = new std::shared_ptr<const T[]>(view.data);
  const nb::capsule owner(
      holder, [](void* p) noexcept { delete static_cast<std::shared_ptr<const T[]>*>(p); });
  const std::size_t shape[] = {view.rows, view.width};
  return nb::ndarray<nb::memview, const T>(view.data.get(), is_matrix ? 2 : 1, shape, owner).cast();
}

std::size_t AdvanceInParts(Search& search, std::size_t limit) {
  std::size_t made = 0;
  while (made < limit) {
    const std::size_t part = std::min(limit - made, kTrialsAtOnce);
    std::size_t now;
    {
      const nb::gil_scoped_release released;
      now = search.Advance(part);
    }
    made += now;
    if (now < part) break;
    if (PyErr_CheckSignals() < 0) nb::raise_python_error();
  }
  return made;
}

std::size_t Tell(Search& search, std::uint64_t id, const nb::tuple& x, std::optional<double> value,
                 const std::vector<double>& constraints, bool has_failed, bool advances) {
  Outcome outcome =
      QuenloftSearch::MakeOutcome(search.GetProblem(), value, constraints, has_failed);
  search.Tell(ToPoint(id, x), std::move(outcome));
  return advances ? AdvanceInParts(search, std::numeric_limits<std::size_t>::max()) : 0;
}

// Looks at signals between parts, and hands nothing out where one ends the call. Each part
// looks ahead once more through those before it: they double, so that it costs twice as much
// as at once.
nb::list Ask(Search& search, std::size_t count) {
  AdvanceInParts(search, std::numeric_limits<std::size_t>::max());
  std::vector<Point> points;
  count = std::min(count, kMostPoints);
  while (points.size() < count) {
    const std::size_t part =
        std::min(count - points.size(), std::max(points.size(), kPointsAtOnce));
    std::vector<Point> more;
    {
      const nb::gil_scoped_release released;
      more = search.Ask(part);
    }
    points.insert(points.end(), more.begin(), more.end());
    if (more.size() < part) break;
    if (PyErr_CheckSignals() < 0) {
      for (const Point& point : points) search.Retract(point);
      nb::raise_python_error();
    }
  }
  return FromPoints(search, points);
}

// lower, upper, is_logarithmic, is_integer, count
using VariableTuple = std::tuple<double, double, bool, bool, std::uint64_t>;
// overestimation, overestimation_local, local_vs_global, spread, cross
using ParametersTuple = std::tuple<double, double, double, double, double>;
// x, positions of the choices, value, constraints, whether it failed
using KnownTuple = std::tuple<std::vector<double>, std::vector<std::int32_t>, std::optional<double>,
                              std::vector<double>, bool>;
// x, positions of the choices
using WantedTuple = std::tuple<std::vector<double>, std::vector<std::int32_t>>;

Problem ToProblem(const std::vector<VariableTuple>& variables,
                  std::vector<std::int32_t> category_sizes, std::uint32_t constraint_count,
                  bool has_hidden_constraint, bool has_local_models, std::uint32_t batch,
                  const ParametersTuple& parameters, const std::vector<KnownTuple>& known,
                  const std::vector<WantedTuple>& wanted) {
  Problem problem;
  for (const auto& [lower, upper, is_logarithmic, is_integer, count] : variables) {
    problem.variables.push_back({lower, upper, is_logarithmic, is_integer, count});
  }
  problem.category_sizes = std::move(category_sizes);
  problem.constraint_count = constraint_count;
  problem.has_hidden_constraint = has_hidden_constraint;
  problem.has_local_models = has_local_models;
  problem.batch = batch;
  auto& [overestimation, overestimation_local, local_vs_global, spread, cross, fit, reserve] =
      problem.parameters;
  std::tie(overestimation, overestimation_local, local_vs_global, spread, cross) = parameters;
  for (const auto& [x, categories, value, constraints, has_failed] : known) {
    Outcome outcome = QuenloftSearch::MakeOutcome(problem, value, constraints, has_failed);
    problem.known.push_back({x, categories, std::move(outcome)});
  }
  for (const auto& [x, categories] : wanted) problem.wanted.push_back({x, categories});
  return problem;
}

nb::list FromOpenPoints(const Search& search) {
  nb::list list;
  for (const OpenPoint& open : search.OpenPoints()) {
    list.append(
        nb::make_tuple(FromPoint(search, open.point), open.is_pending, FromOutcome(open.outcome)));
  }
  return list;
}

// The columns of the trials by name.
nb::dict FromTrials(const Search& search) {
  const Trials trials = search.GetTrials();
  nb::dict columns;
  columns["x"] = FromColumn(trials.x, true);
  columns["category"] = FromColumn(trials.categories, true);
  columns["index"] = FromColumn(trials.index, false);
  columns["value"] = FromColumn(trials.value, false);
  columns["constraints"] = FromColumn(trials.constraints, true);
  columns["objective"] = FromColumn(trials.objective, false);
  columns["id"] = FromColumn(trials.id, false);
  columns["kind"] = FromColumn(trials.kind, false);
  return columns;
}

// (id, index, value) of the newest trial.
nb::object Last(const Search& search) {
  const Trials trials = search.GetTrials();
  if (trials.value.rows == 0) return nb::none();
  const std::size_t last = trials.value.rows - 1;
  return nb::make_tuple(trials.id[last], trials.index[last], trials.value[last]);
}

// Everything but the problem, for pickles: the number of ids, the trials (point, outcome), and
// the open points. A limit of None is none.
nb::tuple Save(const Search& search) {
  const Search::State state = search.Save();
  nb::list trials;
  for (const auto& [point, outcome] : state.trials) {
    trials.append(nb::make_tuple(FromPoint(search, point), FromOutcome(outcome)));
  }
  nb::list open;
  for (const OpenPoint& point : state.open) {
    open.append(nb::make_tuple(FromPoint(search, point.point), point.is_pending,
                               FromOutcome(point.outcome)));
  }
  return nb::make_tuple(state.next_id, search.Limit(), trials, open);
}

Point ToWholePoint(const nb::handle& item) {
  const auto point = nb::cast<nb::tuple>(item);
  Point whole = ToPoint(nb::cast<std::uint64_t>(point[2]), nb::cast<nb::tuple>(point[0]));
  whole.categories = nb::cast<std::vector<std::int32_t>>(point[1]);
  return whole;
}

void Restore(Search& search, const nb::tuple& saved) {
  Search::State state;
  state.next_id = nb::cast<std::uint64_t>(saved[0]);
  for (const nb::handle item : nb::cast<nb::list>(saved[2])) {
    const auto trial = nb::cast<nb::tuple>(item);
    state.trials.emplace_back(ToWholePoint(trial[0]), ToOutcome(nb::cast<nb::tuple>(trial[1])));
  }
  for (const nb::handle item : nb::cast<nb::list>(saved[3])) {
    const auto open = nb::cast<nb::tuple>(item);
    std::optional<Outcome> outcome;
    if (!open[2].is_none()) outcome = ToOutcome(nb::cast<nb::tuple>(open[2]));
    state.open.push_back({ToWholePoint(open[0]), nb::cast<bool>(open[1]), std::move(outcome)});
  }
  const auto limit = nb::cast<std::uint64_t>(saved[1]);
  const nb::gil_scoped_release released;
  search.Restore(state);
  search.SetLimit(limit);
}

}  // namespace

NB_MODULE(_binding, m) {  // NOLINT(performance-unnecessary-value-param)
  m.attr("NO_LIMIT") = Search::kNoLimit;
  nb::class_<Search>(m, "Search")
      .def(
          "__init__",
          [](Search* self, const std::vector<VariableTuple>& variables,
             std::vector<std::int32_t> category_sizes, std::uint32_t constraint_count,
             bool has_hidden_constraint, bool has_local_models, std::uint32_t batch,
             const ParametersTuple& parameters, const std::vector<KnownTuple>& known,
             const std::vector<WantedTuple>& wanted) {
            new (self) Search(ToProblem(variables, std::move(category_sizes), constraint_count,
                                        has_hidden_constraint, has_local_models, batch, parameters,
                                        known, wanted));
          },
          nb::arg("variables"), nb::arg("category_sizes"), nb::arg("constraint_count"),
          nb::arg("has_hidden_constraint"), nb::arg("has_local_models"), nb::arg("batch"),
          nb::arg("parameters"), nb::arg("known"), nb::arg("wanted"))
      .def("ask", &Ask, nb::arg("count"))
      .def("tell", &Tell, nb::arg("id"), nb::arg("x"), nb::arg("value").none(),
           nb::arg("constraints"), nb::arg("has_failed"), nb::arg("advances"))
      .def(
          "supply",
          [](Search& search, std::vector<double> x, const std::vector<std::int32_t>& categories,
             std::optional<double> value, const std::vector<double>& constraints, bool has_failed) {
            Outcome outcome =
                QuenloftSearch::MakeOutcome(search.GetProblem(), value, constraints, has_failed);
            return FromPoint(search, search.Supply(std::move(x), categories, std::move(outcome)));
          },
          nb::arg("x"), nb::arg("categories"), nb::arg("value").none(), nb::arg("constraints"),
          nb::arg("has_failed"))
      .def(
          "find",
          [](const Search& search, const std::vector<double>& x,
             const std::vector<std::int32_t>& categories) {
            return FromPoint(search, search.Find(x, categories));
          },
          nb::arg("x"), nb::arg("categories"))
      .def(
          "retract",
          [](Search& search, std::uint64_t id, const nb::tuple& x) {
            search.Retract(ToPoint(id, x));
          },
          nb::arg("id"), nb::arg("x"))
      .def("advance", &AdvanceInParts, nb::arg("limit"))
      .def_prop_rw("limit", &Search::Limit, &Search::SetLimit)
      .def("__len__", &Search::TrialCount)
      .def("trials", &FromTrials)
      .def("last", &Last)
      .def("best", &Search::Best)
      .def("locals", &Search::Locals, nb::arg("most"))
      .def("radius", &Search::Radius, nb::arg("position"))
      .def("best_radius", &Search::BestRadius)
      .def("is_exhausted", &Search::IsExhausted)
      .def("is_finished", &Search::IsFinished)
      .def("open", &FromOpenPoints)
      .def("needed", [](const Search& search) { return FromPoints(search, search.Needed()); })
      .def("copy", &Search::Copy, nb::call_guard<nb::gil_scoped_release>())
      .def("save", &Save)
      .def("restore", &Restore, nb::arg("saved"));
}

}  // namespace QuenloftBinding
