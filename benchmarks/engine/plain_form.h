// SPDX-License-Identifier: MIT
//
// The plain form of the search and of its parts (tests/solver), compiled in a unit of
// its own at the level that ratios refer to.

#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "reference_solver.h"
#include "search_cases.h"

namespace QuenloftSolver {

// What tells one search from another: equal forms give equal outcomes, bit for bit.
struct SearchOutcome {
  std::uint32_t trials = 0;
  double sum_of_values = 0.0;  // in the order of the trials
};

// Steps that may leave a search without its trials, as a step that would repeat a
// trial makes none.
constexpr std::uint64_t StepLimit(std::uint32_t trials) { return 4 * std::uint64_t{trials}; }

template <int N>
SearchOutcome PlainSearch(const SearchCase& problem, std::uint32_t trials);

// The error of the fitted model.
template <int N>
double PlainFitError(const std::vector<reference::Observation<N>>& observations,
                     const std::array<double, N>& point, double value);

// In an update of every trial.
void PlainOffer(reference::List& list, const Candidate& candidate);

// Takes the candidates of rebuilt trials, by position, out and offers the new ones one by
// one. In the search the plain form looks each entry up in its trial's table besides.
void PlainUpdate(reference::List& list, const std::vector<std::uint8_t>& is_rebuilt,
                 const std::vector<Candidate>& offers);

}  // namespace QuenloftSolver
