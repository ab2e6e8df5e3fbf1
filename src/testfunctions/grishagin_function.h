// SPDX-License-Identifier: MIT
//
// The hundred two-dimensional multiextremal functions of V. A. Grishagin,
// "Operating characteristics of some global search algorithms", Problems of
// Stochastic Search 7, Zinatne, Riga, 1978, 198-206 (in Russian): the class on
// which operating characteristics of global searches were first compared.

#pragma once

#include <array>
#include <cstdint>

namespace QuenloftTestFunctions {

// With a_ij(x, y) = sin(i pi x) sin(j pi y) and b_ij(x, y) = cos(i pi x) cos(j pi y),
// i and j from 1 to 7,
//
//   f(x, y) = 4 - sqrt( (sum A_ij a_ij + B_ij b_ij)^2 + (sum C_ij a_ij - D_ij b_ij)^2 ),
//
// with coefficients drawn uniformly from [-1, 1) by a shift-register generator of
// the class's own, so that a function is known by its number alone. The functions
// are meant for the unit square, where all the listed minimizers lie, and are
// defined everywhere. Smaller is better; no value exceeds 4.
//
// Threads: immutable after construction; any number may evaluate it at once.
class GrishaginFunction {
 public:
  struct Minimizer {
    double x;
    double y;
  };

  // A number outside 1..100 is taken as 1.
  explicit GrishaginFunction(std::int32_t number);

  double grishagin_value(double x, double y) const;

  // From 1 to 100.
  std::int32_t FunctionNumber() const { return function_number; }
  // The known global minimizer, to the six decimals in which the class lists it.
  Minimizer GlobalMinimizer() const;

 private:
  static constexpr int kHarmonics = 7;
  using Coefficients = std::array<std::array<double, kHarmonics>, kHarmonics>;

  std::int32_t function_number;
  // [i][j]: harmonic i + 1 in x, harmonic j + 1 in y.
  Coefficients A;
  Coefficients B;
  Coefficients C;
  Coefficients D;
};

}  // namespace QuenloftTestFunctions
