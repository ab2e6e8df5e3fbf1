// SPDX-License-Identifier: MIT
//
// Which measurements a run of the program registers, and who registers them.

#pragma once

namespace QuenloftSolver {

enum class Scale {
  kFull,
  kQuick,  // a twentieth of the trials: to see that all of it works
  kLarge,  // one search of a million trials, alone for the sake of its peak memory
};

// searches.cpp: search/N:<n>/trials:<count>/<form>, with the form plain,
// engine/threads:1 or engine/threads:2. One iteration is one search, from the making of
// the solver to its end.
void RegisterSearches(Scale scale);

// searches.cpp: growth/<problem>/trials:<count>, one search in two dimensions each.
void RegisterGrowth(Scale scale);

// parts.cpp: part/<name>/<form>, or part/<name>/N:<n>/<form>.
void RegisterParts(Scale scale);

}  // namespace QuenloftSolver
