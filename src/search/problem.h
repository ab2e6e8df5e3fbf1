// SPDX-License-Identifier: MIT
//
// What is searched, in the caller's terms, and what an evaluation gives.

#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "solver/solver_base.h"

namespace QuenloftSearch {

// What the evaluation of a point gave.
struct Outcome {
  // Number of the first violated constraint, from 0, where a failed evaluation violates
  // the hidden constraint; Problem::Goal() when everything holds.
  std::int32_t index;
  // The violated constraint's value, or the objective's. Not finite where the evaluation
  // failed.
  double value;
  // One for each constraint of the problem; NaN for those not known.
  std::vector<double> constraints;
  // Wherever it was evaluated, infeasible points included; NaN where not.
  double objective = std::numeric_limits<double>::quiet_NaN();
};

// A variable that is a number, its bounds included. Fixed where they are equal.
struct Variable {
  double lower;
  double upper;
  // Searched evenly in the logarithm; 0 < lower.
  bool is_logarithmic = false;
  // Only whole numbers are evaluated: `count` is needed.
  bool is_integer = false;
  // At least 2: only as many values, evenly from `lower` to `upper`, are evaluated. With a
  // logarithm, all whole numbers between them. 0 for a continuous variable.
  std::uint64_t count = 0;

  bool IsFixed() const { return lower == upper; }
};

// A point whose value is known before the search begins.
struct KnownPoint {
  std::vector<double> x;
  std::vector<std::int32_t> categories;
  Outcome outcome;
};

// A point that the caller wants evaluated.
struct WantedPoint {
  std::vector<double> x;
  std::vector<std::int32_t> categories;
};

struct Problem {
  // From 1 to 32 that are not fixed.
  std::vector<Variable> variables;
  // Number of values of each categorical variable, at least 1.
  std::vector<std::int32_t> category_sizes;
  // Combinations times constraints are limited by memory: about 100 kB for each.
  std::uint32_t constraint_count = 0;
  // Whether an evaluation may fail. That it does not is one more constraint, the last.
  bool has_hidden_constraint = false;
  QuenloftSolver::SearchParameters parameters;
  // Whether local models share the search; without them its trials are the engine's.
  bool has_local_models = true;
  // At least 1: between a local trial and the next of its region stand at least batch - 1
  // others, which this many workers can make meanwhile.
  std::uint32_t batch = 1;
  // The first trials, in this order: those known, then those wanted.
  std::vector<KnownPoint> known;
  std::vector<WantedPoint> wanted;

  // The index of a trial at which everything holds.
  std::int32_t Goal() const {
    return static_cast<std::int32_t>(constraint_count) + (has_hidden_constraint ? 1 : 0);
  }
};

// Throws std::invalid_argument that names what is wrong.
void Check(const Problem& problem);

// The same for an outcome of the problem.
void Check(const Problem& problem, const Outcome& outcome);

// The outcome of an evaluation. `constraints` holds the values in the order of the
// constraints, of all or at least up to the first violated one (above 0, or NaN); `value`
// that of the objective, needed where all hold. Behind a violated constraint they may be NaN
// or infinite: nothing depends on them. Where the evaluation has failed, the violated one or
// the objective may be, too; where neither is given, what failed is the first of them that
// is not given.
// Throws std::invalid_argument that names what is missing, too much or not finite.
Outcome MakeOutcome(const Problem& problem, std::optional<double> value,
                    const std::vector<double>& constraints, bool has_failed);

}  // namespace QuenloftSearch
