// SPDX-License-Identifier: MIT

#include "search/problem.h"

#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>

#include "search/space.h"
#include "solver/search_memory.h"

namespace QuenloftSearch {

namespace {

// Whole numbers beyond this have no neighbours among doubles.
constexpr std::uint64_t kMaxCount = std::uint64_t{1} << 53;

[[noreturn]] void Refuse(const std::string& message) { throw std::invalid_argument(message); }

void CheckVariable(std::size_t number, const Variable& variable) {
  const std::string name = "variable " + std::to_string(number);
  if (!std::isfinite(variable.lower) || !std::isfinite(variable.upper) ||
      !std::isfinite(variable.upper - variable.lower)) {
    Refuse("the bounds of " + name + " must be finite, and their difference too");
  }
  if (!(variable.lower <= variable.upper)) {
    Refuse("the lower bound of " + name + " must not be above the upper: " +
           std::to_string(variable.lower) + " > " + std::to_string(variable.upper));
  }
  if (variable.is_logarithmic && !(variable.lower > 0.0)) {
    Refuse(name + " is logarithmic: its lower bound must be above 0");
  }
  const auto is_whole = [](double value) { return value == std::floor(value); };
  if (variable.is_integer && !(is_whole(variable.lower) && is_whole(variable.upper))) {
    Refuse("the bounds of " + name + " must be whole numbers");
  }
  if (variable.IsFixed()) return;
  if (variable.is_integer && variable.count == 0) Refuse("the count of " + name + " is missing");
  const double range = variable.upper - variable.lower;
  if (variable.count == 1 || variable.count > kMaxCount ||
      (variable.is_integer && !is_whole(range / static_cast<double>(variable.count - 1)))) {
    Refuse("the count of " + name + " does not fit its bounds");
  }
  if (variable.is_logarithmic && variable.count != 0 &&
      (!variable.is_integer || static_cast<double>(variable.count) != range + 1.0)) {
    Refuse("the logarithmic lattice of " + name + " must hold every whole number");
  }
}

}  // namespace

void Check(const Problem& problem) {
  std::size_t dimension = 0;
  for (std::size_t k = 0; k < problem.variables.size(); ++k) {
    CheckVariable(k, problem.variables[k]);
    if (!problem.variables[k].IsFixed()) ++dimension;
  }
  if (dimension < 1 || dimension > 32) {
    Refuse("there must be from 1 to 32 variables that are not fixed, not " +
           std::to_string(dimension));
  }
  double combinations = 1.0;
  for (const std::int32_t size : problem.category_sizes) {
    if (size < 1) Refuse("a categorical variable must have at least one value");
    combinations *= size;
  }
  // The first step would fill the memory otherwise, and what then ends the process is not
  // an exception.
  if (QuenloftSolver::LeastMemory(static_cast<int>(dimension), combinations, problem.Goal() + 1.0,
                                  problem.parameters) > QuenloftSolver::MemoryLimit()) {
    Refuse("there are too many combinations of categories, or constraints, for the memory");
  }
  if (problem.batch < 1) Refuse("a batch has at least one trial");
  const Space space(problem);
  for (const KnownPoint& known : problem.known) {
    if (!space.Contains(known.x)) Refuse("a known point must be a point of the problem");
    space.CombinationOf(known.categories);
    Check(problem, known.outcome);
  }
  for (const WantedPoint& wanted : problem.wanted) {
    if (!space.Contains(wanted.x)) Refuse("a wanted point must be a point of the problem");
    space.CombinationOf(wanted.categories);
  }
}

void Check(const Problem& problem, const Outcome& outcome) {
  const std::int32_t goal = problem.Goal();
  if (outcome.index < 0 || outcome.index > goal ||
      outcome.constraints.size() != problem.constraint_count) {
    Refuse("an outcome is not of this problem");
  }
  const bool may_fail = problem.has_hidden_constraint && outcome.index < goal;
  if (!may_fail && !std::isfinite(outcome.value)) Refuse("an outcome is not finite");
}

Outcome MakeOutcome(const Problem& problem, std::optional<double> value,
                    const std::vector<double>& constraints, bool has_failed) {
  const std::size_t count = problem.constraint_count;
  if (has_failed && !problem.has_hidden_constraint) {
    Refuse("this search was made for evaluations that do not fail");
  }
  if (constraints.size() > count) {
    Refuse("there are " + std::to_string(constraints.size()) +
           " constraint values; the search has " + std::to_string(count));
  }
  constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();
  Outcome outcome{-1, 0.0, constraints, value.value_or(kUnknown)};
  outcome.constraints.resize(count, kUnknown);
  for (std::size_t k = 0; k < constraints.size(); ++k) {
    if (constraints[k] <= 0.0) continue;  // minus infinity included: a logarithm of a slack of 0
    if (!has_failed && !std::isfinite(constraints[k])) {
      Refuse("constraint " + std::to_string(k) + " is " + std::to_string(constraints[k]) +
             "; say so where an evaluation has failed");
    }
    outcome.index = static_cast<std::int32_t>(k);
    outcome.value = constraints[k];
    return outcome;
  }
  const bool is_objective_reached = constraints.size() == count;
  if (has_failed) {
    if (value && std::isfinite(*value)) Refuse("a failed evaluation has no finite value");
    // What is not known to hold is violated: with all constraints known the hidden one.
    outcome.index = static_cast<std::int32_t>(constraints.size());
    outcome.value = is_objective_reached ? outcome.objective : kUnknown;
    return outcome;
  }
  if (!is_objective_reached) {
    Refuse("the values given of " + std::to_string(constraints.size()) +
           " constraints hold: " + std::to_string(count) + " values are needed");
  }
  if (!value) Refuse("where all constraints hold, the objective's value is needed");
  if (!std::isfinite(*value)) {
    Refuse("the value is " + std::to_string(*value) + "; say so where an evaluation has failed");
  }
  outcome.index = problem.Goal();
  outcome.value = *value;
  return outcome;
}

}  // namespace QuenloftSearch
