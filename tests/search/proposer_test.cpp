// SPDX-License-Identifier: MIT
//
// The serial search with local models: what it reaches, and that it can be taken back and
// copied.

#include "search/proposer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

#include "solver/errors.h"

namespace QuenloftSearch {
namespace {

using Function = std::function<double(const std::vector<double>&)>;

Definition Box(std::size_t dimension, double lower, double upper) {
  Definition definition;
  definition.local_models = true;
  definition.parameters.overestimation = 2.5;
  for (std::size_t k = 0; k < dimension; ++k) {
    definition.bounds.push_back(lower);
    definition.bounds.push_back(upper);
  }
  return definition;
}

// The next point in the caller's box.
std::vector<double> Ask(Proposer& proposer) {
  std::vector<double> point(proposer.Solver().Dimension());
  for (;;) {
    const auto proposal = proposer.Propose();
    if (!proposal) continue;
    proposer.Solver().ToBounds(proposal->point, point.data());
    return point;
  }
}

std::vector<std::vector<double>> Drive(Proposer& proposer, const Function& function, int trials) {
  std::vector<std::vector<double>> points;
  for (int i = 0; i < trials; ++i) {
    points.push_back(Ask(proposer));
    proposer.Accept({0, function(points.back())});
  }
  return points;
}

double Rosenbrock(const std::vector<double>& x) {
  double sum = 0.0;
  for (std::size_t k = 0; k + 1 < x.size(); ++k) {
    sum += 100.0 * std::pow(x[k + 1] - x[k] * x[k], 2) + std::pow(1.0 - x[k], 2);
  }
  return sum;
}

double Camel(const std::vector<double>& x) {
  const double a = x[0] * x[0];
  const double b = x[1] * x[1];
  return (4.0 - 2.1 * a + a * a / 3.0) * a + x[0] * x[1] + (-4.0 + 4.0 * b) * b;
}

double Bowl(const std::vector<double>& x) {
  double sum = 0.0;
  for (std::size_t k = 0; k < x.size(); ++k) {
    sum += (1.0 + static_cast<double>(k)) * std::pow(x[k] - 0.3, 2);
  }
  return sum;
}

double Constant(const std::vector<double>&) { return 1.0; }

struct Accuracy {
  const char* name;
  Function function;
  std::size_t dimension;
  double lower, upper;
  int trials;
  double value;
};

class ProposerReaches : public testing::TestWithParam<Accuracy> {};

TEST_P(ProposerReaches, TheMinimumInFewTrials) {
  const Accuracy& goal = GetParam();
  Proposer proposer(Box(goal.dimension, goal.lower, goal.upper));
  Drive(proposer, goal.function, goal.trials);
  EXPECT_LE(proposer.Trials().Value(static_cast<std::uint32_t>(proposer.Best())).value, goal.value);
}

INSTANTIATE_TEST_SUITE_P(Smooth, ProposerReaches,
                         testing::Values(Accuracy{"Bowl5", Bowl, 5, -1.0, 1.7, 60, 1e-8},
                                         Accuracy{"Rosenbrock2", Rosenbrock, 2, -2.1, 1.9, 250,
                                                  1e-6},
                                         Accuracy{"Camel", Camel, 2, -2.1, 1.8, 80, -1.0316274}),
                         [](const auto& info) { return info.param.name; });

TEST(Proposer, GoesOnAfterARollbackAndInACopyAsIfNothingHadBeen) {
  for (const Function& function : {Function(Rosenbrock), Function(Camel), Function(Constant)}) {
    Proposer proposer(Box(2, -2.1, 1.9));
    Proposer straight(Box(2, -2.1, 1.9));
    const auto expected = Drive(straight, function, 120);
    std::vector<std::vector<double>> points;
    for (int i = 0; i < 120; ++i) {
      if (i % 3 == 0) Ask(proposer);  // a proposal waits at the checkpoint
      proposer.Checkpoint();
      Drive(proposer, Bowl, i % 7);
      proposer.Rollback();
      points.push_back(Ask(proposer));
      proposer.Accept({0, function(points.back())});
    }
    EXPECT_EQ(points, expected);
    const auto copy = proposer.Copy();
    EXPECT_EQ(Drive(*copy, function, 40), Drive(straight, function, 40));
  }
}

// A disc that touches the bowl's slope, told together or up to the first violated constraint,
// from a start where nothing is feasible.
TEST(Proposer, FindsTheMinimumOnTheEdgeOfTheFeasibleSet) {
  for (const bool is_ordered : {false, true}) {
    Definition definition = Box(2, 0.0, 1.0);
    definition.function_count = 3;
    Proposer proposer(definition);
    for (int i = 0; i < 100; ++i) {
      const std::vector<double> x = Ask(proposer);
      double functions[] = {std::pow(x[0] - 0.8, 2) + std::pow(x[1] - 0.8, 2) - 0.0225,
                            x[0] + x[1] - 1.55, Bowl(x)};
      const int index = functions[0] > 0.0 ? 0 : functions[1] > 0.0 ? 1 : 2;
      if (is_ordered) std::fill(functions + index + 1, functions + 3, std::nan(""));
      proposer.Accept({index, functions[index]}, nullptr, functions);
    }
    // The minimum of the bowl on the disc, by brute force along its edge.
    double least = 1e300;
    for (int i = 0; i < 100000; ++i) {
      const double angle = 6.283185307179586 * i / 100000.0;
      const double a = 0.8 + 0.15 * std::cos(angle);
      const double b = 0.8 + 0.15 * std::sin(angle);
      if (a + b <= 1.55) least = std::min(least, Bowl({a, b}));
    }
    const auto& best = proposer.Trials().Value(static_cast<std::uint32_t>(proposer.Best()));
    EXPECT_EQ(best.index, 2);
    EXPECT_NEAR(best.value, least, 1e-6);
  }
}

double Rastrigin(const std::vector<double>& x) {
  double sum = 20.0;
  for (const double v : x) sum += v * v - 10.0 * std::cos(6.283185307179586 * v);
  return sum;
}

// Local minima other than the best one are refined too, and listed before all others.
TEST(Proposer, ListsTheLowestMinimaRefined) {
  struct Case {
    Function function;
    std::vector<double> bounds;
    int trials;
    std::vector<std::vector<double>> minima;
  };
  const std::vector<std::vector<double>> camel = {{0.0898420131, -0.7126564030},
                                                  {-0.0898420131, 0.7126564030}};
  constexpr double kNext = 0.9949586377;
  const std::vector<std::vector<double>> rastrigin = {
      {0.0, 0.0}, {kNext, 0.0}, {-kNext, 0.0}, {0.0, kNext}, {0.0, -kNext}};
  const std::vector<Case> cases = {{Camel, {-2.1, 1.9, -2.1, 1.9}, 600, camel},
                                   {Camel, {-3.0, 3.0, -2.0, 2.0}, 600, camel},
                                   {Rastrigin, {-4.3, 4.9, -5.1, 3.7}, 1500, rastrigin},
                                   {Rastrigin, {-5.12, 5.12, -5.12, 5.12}, 1500, rastrigin}};
  for (const Case& c : cases) {
    Definition definition = Box(2, 0.0, 1.0);
    definition.bounds = c.bounds;
    Proposer proposer(definition);
    const auto points = Drive(proposer, c.function, c.trials);
    auto missing = c.minima;
    for (const std::size_t trial : proposer.Locals(c.minima.size())) {
      const auto found = std::find_if(missing.begin(), missing.end(), [&](const auto& x) {
        return std::hypot(x[0] - points[trial][0], x[1] - points[trial][1]) < 1e-3;
      });
      ASSERT_NE(found, missing.end()) << points[trial][0] << ", " << points[trial][1];
      EXPECT_NEAR(c.function(points[trial]), c.function(*found), 1e-6);
      missing.erase(found);
    }
    EXPECT_TRUE(missing.empty());
  }
}

// Ripples that grow with the distance from the bottom of a funnel (Schaffer's function): local
// minima say little of where it is. Without a trend the mean is above 1.
TEST(Proposer, FindsTheBottomOfAFunnelThroughItsRipples) {
  const std::vector<double> bottoms = {-4.4, -3.3, -2.6, -1.7, -0.9, 0.4,
                                       1.2,  1.9,  2.7,  3.3,  4.1,  4.9};
  double sum = 0.0;
  for (const double bottom : bottoms) {
    const Function function = [&](const std::vector<double>& x) {
      double root = 0.0;
      for (std::size_t i = 0; i < 2; ++i) {
        const double at = bottom + 0.13 * static_cast<double>(i);
        const double distance = std::hypot(x[i] - at, x[i + 1] - at - 0.13);
        root +=
            0.5 * std::sqrt(distance) * (1.0 + std::pow(std::sin(50 * std::pow(distance, 0.2)), 2));
      }
      return root * root;
    };
    Proposer proposer(Box(3, -10.0, 10.0));
    Drive(proposer, function, 300);
    sum += proposer.Trials().Value(static_cast<std::uint32_t>(proposer.Best())).value;
  }
  EXPECT_LE(sum / static_cast<double>(bottoms.size()), 0.6);
}

// Recorded: the bits must be those of every compiler, optimised or not. The functions need
// nothing of the C library.
TEST(Proposer, HasTheRecordedBits) {
  for (const bool is_constrained : {false, true}) {
    Definition definition = Box(3, -1.3, 1.9);
    if (is_constrained) definition.function_count = 3;
    Proposer proposer(definition);
    std::uint64_t digest = 0xcbf29ce484222325;  // FNV-1a of whole numbers
    for (int i = 0; i < 150; ++i) {
      const std::vector<double> x = Ask(proposer);
      const double a = x[1] - x[0] * x[0];
      const double b = x[2] - x[1];
      const double c = 1.0 - x[1];
      double functions[] = {x[0] + x[1] * x[2] - 0.7, 0.2 - x[2] * x[2],
                            10.0 * (a * a) + b * b + c * c};
      const int index = functions[0] > 0.0 ? 0 : functions[1] > 0.0 ? 1 : 2;
      if (is_constrained) {
        proposer.Accept({index, functions[index]}, nullptr, functions);
      } else {
        proposer.Accept({0, functions[2]});
      }
      for (const double coordinate : x) {
        std::uint64_t bits;
        std::memcpy(&bits, &coordinate, sizeof bits);
        digest = (digest ^ bits) * 0x100000001b3;
      }
    }
    EXPECT_EQ(digest, is_constrained ? 0xe9ea335f19b93390 : 0x3920a8707260aeb8)
        << std::hex << digest;
  }
}

// Between trials of one region stand batch - 1 others.
TEST(Proposer, LeavesRoomForABatchBetweenTrialsOfARegion) {
  Definition definition = Box(3, -1.0, 1.7);
  definition.batch = 6;
  Proposer proposer(definition);
  int last = -100;
  for (int i = 0; i < 150; ++i) {
    const std::vector<double> x = Ask(proposer);
    if (proposer.IsLocal()) {
      EXPECT_GE(i - last, 6);
      last = i;
    }
    proposer.Accept({0, Bowl(x)});  // has one region
  }
  EXPECT_GT(last, 0);
}

}  // namespace
}  // namespace QuenloftSearch
