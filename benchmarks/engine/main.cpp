// SPDX-License-Identifier: MIT
//
// Google Benchmark's program, with two options more: --quick and --large.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>

#include "registration.h"

int main(int argc, char** argv) {
  using QuenloftSolver::Scale;
  Scale scale = Scale::kFull;
  char** end = std::remove_if(argv + 1, argv + argc, [&scale](const char* argument) {
    const bool is_quick = std::strcmp(argument, "--quick") == 0;
    const bool is_large = std::strcmp(argument, "--large") == 0;
    if (is_quick) scale = Scale::kQuick;
    if (is_large) scale = Scale::kLarge;
    return is_quick || is_large;
  });
  argc = static_cast<int>(end - argv);

#if defined(__clang__)
  benchmark::AddCustomContext("compiler", "clang++ " __clang_version__);
#elif defined(__GNUC__)
  benchmark::AddCustomContext("compiler", "g++ " __VERSION__);
#endif
  QuenloftSolver::RegisterSearches(scale);
  if (scale != Scale::kLarge) {
    QuenloftSolver::RegisterGrowth(scale);
    QuenloftSolver::RegisterParts(scale);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
