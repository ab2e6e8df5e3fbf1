// SPDX-License-Identifier: MIT

#include "solver/candidate_list.h"

#include <algorithm>
#include <cassert>
#include <cstring>

namespace QuenloftSolver {

void CandidateList::Offer(const Candidate& candidate, UpdateMode mode) {
  is_used_ = true;
  const bool drops_below_front = mode == UpdateMode::kIncremental || size_ == kListCapacity;
  // The common case: most offers are worse than all that is listed.
  if (drops_below_front && (size_ == 0 || storage_->keys[0] > candidate.key)) return;
  if (!storage_) storage_ = std::make_unique<Storage>();

  Storage& entries = *storage_;
  const double* const begin = entries.keys;
  const double* const end = begin + size_;
  const double* const equal = std::lower_bound(begin, end, candidate.key);
  const double* const better =
      equal != end && *equal == candidate.key ? std::upper_bound(equal, end, candidate.key) : equal;
  std::size_t place = static_cast<std::size_t>(better - begin);
  for (std::size_t i = static_cast<std::size_t>(equal - begin); i < place; ++i) {
    const Segment& listed = entries.segments[i];
    if (listed.position == candidate.position && listed.test == candidate.test) return;
  }
  if (place == 0 && drops_below_front) return;
  if (size_ == kListCapacity) {
    --place;
    MoveEntries(1, 0, place);
  } else {
    MoveEntries(place, place + 1, size_ - place);
    ++size_;
  }
  entries.keys[place] = candidate.key;
  entries.segments[place] = {candidate.position, candidate.test};
  if (candidate.key == kUnset) may_hold_unset_keys_ = true;
}

Candidate CandidateList::TakeBest() {
  assert(size_ > 0);
  --size_;
  return (*this)[size_];
}

void CandidateList::MoveEntries(std::size_t from, std::size_t to, std::size_t count) {
  Storage& entries = *storage_;
  std::memmove(entries.keys + to, entries.keys + from, count * sizeof(entries.keys[0]));
  std::memmove(entries.segments + to, entries.segments + from, count * sizeof(entries.segments[0]));
}

}  // namespace QuenloftSolver
