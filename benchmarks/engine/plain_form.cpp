// SPDX-License-Identifier: MIT

#include "plain_form.h"

namespace QuenloftSolver {

template <int N>
SearchOutcome PlainSearch(const SearchCase& problem, std::uint32_t trials) {
  reference::Solver<N> solver(problem.bounds, problem.categories, problem.functions,
                              problem.parameters);
  for (std::uint64_t step = 0; solver.tests.size() < trials && step < StepLimit(trials); ++step) {
    solver.Step();
  }
  SearchOutcome outcome;
  outcome.trials = static_cast<std::uint32_t>(solver.tests.size());
  for (const auto& trial : solver.tests) outcome.sum_of_values += trial.value.value;
  return outcome;
}

template <int N>
double PlainFitError(const std::vector<reference::Observation<N>>& observations,
                     const std::array<double, N>& point, double value) {
  return reference::FitModel<N>(observations, point, value).second;
}

void PlainOffer(reference::List& list, const Candidate& candidate) { list.Offer(candidate, true); }

void PlainUpdate(reference::List& list, const std::vector<std::uint8_t>& is_rebuilt,
                 const std::vector<Candidate>& offers) {
  std::vector<Candidate> kept;
  for (const Candidate& candidate : list.entries) {
    if (!is_rebuilt[candidate.position]) kept.push_back(candidate);
  }
  list.entries = kept;
  for (const Candidate& candidate : offers) list.Offer(candidate, false);
}

template SearchOutcome PlainSearch<2>(const SearchCase&, std::uint32_t);
template SearchOutcome PlainSearch<3>(const SearchCase&, std::uint32_t);
template SearchOutcome PlainSearch<4>(const SearchCase&, std::uint32_t);
template SearchOutcome PlainSearch<8>(const SearchCase&, std::uint32_t);
template SearchOutcome PlainSearch<16>(const SearchCase&, std::uint32_t);
template SearchOutcome PlainSearch<32>(const SearchCase&, std::uint32_t);

template double PlainFitError<2>(const std::vector<reference::Observation<2>>&,
                                 const std::array<double, 2>&, double);
template double PlainFitError<4>(const std::vector<reference::Observation<4>>&,
                                 const std::array<double, 4>&, double);
template double PlainFitError<8>(const std::vector<reference::Observation<8>>&,
                                 const std::array<double, 8>&, double);

}  // namespace QuenloftSolver
