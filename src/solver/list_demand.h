// SPDX-License-Identifier: MIT
//
// Which trials one list needs to see in an update of every trial.

#pragma once

#include <cstddef>

#include "solver/candidate_list.h"
#include "solver/key_bounds.h"

namespace QuenloftSolver {

// A list that will end up full of keys no less than some L keeps no trace of a segment
// below L: it would be refused, or fall out again. L is the least key of a list that
// is full already, or else a key that as many trials reach as a list holds.
//
// Where searches converge to the last bit, segments that tie with L come by the thousand,
// on half of all trials. Each pushes the oldest of its kind out unless it is listed. Of a
// full list with r entries at L, no more than r can be left in the end, so the last r such
// trials are enough once these entries are gone. They are after r of them that are not
// listed, so after the first 2 r, or after the first r if those stand before all that are
// listed; then the list can do without these entries from the start. At N = 2 and a
// million trials that is nearly always so.
//
// With a key that is NaN, where a binary search ends depends on all that is listed, so
// every trial is needed where a key is unknown or a listed one unordered.
//
// Any other trials may be visited too. The needed ones are to be offered in store order.
class ListDemand {
 public:
  // Settles the bounds. The list, after BeginFull, may lose entries at L, or take L for
  // its floor.
  ListDemand(CandidateList& list, KeyBounds& bounds);

  // Valid as long as the bounds do not change.
  bool NeedsGroup(std::size_t group) const {
    const std::size_t first = group * KeyBounds::kGroupSize * KeyBounds::kBlockSize;
    return Needs(bounds_.GroupMaximum(group), first,
                 first + KeyBounds::kGroupSize * KeyBounds::kBlockSize);
  }
  bool NeedsBlock(std::size_t block) const {
    const std::size_t first = block * KeyBounds::kBlockSize;
    return Needs(bounds_.BlockMaximum(block), first, first + KeyBounds::kBlockSize);
  }
  bool NeedsTrial(std::size_t position) const {
    return Needs(bounds_[position], position, position + 1);
  }

 private:
  // Whether a trial is needed, of those from `first` to before `end`, of best key `bound`.
  bool Needs(double bound, std::size_t first, std::size_t end) const {
    return bound > least_ || (bound == least_ && (first < first_ties_end_ || end > ties_begin_));
  }

  const KeyBounds& bounds_;
  double least_ = -KeyBounds::kUnknown;
  // Trials whose best key is `least_` are needed up to here,
  std::size_t first_ties_end_ = 0;
  // and from here on.
  std::size_t ties_begin_ = 0;
};

}  // namespace QuenloftSolver
