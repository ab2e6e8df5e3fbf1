// SPDX-License-Identifier: MIT
//
// The best key of every trial's segments, so that an update of every trial can pass
// over those whose segments are all too poor for a list.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "solver/aligned.h"

namespace QuenloftSolver {

// Trials stand in blocks with a common maximum, and blocks in groups with one: of a
// million trials few thousand maxima tell where to look closer. A change marks its block,
// whose maximum is computed anew when it is next asked for.
//
// Cost: Set O(1); Settle O(changed blocks + blocks); ReachedBy, EndOfFirst and
// BeginOfLast O(groups) and where they look closer.
// Threads: none.
class KeyBounds {
 public:
  static constexpr std::size_t kBlockSize = 16;  // trials
  static constexpr std::size_t kGroupSize = 16;  // blocks
  // In place of a key: above all keys, and of no trial.
  static constexpr double kUnknown = std::numeric_limits<double>::infinity();

  // The best key of the trial at `position`; one that is NaN counts as unknown.
  void Set(std::uint32_t position, double key);
  // Makes `count` trials, those added with unknown keys.
  void Grow(std::size_t count);

  // Ask memory for a trial's key, or for those of a block, to be read or set later.
  void Fetch(std::uint32_t position) const {
    if (position < keys_.size()) FetchLines(&keys_[position], sizeof(double));
  }
  void FetchBlock(std::size_t block) const {
    FetchLines(&keys_[block * kBlockSize], kBlockSize * sizeof(double));
  }

  // Whether some key is unknown.
  bool HasUnknown() const { return unknown_count_ > 0; }

  // A key that at least `count` trials are known to reach; -infinity when there are
  // fewer.
  double ReachedBy(std::size_t count);

  // Where the first, or the last, `count` trials with just this key end, or begin; with
  // fewer, where all trials do. Valid after Settle.
  std::size_t EndOfFirst(std::size_t count, double key) const;
  std::size_t BeginOfLast(std::size_t count, double key) const;

  // Brings the maxima of blocks up to date.
  void Settle();

  std::size_t Size() const { return keys_.size(); }
  double operator[](std::size_t position) const { return keys_[position]; }
  std::size_t GroupCount() const { return group_maximum_.size(); }
  // Valid after Settle.
  double GroupMaximum(std::size_t group) const { return group_maximum_[group]; }
  double BlockMaximum(std::size_t block) const { return block_maximum_[block]; }
  std::size_t EndOfGroup(std::size_t group) const {
    return std::min(block_maximum_.size(), (group + 1) * kGroupSize);
  }
  std::size_t EndOfBlock(std::size_t block) const {
    return std::min(keys_.size(), (block + 1) * kBlockSize);
  }

 private:
  std::size_t unknown_count_ = 0;
  std::vector<double> keys_;
  std::vector<double> block_maximum_;
  std::vector<double> group_maximum_;
  bool groups_changed_ = false;
  std::vector<std::uint8_t> block_changed_;
  std::vector<std::uint32_t> changed_blocks_;
  std::vector<double> scratch_;
};

}  // namespace QuenloftSolver
