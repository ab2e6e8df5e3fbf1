// SPDX-License-Identifier: MIT

#include "solver/list_demand.h"

#include <algorithm>
#include <cstdint>

#include "solver/constants.h"

namespace QuenloftSolver {

ListDemand::ListDemand(CandidateList& list, KeyBounds& bounds) : bounds_(bounds) {
  bounds.Settle();
  if (list.HasUnorderedKeys() || bounds.HasUnknown()) return;
  if (list.Size() < kListCapacity) {
    least_ = bounds.ReachedBy(kListCapacity);
    const bool may_be_listed = !list.IsEmpty() && !(list.LeastKey() > least_);
    ties_begin_ = may_be_listed ? 0 : bounds.BeginOfLast(kListCapacity, least_);
    list.RaiseFloor(least_);
    return;
  }
  least_ = list.LeastKey();
  const std::size_t count = list.LeastCount();
  std::uint32_t first_listed = list[0].position;
  for (std::size_t i = 1; i < count; ++i) {
    first_listed = std::min(first_listed, list[i].position);
  }
  ties_begin_ = bounds.BeginOfLast(count, least_);
  if (bounds.EndOfFirst(count, least_) <= first_listed) {
    list.ForgetLeast();
  } else {
    first_ties_end_ = bounds.EndOfFirst(2 * count, least_);
  }
}

}  // namespace QuenloftSolver
