// SPDX-License-Identifier: MIT
//
// The bounded list of the best segments of one class, from which a step takes the
// segment to split. A step offers some hundred entries and takes one.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "solver/constants.h"

namespace QuenloftSolver {

// A segment to split, as the table of one of its ends describes it.
struct Candidate {
  double key;              // the larger, the more promising
  std::uint32_t position;  // the trial whose table holds the entry
  std::int32_t test;       // the entry's `test`
};

// How far an update reaches: over every trial, or over those just rebuilt.
enum class UpdateMode { kFull, kIncremental };

// Invariants:
//   (1) Size() <= kListCapacity, and keys ascend, so the best candidate is last.
//   (2) Among equal keys the one offered later stands nearer the end.
//   (3) No candidate stands twice.
// Cost: Offer O(log size) to find and one move of the better entries; TakeBest
// O(1); Remove one pass. Storage is allocated by the first offer that is kept, and
// never again.
// Threads: none.
class CandidateList {
 public:
  std::size_t Size() const { return size_; }
  bool IsEmpty() const { return size_ == 0; }
  // Whether anything was ever offered.
  bool IsUsed() const { return is_used_; }
  // 0 is the least promising candidate.
  Candidate operator[](std::size_t i) const {
    return {storage_->keys[i], storage_->segments[i].position, storage_->segments[i].test};
  }
  double BestKey() const { return storage_->keys[size_ - 1]; }

  // Lists a candidate unless it is listed already, or every listed key is better
  // and the list is full or the update incremental: an incremental update adds
  // nothing below the least promising entry, so that an emptied list asks for a
  // full update instead of living on leftovers.
  void Offer(const Candidate& candidate, UpdateMode mode);

  // The list must not be empty.
  Candidate TakeBest();

  void Clear() { size_ = 0; }

  // Removes the candidates for which `is_stale(position)` holds, and those whose
  // key says that it must be computed anew; the others keep their order.
  template <typename Predicate>
  void Remove(Predicate is_stale) {
    if (size_ == 0) return;
    Storage& entries = *storage_;
    std::size_t i = 0;
    while (i < size_ && !(is_stale(entries.segments[i].position) || entries.keys[i] == kUnset)) ++i;
    std::size_t kept = i;
    for (; i < size_; ++i) {
      if (is_stale(entries.segments[i].position) || entries.keys[i] == kUnset) continue;
      entries.keys[kept] = entries.keys[i];
      entries.segments[kept] = entries.segments[i];
      ++kept;
    }
    size_ = kept;
  }

  // Whether some listed key may be kUnset, so that every update must call Remove.
  bool MayHoldUnsetKeys() const { return may_hold_unset_keys_; }

 private:
  struct Segment {
    std::uint32_t position;
    std::int32_t test;
  };
  // Two columns: the search for a place reads keys alone.
  struct Storage {
    double keys[kListCapacity];
    Segment segments[kListCapacity];
  };

  void MoveEntries(std::size_t from, std::size_t to, std::size_t count);

  std::size_t size_ = 0;
  bool is_used_ = false;
  bool may_hold_unset_keys_ = false;
  std::unique_ptr<Storage> storage_;
};

}  // namespace QuenloftSolver
