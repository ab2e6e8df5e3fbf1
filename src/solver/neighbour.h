// SPDX-License-Identifier: MIT
//
// An entry of a trial's neighbour table, and the faces of the box that stand in it.

#pragma once

#include <cstdint>

#include "solver/constants.h"

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

}  // namespace QuenloftSolver
