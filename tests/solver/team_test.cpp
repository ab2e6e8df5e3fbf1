// SPDX-License-Identifier: MIT
//
// When the refresh gets a team of threads: in simulated searches whose steps take as long
// as each case says.

#include "solver/team.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>

namespace QuenloftSolver {
namespace {

constexpr int kSteps = 10000;
constexpr double kWork = 20000.0;  // of each step

struct Outcome {
  double team_share = 0.0;  // of all steps, and of the last tenth
  double late_team_share = 0.0;
  double cost = 0.0;  // to that of one thread for all
};

// `growth` is that of the work from step to step, until it is fifty times what it was.
template <typename TeamCost>  // double(int step), in times of what one thread takes
Outcome Simulate(double work, double evaluation_nanoseconds, TeamCost team_cost,
                 double growth = 1.0) {
  const int threads_before = omp_get_max_threads();
  omp_set_num_threads(2);
  Team team;
  Outcome outcome;
  const double most_work = 50.0 * work;
  for (int step = 0; step < kSteps; ++step) {
    const bool is_team = team.ThreadsFor(evaluation_nanoseconds) > 1;
    // Some steps take far longer, whoever makes them.
    const double cost = (is_team ? team_cost(step) : 1.0) * (step % 100 == 99 ? 8.0 : 1.0);
    team.Record(work, team.IsTiming() ? cost * work : 0.0);
    outcome.team_share += is_team ? 1.0 / kSteps : 0.0;
    if (step >= kSteps * 9 / 10) outcome.late_team_share += is_team ? 10.0 / kSteps : 0.0;
    outcome.cost += cost / (1.07 * kSteps);
    work = std::min(work * growth, most_work);
  }
  omp_set_num_threads(threads_before);
  return outcome;
}

TEST(Team, WorksWhereItPaysAndIsTriedAtABoundedCost) {
  const auto constant = [](double cost) { return [cost](int) { return cost; }; };
  const Outcome faster = Simulate(kWork, 0.0, constant(0.7));
  EXPECT_GT(faster.team_share, 0.965);
  EXPECT_LT(faster.cost, 0.75);

  // Steps that take ever longer have not stalled.
  EXPECT_GT(Simulate(kWork, 0.0, constant(0.9), 1.05).team_share, 0.95);

  const Outcome slower = Simulate(kWork, 0.0, constant(1.3));
  EXPECT_LT(slower.team_share, 0.012);
  EXPECT_GT(slower.team_share, 0.0);
  EXPECT_LT(slower.cost, 1.02);

  // Each step waits for the scheduler: what a trial may take is over at once.
  const Outcome stalled = Simulate(kWork, 0.0, constant(200.0));
  EXPECT_LT(stalled.cost, 1.1);

  const Outcome late = Simulate(kWork, 0.0, [](int step) { return step < kSteps / 2 ? 1.2 : 0.6; });
  EXPECT_GT(late.late_team_share, 0.9);

  const Outcome lost = Simulate(kWork, 0.0, [](int step) { return step < kSteps / 2 ? 0.6 : 5.0; });
  EXPECT_GT(lost.team_share, 0.4);
  EXPECT_LT(lost.late_team_share, 0.05);
  EXPECT_LT(lost.cost, 0.9);
}

TEST(Team, LeavesShortStepsAndSearchesThatWaitToOneThread) {
  const auto faster = [](int) { return 0.1; };
  EXPECT_EQ(Simulate(1000.0, 0.0, faster).team_share, 0.0);
  EXPECT_EQ(Simulate(kWork, 100.0 * kWork, faster).team_share, 0.0);
}

}  // namespace
}  // namespace QuenloftSolver
