// SPDX-License-Identifier: MIT
//
// Functions of the GKLS classes of test functions for global optimization:
// M. Gaviano, D. E. Kvasov, D. Lera, Ya. D. Sergeyev, "Algorithm 829: Software
// for generation of classes of test functions with known local and global
// minima for global optimization", ACM Transactions on Mathematical Software
// 29(4), 2003, 469-480. This is the continuously differentiable type.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace QuenloftTestFunctions {

// A paraboloid on the box [-1, 1]^N that is bent down to a chosen value inside
// each of several balls. Inside the ball of radius rho around a minimizer M the
// function is a cubic in the distance to M, of value and gradient equal to the
// paraboloid's on the sphere and with its minimum at M. All minimizers are known,
// which is what makes the classes useful: whether a search has found the global
// minimum is a matter of distance, not of opinion.
//
// A class is given by the dimension N, the number of minimizers, the distance of
// the global minimizer from the paraboloid's vertex and the radius of its ball; a
// hundred functions of a class differ in their random placement. A larger
// distance or a smaller radius makes a class harder.
//
// Invariants, after construction:
//   (1) Row 0 of the minimizers is the vertex (value 0), row 1 the global
//       minimizer (value -1), rows 2 and up the other local minimizers.
//   (2) GlobalIndices() lists every row once, the first GlobalCount() being those
//       within 1e-10 of the global minimum, in increasing order. There is at
//       least one: row 1.
//   (3) Equal parameters give equal bits. The randomness comes from a seeded
//       source of the object's own (lagged_fibonacci.h).
// Cost: construction O(minima^2 N), evaluation O(minima N) without allocation.
// Threads: immutable after construction; any number may evaluate it at once.
class GklsFunction {
 public:
  // `dimension`        from 2 to 1008
  // `minima_count`     at least 2: the vertex and the global minimizer included
  // `global_distance`  above 1e-10, below 1 - 1e-10
  // `global_radius`    above 1e-10, below global_distance / 2 + 1e-10
  // `function_number`  from 1 to 100
  //
  // Throws std::runtime_error with one of three messages, checked in this order:
  //   "GKLS_domain_alloc failed."      the dimension, or no memory for the box
  //   "GKLS_parameters_check failed."  the count, the distance or the radius (NaN
  //                                    included)
  //   "GKLS_arg_generate failed."      the function number, or more minima than
  //                                    kMaxWork or the memory allows
  GklsFunction(std::int32_t dimension, std::uint32_t minima_count, double global_distance,
               double global_radius, std::uint32_t function_number);

  // The value at a point of Dimension() coordinates; 1e100 at a point more than
  // 1e-10 outside the box.
  double GKLS_d_value(const double* point) const;

  std::uint32_t FunctionNumber() const { return function_number; }
  std::int32_t Dimension() const { return dimension; }
  std::uint32_t MinimaCount() const { return minima_count; }
  // Coordinates of the minimizer in `row`, Dimension() of them.
  const double* Minimizer(std::uint32_t row) const {
    return &minima[static_cast<std::size_t>(row) * dimension];
  }
  double MinimumValue(std::uint32_t row) const { return minimum_values[row]; }
  // Radius of the ball around the minimizer in `row`; the vertex's is not used.
  double Radius(std::uint32_t row) const { return radii[row]; }
  std::uint32_t GlobalCount() const { return global_count; }
  const std::vector<std::uint32_t>& GlobalIndices() const { return global_indices; }
  // Coordinates of the first global minimizer.
  const double* GlobalMinimizer() const { return Minimizer(global_indices[0]); }

  // Generation compares all pairs of minimizers. Above this many coordinate
  // comparisons (minima_count^2 * dimension) it is refused, as if the memory had
  // run out, rather than left to run for hours. It is 100,000 minima in 2
  // dimensions, which take about a minute.
  static constexpr double kMaxWork = 2e10;

 private:
  // What the checks and the steps of the generation answer.
  enum Status {
    kOk = 0,
    kBadDimension = 1,
    kTooFewMinima = 2,
    kBadFunctionNumber = 3,
    kBadBox = 4,
    kBadGlobalValue = 5,
    kBadGlobalDistance = 6,
    kBadGlobalRadius = 7,
    kNoMemory = 8,
    kMinimizerAtVertex = 14,
    kMinimizersCoincide = 15,
    kNoGlobalMinimizer = 16,
  };
  class RandomBlocks;

  void GKLS_domain_alloc();
  Status GKLS_parameters_check() const;
  Status GKLS_arg_generate(std::uint32_t number);
  Status AllocateMinima();
  void PlaceGlobalMinimizer(RandomBlocks& random);
  void DrawLocalMinimizers(RandomBlocks& random);
  Status GKLS_separation_check() const;
  Status GKLS_basins_build(RandomBlocks& random);
  double GKLS_distance(const double* a, const double* b) const;
  double* Row(std::uint32_t row) { return &minima[static_cast<std::size_t>(row) * dimension]; }

  // The class and the function within it.
  std::uint32_t function_number;
  std::vector<double> left;   // dimension
  std::vector<double> right;  // dimension
  std::int32_t dimension;
  std::uint32_t minima_count;
  double global_distance;
  double global_radius;
  double global_value = -1.0;

  // Written by the generation.
  std::vector<double> minima;                 // minima_count x dimension, by rows
  std::vector<double> minimum_values;         // minima_count
  std::vector<double> radii;                  // minima_count
  std::vector<std::uint32_t> global_indices;  // minima_count
  std::uint32_t global_count = 0;
  bool generated = false;
};

}  // namespace QuenloftTestFunctions
