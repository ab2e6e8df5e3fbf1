// SPDX-License-Identifier: MIT

#include "solver/search_memory.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>

#include "solver/candidates.h"
#include "solver/constants.h"
#include "solver/create_solver.h"
#include "solver/trial.h"

namespace QuenloftSolver {

namespace {

template <int... I>
constexpr std::array<std::size_t, sizeof...(I)> TrialBytes(std::integer_sequence<int, I...>) {
  return {sizeof(Test<I + 1>) + sizeof(FloodRow<I + 1>)...};
}

// Slot N - 1 is for dimension N.
constexpr auto kTrialBytes = TrialBytes(std::make_integer_sequence<int, kMaxDimension>());

}  // namespace

double LeastMemory(int dimension, double combinations, double functions,
                   const SearchParameters& parameters) {
  const double trials = combinations * (parameters.cross == 0.0 ? 1 : 2 * dimension + 1);
  const double classes = combinations * functions;
  if (classes > std::numeric_limits<std::uint32_t>::max() || trials > kNone) {
    return std::numeric_limits<double>::infinity();
  }
  // Two lists a class; those of the class that a combination starts in have candidates.
  const auto trial_bytes =
      static_cast<double>(kTrialBytes[static_cast<std::size_t>(dimension) - 1]);
  return trials * trial_bytes + classes * Candidates::kClassBytes +
         combinations * 2.0 * CandidateList::LeastBytes();
}

double MemoryLimit() {
  double limit = std::numeric_limits<double>::infinity();
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long page_size = sysconf(_SC_PAGESIZE);
  if (pages > 0 && page_size > 0)
    limit = static_cast<double>(pages) * static_cast<double>(page_size);
  for (const auto resource : {RLIMIT_AS, RLIMIT_DATA}) {
    rlimit allowed;
    if (getrlimit(resource, &allowed) == 0 && allowed.rlim_cur != RLIM_INFINITY) {
      limit = std::min(limit, static_cast<double>(allowed.rlim_cur));
    }
  }
  return limit;
}

}  // namespace QuenloftSolver
