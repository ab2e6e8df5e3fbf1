// SPDX-License-Identifier: MIT

#include "solver/key_bounds.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <functional>

namespace QuenloftSolver {
namespace {

// Four maxima side by side, as each waits for the one before.
double MaximumOf(const double* values, std::size_t count) {
  constexpr double kLeast = -KeyBounds::kUnknown;
  double maxima[4] = {kLeast, kLeast, kLeast, kLeast};
  std::size_t i = 0;
  for (; i + 4 <= count; i += 4) {
    for (std::size_t k = 0; k < 4; ++k) maxima[k] = std::max(maxima[k], values[i + k]);
  }
  for (; i < count; ++i) maxima[0] = std::max(maxima[0], values[i]);
  return std::max(std::max(maxima[0], maxima[1]), std::max(maxima[2], maxima[3]));
}

double NthLargest(std::size_t n, std::vector<double>& values) {
  const auto nth = values.begin() + static_cast<std::ptrdiff_t>(n - 1);
  std::nth_element(values.begin(), nth, values.end(), std::greater<>());
  return *nth;
}

}  // namespace

void KeyBounds::Set(std::uint32_t position, double key) {
  if (std::isnan(key)) key = kUnknown;
  Grow(position + std::size_t{1});
  if (keys_[position] == key) return;
  if (keys_[position] == kUnknown) --unknown_count_;
  if (key == kUnknown) ++unknown_count_;
  keys_[position] = key;
  const std::size_t block = position / kBlockSize;
  if (block_changed_[block]) return;
  changed_blocks_.push_back(static_cast<std::uint32_t>(block));
  block_changed_[block] = 1;
}

void KeyBounds::Grow(std::size_t count) {
  while (keys_.size() < count) {
    const std::size_t block = keys_.size() / kBlockSize;
    if (block == block_maximum_.size()) {
      block_changed_.push_back(0);  // first: where memory runs out, one too many does no harm
      block_maximum_.push_back(kUnknown);
    }
    block_maximum_[block] = kUnknown;
    groups_changed_ = true;
    keys_.push_back(kUnknown);
    ++unknown_count_;
  }
}

void KeyBounds::Settle() {
  // They stand anywhere in memory.
  constexpr std::size_t kAhead = 16;
  const std::size_t count = changed_blocks_.size();
  for (std::size_t i = 0; i < count; ++i) {
    FetchBlock(changed_blocks_[std::min(i + kAhead, count - 1)]);
    const std::size_t block = changed_blocks_[i];
    const std::size_t begin = block * kBlockSize;
    block_maximum_[block] = MaximumOf(keys_.data() + begin, EndOfBlock(block) - begin);
    block_changed_[block] = 0;
  }
  if (count == 0 && !groups_changed_) return;
  changed_blocks_.clear();
  groups_changed_ = false;
  group_maximum_.resize((block_maximum_.size() + kGroupSize - 1) / kGroupSize);
  for (std::size_t group = 0; group < group_maximum_.size(); ++group) {
    const std::size_t begin = group * kGroupSize;
    group_maximum_[group] = MaximumOf(block_maximum_.data() + begin, EndOfGroup(group) - begin);
  }
}

std::size_t KeyBounds::EndOfFirst(std::size_t count, double key) const {
  for (std::size_t group = 0; count > 0 && group < GroupCount(); ++group) {
    if (group_maximum_[group] < key) continue;
    for (std::size_t block = group * kGroupSize; block < EndOfGroup(group); ++block) {
      if (block_maximum_[block] < key) continue;
      for (std::size_t p = block * kBlockSize; p < EndOfBlock(block); ++p) {
        if (keys_[p] == key && --count == 0) return p + 1;
      }
    }
  }
  return count == 0 ? 0 : keys_.size();
}

std::size_t KeyBounds::BeginOfLast(std::size_t count, double key) const {
  if (count == 0) return keys_.size();
  for (std::size_t group = GroupCount(); group-- > 0;) {
    if (group_maximum_[group] < key) continue;
    for (std::size_t block = EndOfGroup(group); block-- > group * kGroupSize;) {
      if (block_maximum_[block] < key) continue;
      for (std::size_t p = EndOfBlock(block); p-- > block * kBlockSize;) {
        if (keys_[p] == key && --count == 0) return p;
      }
    }
  }
  return 0;
}

double KeyBounds::ReachedBy(std::size_t count) {
  Settle();
  count += unknown_count_;
  if (keys_.size() < count || count == 0) return -kUnknown;
  if (block_maximum_.size() < count) {
    scratch_ = keys_;
    return NthLargest(count, scratch_);
  }
  // A maximum is some trial's key, so the nth largest of a level is reached often enough;
  // good trials stand together, so most often by many more.
  double reached = -kUnknown;
  if (group_maximum_.size() >= count) {
    scratch_ = group_maximum_;
    reached = NthLargest(count, scratch_);
  }
  scratch_.clear();
  for (std::size_t group = 0; group < GroupCount(); ++group) {
    if (group_maximum_[group] < reached) continue;
    for (std::size_t block = group * kGroupSize; block < EndOfGroup(group); ++block) {
      if (block_maximum_[block] >= reached) scratch_.push_back(block_maximum_[block]);
    }
  }
  reached = NthLargest(count, scratch_);
  scratch_.clear();
  for (std::size_t group = 0; group < GroupCount(); ++group) {
    if (group_maximum_[group] < reached) continue;
    for (std::size_t block = group * kGroupSize; block < EndOfGroup(group); ++block) {
      if (block_maximum_[block] < reached) continue;
      for (std::size_t p = block * kBlockSize; p < EndOfBlock(block); ++p) {
        if (keys_[p] >= reached) scratch_.push_back(keys_[p]);
      }
    }
  }
  return NthLargest(count, scratch_);
}

}  // namespace QuenloftSolver
