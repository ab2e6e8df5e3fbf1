// SPDX-License-Identifier: MIT
//
// Which trials one list needs to see in an update of every trial.

#pragma once

#include <algorithm>
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
  // Of a list that wants everything.
  ListDemand() = default;
  // Of a list and the bounds of its class. `rank_of(position)` is the rank by which the bounds
  // know the trial.
  template <typename RankOf>
  ListDemand(const CandidateList& list, KeyBounds& bounds, RankOf rank_of);

  // Takes off the list, before anything is offered, the entries at L that it can do without.
  void Prepare(CandidateList& list) const {
    if (is_without_least_) list.ForgetLeast();
  }

  // Whether a trial is needed, of those from rank `first` to before `end`, of which the best
  // key is `bound`.
  bool Needs(double bound, std::size_t first, std::size_t end) const {
    return bound > least_ || (bound == least_ && (first < first_ties_end_ || end > ties_begin_));
  }
  // Whether a segment of a needed trial may leave a trace.
  bool Wants(double key) const { return !(key < least_); }

 private:
  double least_ = KeyBounds::kAbsent;
  bool is_without_least_ = false;
  // Trials whose best key is `least_` are needed up to here,
  std::size_t first_ties_end_ = 0;
  // and from here on.
  std::size_t ties_begin_ = 0;
};

template <typename RankOf>
ListDemand::ListDemand(const CandidateList& list, KeyBounds& bounds, RankOf rank_of) {
  if (list.HasUnorderedKeys() || bounds.HasUnknown()) return;
  if (list.Size() < kListCapacity) {
    least_ = bounds.ReachedBy(kListCapacity);
    const bool may_be_listed = !list.IsEmpty() && !(list.LeastKey() > least_);
    ties_begin_ = may_be_listed ? 0 : bounds.BeginOfLast(kListCapacity, least_);
    return;
  }
  least_ = list.LeastKey();
  const std::size_t count = list.LeastCount();
  std::size_t first_listed = rank_of(list[0].position);
  for (std::size_t i = 1; i < count; ++i) {
    first_listed = std::min<std::size_t>(first_listed, rank_of(list[i].position));
  }
  ties_begin_ = bounds.BeginOfLast(count, least_);
  if (bounds.EndOfFirst(count, least_) <= first_listed) {
    is_without_least_ = true;
  } else {
    first_ties_end_ = bounds.EndOfFirst(2 * count, least_);
  }
}

}  // namespace QuenloftSolver
