// SPDX-License-Identifier: MIT
//
// The records of a search: a point, an entry of a neighbour table, and a trial.
// Plain data; what they mean to each other is kept by Solver<N>.

#pragma once

#include <array>
#include <cstdint>

#include "solver/constants.h"
#include "solver/solver_base.h"

namespace QuenloftSolver {

// The other end of a segment: a trial's position in the store when 0 or more;
// the complement of a face number otherwise. Face 2k is the face of axis k at
// coordinate 0, face 2k + 1 the one at coordinate 1. kNone stands for neither.
inline bool IsFace(std::int32_t test) { return test < 0; }
inline std::int32_t FaceToTest(int face) { return ~face; }
inline int FaceAxis(std::int32_t test) { return ~test / 2; }
inline int FaceSide(std::int32_t test) { return ~test % 2; }

// One entry of a trial's neighbour table: a segment of the search space.
struct Neighbour {
  // See above; kNone in an empty entry, which ends the table.
  std::int32_t test = kNone;
  // Euclidean distance in unit coordinates, along the axis for a face.
  double distance = 0.0;
  // Negated lower bound of the function on the segment, under the slope of the
  // trial's class and under the trial's own; kUnset when to be computed.
  double global_characteristic = kUnset;
  double local_characteristic = kUnset;
};

struct Range {
  double minimum = kUnset;
  double maximum = kUnset;
};

// The box spanned by some points of the unit box; unset until a first point.
template <int N>
struct Extent {
  std::array<Range, N> axis;

  bool IsSet() const { return axis[0].minimum != kUnset; }

  void SetTo(const std::array<double, N>& point) {
    for (int k = 0; k < N; ++k) axis[k] = {point[k], point[k]};
  }

  void Widen(const std::array<double, N>& point) {
    for (int k = 0; k < N; ++k) {
      if (axis[k].minimum > point[k]) {
        axis[k].minimum = point[k];
      } else if (point[k] > axis[k].maximum) {
        axis[k].maximum = point[k];
      }
    }
  }

  void WidenToFace(std::int32_t test) {
    Range& range = axis[FaceAxis(test)];
    if (FaceSide(test) == 0) {
      range.minimum = 0.0;
    } else {
      range.maximum = 1.0;
    }
  }

  // Bounds included; a point with a NaN lies in no extent.
  bool Contains(const std::array<double, N>& point) const {
    for (int k = 0; k < N; ++k) {
      if (!(axis[k].minimum <= point[k] && point[k] <= axis[k].maximum)) return false;
    }
    return true;
  }
};

template <int N>
struct Point {
  Point() { coordinate.fill(kUnset); }

  std::array<double, N> coordinate;  // in [0, 1]
  std::uint32_t combination = kNone;
};

// A trial: its point, its outcome, and its neighbourhood, in one record that grows
// linearly with N. What a step reads of many trials stands before the table, of
// which it reads few.
template <int N>
struct Test final : SolverBase::TestBase, Point<N> {
  TestValue GetValue() const override { return value; }
  const double* Coordinate() const override { return this->coordinate.data(); }
  std::uint32_t CombinationIndex() const override { return this->combination; }
  double Radius() const override { return radius; }
  const Neighbour* Neighbours() const override { return neighbours.data(); }

  TestValue value{-1, kUnset};
  // Largest |difference of values| / distance to a chosen neighbour of the same
  // index; 0 when there is none.
  double slope = kUnbounded;
  // Distance to the farthest chosen neighbour, faces included; 0 when there is none.
  double radius = kUnbounded;
  // Of the trial and its chosen neighbours.
  Extent<N> extent;
  // In the order in which they were chosen.
  std::array<Neighbour, 3 * N> neighbours;
};

}  // namespace QuenloftSolver
