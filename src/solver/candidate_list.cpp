// SPDX-License-Identifier: MIT

#include "solver/candidate_list.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>

namespace QuenloftSolver {

void CandidateList::Offer(const Candidate& candidate, UpdateMode mode) {
  is_used_ = true;
  const bool drops_below_front = mode == UpdateMode::kIncremental || size_ == kListCapacity;
  // The common case: most offers are worse than all that is listed.
  if (drops_below_front && (size_ == 0 || active_->keys[0] > candidate.key)) return;
  if (!active_) Allocate();

  Storage& entries = *active_;
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
  if (candidate.key == kUnset || std::isnan(candidate.key)) has_unordered_keys_ = true;
}

Candidate CandidateList::TakeBest() {
  assert(size_ > 0);
  --size_;
  return (*this)[size_];
}

void CandidateList::Clear() {
  size_ = 0;
  stale_count_ = 0;
}

void CandidateList::Stage(const Candidate& candidate) {
  is_used_ = true;
  // The first entry that stays is the least that an offer must reach.
  std::size_t front = 0;
  while (front < stale_count_ && stale_[front] == front) ++front;
  if (front == size_ || active_->keys[front] > candidate.key) return;
  staged_.push_back({candidate.key, staged_.size(), {candidate.position, candidate.test}});
}

void CandidateList::Commit() {
  const bool has_unordered =
      has_unordered_keys_ || std::any_of(staged_.begin(), staged_.end(), [](const Staged& staged) {
        return staged.key == kUnset || std::isnan(staged.key);
      });
  if (staged_.empty()) {
    RemoveStale();
  } else if (has_unordered) {
    RemoveStale();
    for (const Staged& staged : staged_) {
      Offer({staged.key, staged.segment.position, staged.segment.test}, UpdateMode::kIncremental);
    }
  } else {
    Merge();
  }
  stale_count_ = 0;
  staged_.clear();
}

void CandidateList::Allocate() {
  active_ = std::make_unique<Storage>();
  spare_ = std::make_unique<Storage>();
  stale_ = std::make_unique<std::uint16_t[]>(kListCapacity);
}

void CandidateList::MarkUnsetKeys() {
  std::size_t stale = 0;
  std::size_t kept_count = 0;
  std::uint16_t marked[kListCapacity];
  for (std::size_t i = 0; i < size_; ++i) {
    const bool is_marked = stale < stale_count_ && stale_[stale] == i;
    stale += is_marked ? 1 : 0;
    if (is_marked || active_->keys[i] == kUnset) {
      marked[kept_count++] = static_cast<std::uint16_t>(i);
    }
  }
  std::copy_n(marked, kept_count, stale_.get());
  stale_count_ = kept_count;
}

void CandidateList::RemoveStale() {
  for (std::size_t s = 0; s < stale_count_; ++s) {
    const std::size_t from = stale_[s] + std::size_t{1};
    const std::size_t to = s + 1 < stale_count_ ? stale_[s + 1] : size_;
    MoveEntries(from, stale_[s] - s, to - from);
  }
  size_ -= stale_count_;
}

// Writes the spare storage from its end, best first, until all is there or it is full.
void CandidateList::Merge() {
  std::sort(staged_.begin(), staged_.end(), [](const Staged& a, const Staged& b) {
    return a.key != b.key ? a.key < b.key : a.number < b.number;
  });
  const std::size_t total = std::min(kListCapacity, size_ - stale_count_ + staged_.size());
  std::size_t out = total;  // entries from here on are written
  std::size_t in = size_;   // entries from here on are read
  std::size_t stale = stale_count_;
  // Copies the entries from `until` on that stay.
  const auto copy_down_to = [&](std::size_t until) {
    while (in > until && out > 0) {
      const bool ends_at_stale = stale > 0 && stale_[stale - 1] >= until;
      const std::size_t first = ends_at_stale ? stale_[stale - 1] + std::size_t{1} : until;
      const std::size_t count = std::min(in - first, out);
      out -= count;
      std::memcpy(spare_->keys + out, active_->keys + in - count, count * sizeof(double));
      std::memcpy(spare_->segments + out, active_->segments + in - count, count * sizeof(Segment));
      in = ends_at_stale ? first - 1 : first;
      stale -= ends_at_stale ? 1 : 0;
    }
  };
  for (auto staged = staged_.rbegin(); staged != staged_.rend() && out > 0; ++staged) {
    // Behind the equal ones, which are older.
    copy_down_to(static_cast<std::size_t>(
        std::upper_bound(active_->keys, active_->keys + in, staged->key) - active_->keys));
    if (out == 0) break;
    --out;
    spare_->keys[out] = staged->key;
    spare_->segments[out] = staged->segment;
  }
  copy_down_to(0);
  std::swap(active_, spare_);
  size_ = total;
}

void CandidateList::MoveEntries(std::size_t from, std::size_t to, std::size_t count) {
  Storage& entries = *active_;
  std::memmove(entries.keys + to, entries.keys + from, count * sizeof(entries.keys[0]));
  std::memmove(entries.segments + to, entries.segments + from, count * sizeof(entries.segments[0]));
}

}  // namespace QuenloftSolver
