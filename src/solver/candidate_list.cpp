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
  std::size_t place = static_cast<std::size_t>(
      std::lower_bound(entries.keys, entries.keys + size_, candidate.key) - entries.keys);
  for (; place < size_ && entries.keys[place] == candidate.key; ++place) {
    if (entries.positions[place] == candidate.position && entries.tests[place] == candidate.test) {
      return;
    }
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
  entries.positions[place] = candidate.position;
  entries.tests[place] = candidate.test;
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
  std::memmove(entries.positions + to, entries.positions + from,
               count * sizeof(entries.positions[0]));
  std::memmove(entries.tests + to, entries.tests + from, count * sizeof(entries.tests[0]));
}

}  // namespace QuenloftSolver
