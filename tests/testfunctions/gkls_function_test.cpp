// SPDX-License-Identifier: MIT

#include "testfunctions/gkls_function.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <ostream>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace QuenloftTestFunctions {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

struct Parameters {
  std::int32_t dimension = 2;
  std::uint32_t minima_count = 10;
  double global_distance = 0.9;
  double global_radius = 0.2;
  std::uint32_t function_number = 1;

  GklsFunction Make() const {
    return GklsFunction(dimension, minima_count, global_distance, global_radius, function_number);
  }
};

double Distance(const double* a, const double* b, int dimension) {
  double sum = 0.0;
  for (int i = 0; i < dimension; ++i) sum += (a[i] - b[i]) * (a[i] - b[i]);
  return std::sqrt(sum);
}

// A point at `distance` from `centre` in a direction drawn from `random`.
std::vector<double> PointAround(const double* centre, int dimension, double distance,
                                std::mt19937& random) {
  std::normal_distribution<double> normal;
  std::vector<double> direction(dimension);
  for (double& d : direction) d = normal(random);
  const std::vector<double> origin(dimension, 0.0);
  const double length = Distance(direction.data(), origin.data(), dimension);
  for (int i = 0; i < dimension; ++i) direction[i] = centre[i] + distance * direction[i] / length;
  return direction;
}

bool IsInBox(const std::vector<double>& point) {
  for (const double x : point) {
    if (std::abs(x) > 0.999) return false;
  }
  return true;
}

// ---- Parameters

struct LimitCase {
  const char* name;
  Parameters parameters;
  const char* message;  // empty when the function is to be made
};

void PrintTo(const LimitCase& c, std::ostream* out) { *out << c.name; }

class Limits : public testing::TestWithParam<LimitCase> {};

TEST_P(Limits, AreKeptWithTheMessageOfTheFirstCheckThatFails) {
  std::string message;
  try {
    GetParam().parameters.Make();
  } catch (const std::runtime_error& error) {
    message = error.what();
  }
  EXPECT_EQ(message, GetParam().message);
}

constexpr char kDomain[] = "GKLS_domain_alloc failed.";
constexpr char kCheck[] = "GKLS_parameters_check failed.";
constexpr char kGenerate[] = "GKLS_arg_generate failed.";

INSTANTIATE_TEST_SUITE_P(
    GklsFunction, Limits,
    testing::Values(LimitCase{"OneDimension", {1, 10, 0.9, 0.2, 1}, kDomain},
                    LimitCase{"NegativeDimension", {-2, 10, 0.9, 0.2, 1}, kDomain},
                    LimitCase{"LargestDimension", {1008, 10, 0.9, 0.2, 1}, ""},
                    LimitCase{"DimensionTooLarge", {1009, 0, kNan, 0.2, 0}, kDomain},
                    LimitCase{"NoMinimum", {2, 0, 0.9, 0.2, 1}, kCheck},
                    LimitCase{"OneMinimum", {2, 1, 0.9, 0.2, 0}, kCheck},
                    LimitCase{"TwoMinima", {2, 2, 0.9, 0.2, 1}, ""},
                    LimitCase{"DistanceAtTopLimit", {2, 10, 1.0 - 1e-10, 0.2, 1}, kCheck},
                    LimitCase{"DistanceBelowTopLimit", {2, 10, 1.0 - 2e-10, 0.2, 1}, ""},
                    LimitCase{"DistanceAtLowLimit", {2, 10, 1e-10, 5e-11, 1}, kCheck},
                    LimitCase{"DistanceNan", {2, 10, kNan, 0.2, 1}, kCheck},
                    LimitCase{"DistanceInfinite", {2, 10, kInfinity, 0.2, 1}, kCheck},
                    LimitCase{"RadiusAboveHalfTheDistance", {2, 10, 0.9, 0.45 + 2e-10, 1}, kCheck},
                    LimitCase{"RadiusOfHalfTheDistance", {2, 10, 0.9, 0.45, 1}, ""},
                    LimitCase{"RadiusAtLowLimit", {2, 10, 0.9, 1e-10, 1}, kCheck},
                    LimitCase{"RadiusAboveLowLimit", {2, 10, 0.9, 2e-10, 1}, ""},
                    LimitCase{"RadiusNan", {2, 10, 0.9, kNan, 1}, kCheck},
                    LimitCase{"RadiusInfinite", {2, 10, 0.9, kInfinity, 1}, kCheck},
                    LimitCase{"NumberZero", {2, 10, 0.9, 0.2, 0}, kGenerate},
                    LimitCase{"NumberLargest", {2, 10, 0.9, 0.2, 100}, ""},
                    LimitCase{"NumberTooLarge", {2, 10, 0.9, 0.2, 101}, kGenerate},
                    LimitCase{"MinimaWithoutEnd", {2, 0xffffffffu, 0.9, 0.2, 1}, kGenerate},
                    LimitCase{"MinimaJustTooMany", {2, 100001, 0.9, 0.2, 1}, kGenerate}),
    [](const auto& info) { return info.param.name; });

// ---- Structure

class Generated : public testing::TestWithParam<Parameters> {};

INSTANTIATE_TEST_SUITE_P(
    GklsFunction, Generated,
    testing::Values(Parameters{2, 10, 0.9, 0.2, 1}, Parameters{2, 10, 0.9, 0.1, 64},
                    Parameters{3, 10, 0.66, 0.2, 7}, Parameters{5, 10, 0.66, 0.3, 100},
                    Parameters{2, 200, 0.5, 0.25, 33}, Parameters{32, 40, 0.9, 0.45, 2}),
    [](const auto& info) {
      return std::to_string(info.param.dimension) + "D" + std::to_string(info.param.minima_count) +
             "Minima" + std::to_string(info.param.function_number);
    });

TEST_P(Generated, MinimizersLieAsTheClassAsks) {
  const Parameters& p = GetParam();
  const GklsFunction function = p.Make();
  const auto distance = [&](std::uint32_t a, std::uint32_t b) {
    return Distance(function.Minimizer(a), function.Minimizer(b), p.dimension);
  };
  EXPECT_NEAR(distance(0, 1), p.global_distance, 1e-14);
  EXPECT_EQ(function.Radius(1), p.global_radius);
  EXPECT_EQ(function.GKLS_d_value(function.GlobalMinimizer()), -1.0);
  EXPECT_EQ(function.MinimumValue(0), 0.0);

  for (std::uint32_t i = 0; i < p.minima_count; ++i) {
    EXPECT_TRUE(i == 0 || function.MinimumValue(i) >= -1.0 - 1e-10) << i;
    EXPECT_EQ(function.GKLS_d_value(function.Minimizer(i)), function.MinimumValue(i)) << i;
    for (int k = 0; k < p.dimension; ++k) EXPECT_LE(std::abs(function.Minimizer(i)[k]), 1.0);
    if (i >= 2) {
      EXPECT_GE(distance(i, 1), 2.0 * p.global_radius - 1e-10) << i;
    }
    for (std::uint32_t j = std::max(i + 1, 2u); j < p.minima_count; ++j) {
      EXPECT_LE(function.Radius(i) + function.Radius(j), distance(i, j) + 1e-10) << i << " " << j;
    }
  }
}

// Inside and outside a sphere the function is written by different formulas.
TEST_P(Generated, ValueAndGradientAreContinuousAcrossTheSpheres) {
  const Parameters& p = GetParam();
  const GklsFunction function = p.Make();
  std::mt19937 random(p.function_number);
  constexpr double kStep = 1e-6;
  int checked = 0;
  for (std::uint32_t row = 1; row < p.minima_count; ++row) {
    const double radius = function.Radius(row);
    for (int repeat = 0; repeat < 20; ++repeat) {
      const std::vector<double> on_sphere =
          PointAround(function.Minimizer(row), p.dimension, radius, random);
      if (!IsInBox(on_sphere)) continue;
      ++checked;
      for (int k = 0; k < p.dimension; ++k) {
        // Two of these steps, at least, lead into the ball and two out of it.
        std::vector<double> below = on_sphere, above = on_sphere;
        below[k] -= kStep;
        above[k] += kStep;
        const double here = function.GKLS_d_value(on_sphere.data());
        const double paraboloid_slope = 2.0 * (on_sphere[k] - function.Minimizer(0)[k]);
        const double curvature = 10.0 * (1.0 + 1.0 / (radius * radius));
        for (const auto& [point, sign] : {std::pair(below, -1.0), std::pair(above, 1.0)}) {
          EXPECT_NEAR((function.GKLS_d_value(point.data()) - here) * sign / kStep, paraboloid_slope,
                      curvature * kStep + 1e-8)
              << "minimizer " << row << ", coordinate " << k;
        }
      }
    }
  }
  EXPECT_GT(checked, 0);
}

TEST_P(Generated, EachMinimizerIsTheLowestPointOfItsBall) {
  const Parameters& p = GetParam();
  const GklsFunction function = p.Make();
  std::mt19937 random(p.function_number);
  for (std::uint32_t row = 1; row < p.minima_count; ++row) {
    for (const double share : {1e-3, 0.1, 0.5, 0.9, 0.999}) {
      const std::vector<double> point =
          PointAround(function.Minimizer(row), p.dimension, share * function.Radius(row), random);
      EXPECT_GT(function.GKLS_d_value(point.data()), function.MinimumValue(row)) << row;
    }
  }
}

TEST(GklsFunction, ListsGlobalMinimizersBeforeTheOthers) {
  EXPECT_EQ((Parameters{2, 2, 0.4, 0.1, 1}.Make().GlobalIndices()),
            (std::vector<std::uint32_t>{1, 0}));
  const GklsFunction function = Parameters{2, 5, 0.9, 0.2, 1}.Make();
  EXPECT_EQ(function.GlobalCount(), 1u);
  EXPECT_EQ(function.GlobalIndices(), (std::vector<std::uint32_t>{1, 4, 3, 2, 0}));
  EXPECT_EQ(function.GlobalMinimizer(), function.Minimizer(1));
}

TEST(GklsFunction, IsTheParaboloidOutsideTheBalls) {
  const GklsFunction function = Parameters{3, 2, 0.9, 0.2, 5}.Make();
  EXPECT_EQ(function.GKLS_d_value(function.Minimizer(0)), 0.0);
  const double corner[] = {-1.0, 1.0, -1.0};
  const double distance = Distance(corner, function.Minimizer(0), 3);
  EXPECT_GT(Distance(corner, function.Minimizer(1), 3), 0.2);
  EXPECT_DOUBLE_EQ(function.GKLS_d_value(corner), distance * distance);
}

TEST(GklsFunction, ToleratesRoundingAtTheFacesOfTheBox) {
  const GklsFunction function = Parameters{}.Make();
  for (const double side : {-1.0, 1.0}) {
    for (int k = 0; k < 2; ++k) {
      double point[] = {0.1, 0.1};
      point[k] = side * (1.0 + 0.5e-10);
      EXPECT_LT(function.GKLS_d_value(point), 10.0);
      point[k] = side * (1.0 + 2e-10);
      EXPECT_EQ(function.GKLS_d_value(point), 1e100);
    }
  }
  const double nowhere[] = {kNan, 0.0};
  EXPECT_TRUE(std::isnan(function.GKLS_d_value(nowhere)));
}

// ---- Determinism

struct ReferenceValue {
  Parameters parameters;
  std::vector<double> point;
  double value;
};

TEST(GklsFunction, GivesTheReferenceValues) {
  // Any change of these is a change of the classes. Only the C library's sine and
  // cosine may move the last bits.
  const ReferenceValue cases[] = {
      {{2, 10, 0.9, 0.1, 64}, {-0x1.13b06d56b7736p-2, 0x1.61826a0c49029p-1}, 0x1.2c4bb1b17a5c8p-6},
      {{3, 10, 0.9, 0.2, 100},
       {-0x1.e56d65ed70acbp-2, 0x1.9ddd7d1cae3c0p-7, -0x1.e61f40d6a296cp-2},
       -0x1.2d106fb79f92cp-3},
      {{5, 10, 0.66, 0.3, 1},
       {0x1.b170d7cc237a7p-1, 0x1.1e61bccee544ep-2, -0x1.3291ffdf1b05cp-1, 0x1.3efb30066dab6p-1,
        -0x1.b3552ae46097fp-1},
       0x1.4e64be3b58602p-2},
      {{6, 15, 0.5, 0.25, 100},
       {-0x1.4cf253f9eb339p-1, -0x1.57e199ad4ced7p-1, -0x1.dd15ba6d8cb80p-2, 0x1.94bd7d381e14cp-1,
        -0x1.282fdb0fe55a1p-3, 0x1.daed2e8cf5596p-2},
       0x1.6a1f4f9a787e0p-5},
      {{2, 2, 0.4, 0.1, 1}, {-0x1.2e78953190823p-3, 0x1.e2f88ca2849bap-2}, 0x1.7dce731f9083ep-3},
      {{2, 50, 0.7, 0.05, 100},
       {-0x1.0c9d0e713f296p-2, -0x1.9e61f21548960p-8},
       0x1.eb23f1c1ce07dp-5},
  };
  for (const ReferenceValue& c : cases) {
    const double value = c.parameters.Make().GKLS_d_value(c.point.data());
    EXPECT_NEAR(value, c.value, 1e-13 * std::abs(c.value))
        << c.parameters.dimension << "D, number " << c.parameters.function_number;
  }
}

TEST(GklsFunction, IsDeterminedByItsFiveParameters) {
  const auto minimizers = [](const Parameters& p) {
    const GklsFunction function = p.Make();
    return std::vector<double>(function.Minimizer(0), function.Minimizer(3));
  };
  const std::vector<double> first = minimizers(Parameters{});
  EXPECT_EQ(minimizers(Parameters{}), first);
  for (const Parameters& other : {Parameters{2, 11, 0.9, 0.2, 1}, Parameters{2, 10, 0.8, 0.2, 1},
                                  Parameters{2, 10, 0.9, 0.2, 2}}) {
    EXPECT_NE(minimizers(other), first);
  }
}

}  // namespace
}  // namespace QuenloftTestFunctions
