// SPDX-License-Identifier: MIT
//
// The best key of every trial's segments, so that an update of every trial can pass
// over those whose segments are all too poor for a list.

#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace QuenloftSolver {

// Trials stand in blocks with a common maximum. A change marks its block, whose
// maximum is computed anew when it is next asked for.
//
// Cost: Set O(1); ReachedBy and Settle O(changed blocks + blocks).
// Threads: none.
class KeyBounds {
 public:
  static constexpr std::size_t kBlockSize = 16;
  // In place of a key: above all keys, and of no trial.
  static constexpr double kUnknown = std::numeric_limits<double>::infinity();

  // The best key of the trial at `position`; one that is NaN counts as unknown.
  void Set(std::uint32_t position, double key);
  // Makes `count` trials, those added with unknown keys.
  void Grow(std::size_t count);

  // A key that at least `count` trials are known to reach; -infinity when there are
  // fewer.
  double ReachedBy(std::size_t count);

  // Trials with just this key. Valid after Settle.
  std::size_t CountOf(double key) const;

  // Brings the maxima of blocks up to date.
  void Settle();

  std::size_t Size() const { return keys_.size(); }
  // Valid after Settle.
  double BlockMaximum(std::size_t block) const { return block_maximum_[block]; }
  double operator[](std::size_t position) const { return keys_[position]; }

 private:
  std::size_t unknown_count_ = 0;
  std::vector<double> keys_;
  std::vector<double> block_maximum_;
  std::vector<std::uint8_t> block_changed_;
  std::vector<std::uint32_t> changed_blocks_;
  std::vector<double> scratch_;
};

}  // namespace QuenloftSolver
