// SPDX-License-Identifier: MIT
//
// The best key of every trial's segments in one class, so that an update of every trial can
// pass over those whose segments are all too poor for a list.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "solver/aligned.h"
#include "solver/scratch.h"

namespace QuenloftSolver {

// Trials have numbers from 0, here called ranks. Their keys stand in blocks with a maximum
// each: of a million trials 30,000 numbers in a row tell where to look closer, which takes some
// ten microseconds, and an update of every trial comes once in a thousand steps.
//
// Cost: Set O(1), or one look at a block; what is asked, O(blocks) and in proportion to the
// trials in those that count.
// Threads: none.
class KeyBounds {
 public:
  // In place of a key: of a trial without segments, below all keys; and of one whose best key
  // is not known, above all of them.
  static constexpr double kAbsent = -std::numeric_limits<double>::infinity();
  static constexpr double kUnknown = std::numeric_limits<double>::infinity();

  // The better of what is known so far, kAbsent at first, and another key of the same trial.
  // Keys that are not in order with the others, NaN and -infinity, make it unknown.
  static double Better(double best, double key) {
    return key > kAbsent ? std::max(best, key) : kUnknown;
  }

  void Set(std::uint32_t rank, double best_key);
  // Of a trial never set it is kAbsent.
  double operator[](std::size_t rank) const { return rank < keys_.size() ? keys_[rank] : kAbsent; }
  bool HasUnknown() const { return unknown_count_ > 0; }

  // A key that at least `count` trials are known to reach; kAbsent when there are fewer.
  double ReachedBy(std::size_t count);
  // Where the first, or the last, `count` trials with just this key end, or begin; with
  // fewer, where all trials do.
  std::size_t EndOfFirst(std::size_t count, double key) const;
  std::size_t BeginOfLast(std::size_t count, double key) const;
  // The ranks, in ascending order, of the trials that are needed: what
  // bool needs(double bound, std::size_t first, std::size_t end) says of the trials from
  // `first` to before `end`, of which the best has the key `bound`.
  template <typename Needs>
  void List(Needs needs, std::vector<std::uint32_t>& ranks);

  // Remembers the bounds as they are, in place of an earlier checkpoint; Rollback makes them
  // that again, and the checkpoint stands no more. Neither allocates.
  void Checkpoint();
  void Rollback();

 private:
  static constexpr std::size_t kBlock = 32;

  struct Remembered {
    std::uint32_t rank;
    double key;
  };

  std::size_t EndOf(std::size_t block) const {
    return std::min((block + 1) * kBlock, keys_.size());
  }
  void Resize(std::size_t count);  // the keys last: where memory runs out, it is done again
  void FindMaximum(std::size_t block);

  std::vector<double> keys_;
  std::vector<double> maxima_;  // of blocks
  std::size_t unknown_count_ = 0;

  bool has_checkpoint_ = false;
  std::size_t size_before_ = 0;  // at the checkpoint
  std::vector<Remembered> remembered_;

  Scratch<std::vector<std::uint32_t>> blocks_;
  Scratch<std::vector<double>> values_;
};

template <typename Needs>
void KeyBounds::List(Needs needs, std::vector<std::uint32_t>& ranks) {
  ranks.clear();
  blocks_.clear();
  for (std::size_t block = 0; block < maxima_.size(); ++block) {
    const std::size_t first = block * kBlock;
    if (maxima_[block] == kAbsent || !needs(maxima_[block], first, first + kBlock)) continue;
    FetchLines(&keys_[first], kBlock * sizeof(double));
    blocks_.push_back(static_cast<std::uint32_t>(block));
  }
  for (const std::size_t block : blocks_) {
    for (std::size_t rank = block * kBlock; rank < EndOf(block); ++rank) {
      if (keys_[rank] != kAbsent && needs(keys_[rank], rank, rank + 1)) {
        ranks.push_back(static_cast<std::uint32_t>(rank));
      }
    }
  }
}

}  // namespace QuenloftSolver
