// SPDX-License-Identifier: MIT

#include "solver/key_bounds.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <functional>

namespace QuenloftSolver {

void KeyBounds::Set(std::uint32_t position, double key) {
  if (std::isnan(key)) key = kUnknown;
  Grow(position + std::size_t{1});
  if (keys_[position] == kUnknown) --unknown_count_;
  if (key == kUnknown) ++unknown_count_;
  keys_[position] = key;
  const std::size_t block = position / kBlockSize;
  if (block_changed_[block]) return;
  block_changed_[block] = 1;
  changed_blocks_.push_back(static_cast<std::uint32_t>(block));
}

void KeyBounds::Grow(std::size_t count) {
  while (keys_.size() < count) {
    const std::size_t block = keys_.size() / kBlockSize;
    if (block == block_maximum_.size()) {
      block_maximum_.push_back(kUnknown);
      block_changed_.push_back(0);
    }
    block_maximum_[block] = kUnknown;
    keys_.push_back(kUnknown);
    ++unknown_count_;
  }
}

void KeyBounds::Settle() {
  for (const std::uint32_t block : changed_blocks_) {
    const auto begin = keys_.begin() + static_cast<std::ptrdiff_t>(block * kBlockSize);
    const auto left = static_cast<std::size_t>(keys_.end() - begin);
    block_maximum_[block] =
        *std::max_element(begin, begin + static_cast<std::ptrdiff_t>(std::min(kBlockSize, left)));
    block_changed_[block] = 0;
  }
  changed_blocks_.clear();
}

std::size_t KeyBounds::CountOf(double key) const {
  std::size_t count = 0;
  for (std::size_t block = 0; block < block_maximum_.size(); ++block) {
    if (block_maximum_[block] < key) continue;
    const std::size_t end = std::min(keys_.size(), (block + 1) * kBlockSize);
    for (std::size_t p = block * kBlockSize; p < end; ++p) count += keys_[p] == key ? 1 : 0;
  }
  return count;
}

double KeyBounds::ReachedBy(std::size_t count) {
  Settle();
  count += unknown_count_;
  if (keys_.size() < count || count == 0) return -kUnknown;
  const auto nth_largest = [count](std::vector<double>& values) {
    const auto nth = values.begin() + static_cast<std::ptrdiff_t>(count - 1);
    std::nth_element(values.begin(), nth, values.end(), std::greater<>());
    return *nth;
  };
  if (block_maximum_.size() < count) {
    scratch_ = keys_;
    return nth_largest(scratch_);
  }
  // A block's maximum is some trial's key, so their nth largest is reached often
  // enough; good trials stand together, so most often by many more.
  scratch_ = block_maximum_;
  const double reached = nth_largest(scratch_);
  scratch_.clear();
  for (std::size_t block = 0; block < block_maximum_.size(); ++block) {
    if (block_maximum_[block] < reached) continue;
    const std::size_t end = std::min(keys_.size(), (block + 1) * kBlockSize);
    for (std::size_t p = block * kBlockSize; p < end; ++p) {
      if (keys_[p] >= reached) scratch_.push_back(keys_[p]);
    }
  }
  return nth_largest(scratch_);
}

}  // namespace QuenloftSolver
