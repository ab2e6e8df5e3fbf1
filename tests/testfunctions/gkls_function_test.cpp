// SPDX-License-Identifier: MIT

#include "testfunctions/gkls_function.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace QuenloftTestFunctions {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

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

// ---- Parameters

TEST(GklsFunction, IsRefusedWithTheMessageOfTheFirstCheckThatFails) {
  constexpr char kDomain[] = "GKLS_domain_alloc failed.";
  constexpr char kCheck[] = "GKLS_parameters_check failed.";
  constexpr char kGenerate[] = "GKLS_arg_generate failed.";
  const struct {
    const char* name;
    Parameters parameters;
    const char* message;  // empty when the function is to be made
  } cases[] = {
      {"one dimension", {1, 10, 0.9, 0.2, 1}, kDomain},
      {"largest dimension", {1008, 10, 0.9, 0.2, 1}, ""},
      {"dimension too large", {1009, 0, kNan, 0.2, 0}, kDomain},
      {"one minimum", {2, 1, 0.9, 0.2, 0}, kCheck},
      {"two minima", {2, 2, 0.9, 0.2, 1}, ""},
      {"distance at top limit", {2, 10, 1.0 - 1e-10, 0.2, 1}, kCheck},
      {"distance at low limit", {2, 10, 1e-10, 5e-11, 1}, kCheck},
      {"distance NaN", {2, 10, kNan, 0.2, 1}, kCheck},
      {"radius above half the distance", {2, 10, 0.9, 0.45 + 2e-10, 1}, kCheck},
      {"radius of half the distance", {2, 10, 0.9, 0.45, 1}, ""},
      {"radius at low limit", {2, 10, 0.9, 1e-10, 1}, kCheck},
      {"radius NaN", {2, 10, 0.9, kNan, 1}, kCheck},
      {"number too large", {2, 10, 0.9, 0.2, 101}, kGenerate},
      {"minima without end", {2, 0xffffffffu, 0.9, 0.2, 1}, kGenerate},
      {"minima just too many", {2, 100001, 0.9, 0.2, 1}, kGenerate},
  };
  for (const auto& c : cases) {
    std::string message;
    try {
      c.parameters.Make();
    } catch (const std::runtime_error& error) {
      message = error.what();
    }
    EXPECT_EQ(message, c.message) << c.name;
  }
}

// ---- Structure

TEST(GklsFunction, MinimizersLieAsTheClassAsks) {
  for (const Parameters& p :
       {Parameters{2, 10, 0.9, 0.2, 1}, Parameters{2, 10, 0.9, 0.1, 64},
        Parameters{3, 10, 0.66, 0.2, 7}, Parameters{5, 10, 0.66, 0.3, 100},
        Parameters{2, 200, 0.5, 0.25, 33}, Parameters{32, 40, 0.9, 0.45, 2}}) {
    SCOPED_TRACE(p.function_number);
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

}  // namespace
}  // namespace QuenloftTestFunctions
