// SPDX-License-Identifier: MIT
//
// The way between the caller's units and the engine's unit box, and the lattice on which
// integer and stepped variables live.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "search/problem.h"

namespace QuenloftSearch {

// A point in the caller's units, told apart bit by bit (but for the sign of zero).
struct PointKey {
  std::vector<double> x;
  std::uint32_t combination;

  bool operator==(const PointKey& other) const {
    return combination == other.combination && x == other.x;
  }
};

struct PointKeyHash {
  std::size_t operator()(const PointKey& key) const;
};

// The points of a problem: the caller's units, and the way between them and the engine's
// unit box. With a logarithmic variable the engine's box holds its natural logarithm.
class Space {
 public:
  explicit Space(const Problem& problem);

  // Whether the variable of an engine's coordinate has a lattice, and whether some has.
  bool IsOnLattice(std::size_t coordinate) const {
    return variables_[searched_[coordinate]].count > 0;
  }
  bool HasLattice() const { return has_lattice_; }
  // Where all that are not fixed have one: the points in all combinations, UINT64_MAX if
  // there are more. 0 otherwise.
  std::uint64_t PointCount() const { return point_count_; }
  // Point number `number` of them, combinations varying fastest.
  PointKey PointAt(std::uint64_t number) const;

  // Lower and upper bounds of the engine's box in turn. It has a side for each variable that
  // is not fixed. On a lattice each point has a cell of its own, the first and the last one
  // too; in the logarithm a whole number k has that from k - 1/2 to k + 1/2.
  std::vector<double> EngineBounds() const;
  // A point in the caller's units, from one of the engine's box (not the unit box): never
  // beyond the bounds, and on the lattice.
  std::vector<double> Decode(const double* engine) const;
  // The unit coordinates of a point in the caller's units, in the middle of its cell.
  std::vector<double> Encode(const std::vector<double>& x) const;
  // The unit coordinate of a point of the lattice: so many steps up from the one whose cell
  // holds `unit`, or the last one before the end.
  double OnLattice(std::size_t coordinate, double unit, int steps) const;
  // Whether every coordinate lies within the bounds and, but for rounding, on the lattice.
  bool Contains(const std::vector<double>& x) const;
  // Takes that rounding out.
  void Snap(std::vector<double>& x) const;

  std::uint32_t CombinationOf(const std::vector<std::int32_t>& categories) const;

 private:
  const std::vector<Variable> variables_;
  const std::vector<std::int32_t> category_sizes_;
  std::vector<std::size_t> searched_;  // variables that are not fixed
  std::uint32_t combination_count_ = 1;
  bool has_lattice_ = false;
  std::uint64_t point_count_ = 0;
};

}  // namespace QuenloftSearch
