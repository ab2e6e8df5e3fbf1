// SPDX-License-Identifier: MIT
//
// The bounded list of the best segments of one class, from which a step takes the
// segment to split. A step offers some hundred entries and takes one.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

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

// Invariants (marked candidates stay listed until Commit):
//   (1) Size() <= kListCapacity, and keys ascend, so the best candidate is last.
//   (2) Among equal keys the one offered later stands nearer the end.
//   (3) No candidate stands twice.
// Cost: Offer O(log size) to find and one move of the better entries; TakeBest
// O(1); MarkStale and Commit one pass each. Storage is allocated by the first offer
// that is kept, and never again.
// Threads: none.
class CandidateList {
 public:
  std::size_t Size() const { return size_; }
  bool IsEmpty() const { return size_ == 0; }
  // Whether anything was ever offered.
  bool IsUsed() const { return is_used_; }
  // 0 is the least promising candidate.
  Candidate operator[](std::size_t i) const {
    return {active_->keys[i], active_->segments[i].position, active_->segments[i].test};
  }
  double BestKey() const { return active_->keys[size_ - 1]; }

  // Lists a candidate unless it is listed already, or every listed key is better
  // and the list is full or the update incremental: an incremental update adds
  // nothing below the least promising entry, so that an emptied list asks for a
  // full update instead of living on leftovers.
  void Offer(const Candidate& candidate, UpdateMode mode);

  // The list must not be empty.
  Candidate TakeBest();

  void Clear();

  // An incremental update in one go. The plain way removes what is stale, which moves
  // the list once, and inserts offers one by one, each of which moves what is better:
  // at N = 2 half of all instructions of a step. Instead MarkStale notes what is to go,
  // Stage what is to come, and Commit writes the list anew from its best end: what is
  // written is what is left after one offer after the other, because a full list loses
  // its least entry whatever the order, and offers of equal keys keep theirs.
  //
  // Marks the candidates for which `is_stale(position)` holds, and those whose key says
  // that it must be computed anew. `filter` has kFilterSize bytes; a 0 for a position
  // modulo kFilterSize says that it is not stale. Returns how many candidates stay.
  template <typename Predicate>
  std::size_t MarkStale(const std::uint8_t* filter, Predicate is_stale) {
    if (size_ == 0) return 0;
    const Storage& entries = *active_;
    std::uint16_t* stale = stale_.get();
    std::size_t found = 0;
    const auto suspicion = [&](std::size_t i) {
      return filter[entries.segments[i].position % kFilterSize];
    };
    // Eight at a time: few are stale.
    for (std::size_t i = 0; i < size_; i += 8) {
      const std::size_t end = std::min(size_, i + 8);
      if (end == i + 8 &&
          (suspicion(i) | suspicion(i + 1) | suspicion(i + 2) | suspicion(i + 3) |
           suspicion(i + 4) | suspicion(i + 5) | suspicion(i + 6) | suspicion(i + 7)) == 0) {
        continue;
      }
      for (std::size_t j = i; j < end; ++j) {
        stale[found] = static_cast<std::uint16_t>(j);
        found += suspicion(j);
      }
    }
    stale_count_ = 0;
    for (std::size_t f = 0; f < found; ++f) {
      if (is_stale(entries.segments[stale[f]].position)) stale[stale_count_++] = stale[f];
    }
    if (has_unordered_keys_) MarkUnsetKeys();
    return size_ - stale_count_;
  }
  static constexpr std::uint32_t kFilterSize = 256;

  // Offers a candidate of an incremental update that is not listed, to take effect by
  // Commit.
  void Stage(const Candidate& candidate);
  void Commit();

  // Whether some listed key may be kUnset or NaN, so that every update must mark them.
  bool HasUnorderedKeys() const { return has_unordered_keys_; }

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
  struct Staged {
    double key;
    std::size_t number;  // in the order of offers
    Segment segment;
  };

  void Allocate();
  void MarkUnsetKeys();
  void RemoveStale();
  void Merge();
  void MoveEntries(std::size_t from, std::size_t to, std::size_t count);

  std::size_t size_ = 0;
  bool is_used_ = false;
  bool has_unordered_keys_ = false;
  std::unique_ptr<Storage> active_;
  std::unique_ptr<Storage> spare_;  // trades places with active_ at a Commit

  // The update under way.
  std::unique_ptr<std::uint16_t[]> stale_;  // places, ascending
  std::size_t stale_count_ = 0;
  std::vector<Staged> staged_;
};

}  // namespace QuenloftSolver
