// SPDX-License-Identifier: MIT
//
// The records of a search: an extent, a trial, and the row that the flood reads of it.
// Plain data; what they mean to each other is kept by Solver<N>.

#pragma once

#include <array>
#include <cstdint>
#include <type_traits>

#include "solver/aligned.h"
#include "solver/constants.h"
#include "solver/grid_point.h"
#include "solver/neighbour.h"
#include "solver/solver_base.h"

namespace QuenloftSolver {

// The box spanned by some points of the unit box; unset until a first point.
template <int N>
struct Extent {
  Extent() {
    minimum.fill(kUnset);
    maximum.fill(kUnset);
  }

  std::array<double, N> minimum;
  std::array<double, N> maximum;

  bool IsSet() const { return minimum[0] != kUnset; }

  void SetTo(const std::array<double, N>& point) {
    minimum = point;
    maximum = point;
  }

  // Where a coordinate lies below the minimum it becomes that, else where it lies above
  // the maximum it becomes that. Without branches: neither can be foreseen.
  void Widen(const std::array<double, N>& point) {
#pragma omp simd
    for (int k = 0; k < N; ++k) {
      const bool is_below = minimum[k] > point[k];
      const double upper = is_below ? maximum[k] : point[k];
      minimum[k] = is_below ? point[k] : minimum[k];
      maximum[k] = upper > maximum[k] ? upper : maximum[k];
    }
  }

  void WidenToFace(std::int32_t test) {
    if (FaceSide(test) == 0) {
      minimum[FaceAxis(test)] = 0.0;
    } else {
      maximum[FaceAxis(test)] = 1.0;
    }
  }

  // Bounds included; a point with a NaN lies in no extent. Without branches, as every trial
  // that a flood meets is asked.
  bool Contains(const std::array<double, N>& point) const {
    bool is_within = true;
    for (int k = 0; k < N; ++k) {
      is_within &= minimum[k] <= point[k];
      is_within &= point[k] <= maximum[k];
    }
    return is_within;
  }
};

// A trial: its point, its outcome, and its neighbourhood, in one record that grows
// linearly with N. What a step asks of trials stands in the order of how many are asked:
// with two dimensions the first cache line has all that is asked of a neighbour, it and the
// next all that is asked of a trial listed.
template <int N>
struct alignas(kCacheLine) Test final : SolverBase::TestBase {
  TestValue GetValue() const override { return value; }
  const double* Coordinate() const override { return coordinate.data(); }
  std::uint32_t CombinationIndex() const override { return combination; }
  double Radius() const override { return radius; }
  const Neighbour* Neighbours() const override { return neighbours.data(); }

  // Where a team works on the trials most of the time, what one thread reads of them
  // all stands apart from what the others write.
  static constexpr std::size_t kApart = N <= 3 ? alignof(double) : kCacheLine;

  std::uint32_t combination = kNone;
  alignas(kApart) TestValue value{-1, kUnset};
  std::array<double, N> coordinate;  // in [0, 1]
  GridPoint<N> grid_point;           // of the coordinates
  // Of the trial and its chosen neighbours.
  alignas(kApart) Extent<N> extent;
  // Distance to the farthest chosen neighbour, faces included; 0 when there is none.
  double radius = kUnbounded;
  // Largest |difference of values| / distance to a chosen neighbour of the same
  // index; 0 when there is none.
  double slope = kUnbounded;
  // In the order in which they were chosen.
  std::array<Neighbour, 3 * N> neighbours;
};

// Clears and sets flags of a trial whose flags no other thread writes meanwhile: a load
// and a store, where a locked operation would wait for every store before it.
struct FlagChange {
  std::uint32_t set;
  std::uint32_t clear;  // before setting
};
inline void ChangeFlags(SolverBase::TestBase& trial, FlagChange change) {
  const std::uint32_t flags = trial.flags.load(std::memory_order_relaxed);
  trial.flags.store((flags & ~change.clear) | change.set, std::memory_order_relaxed);
}

// Whether the flood of a refresh met a trial before, which it asks of every neighbour of every
// listed trial. Up to three dimensions the mark shares the one cache line of a row, see below.
// With more most neighbours were met before, so the rest of their rows is not needed; there the
// marks stand in a column of their own, which no other thread reads.
struct FloodMark {
  // The last refresh that met the trial.
  std::uint32_t met_by = 0;
};
struct NoFloodMark {};
template <int N>
inline constexpr bool kMarksStandInRows = N <= 3;

// What the flood reads of a trial that is new to it: its point and its neighbours. Apart from
// the trials, whose tables take most of the room.
template <int N>
struct alignas(kCacheLine) FloodRow
    : std::conditional_t<kMarksStandInRows<N>, FloodMark, NoFloodMark> {
  // The tests of the trial's table; the trial itself in place of a face and in empty
  // entries, so that none needs to be told apart.
  std::array<std::uint32_t, 3 * N> neighbours;
  std::array<double, N> coordinate;
};

}  // namespace QuenloftSolver
