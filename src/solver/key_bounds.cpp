// SPDX-License-Identifier: MIT

#include "solver/key_bounds.h"

#include <algorithm>
#include <cassert>
#include <functional>

namespace QuenloftSolver {

void KeyBounds::Set(std::uint32_t rank, double best_key) {
  assert(best_key == best_key);
  const double before = (*this)[rank];
  if (before == best_key) return;
  if (rank >= keys_.size()) Resize(rank + std::size_t{1});
  if (has_checkpoint_ && rank < size_before_) remembered_.push_back({rank, before});
  if (before == kUnknown) --unknown_count_;
  if (best_key == kUnknown) ++unknown_count_;
  keys_[rank] = best_key;
  double& maximum = maxima_[rank / kBlock];
  if (best_key > maximum) {
    maximum = best_key;
  } else if (before == maximum) {
    FindMaximum(rank / kBlock);
  }
}

void KeyBounds::Resize(std::size_t count) {
  maxima_.resize((count + kBlock - 1) / kBlock, kAbsent);
  keys_.resize(count, kAbsent);
}

void KeyBounds::FindMaximum(std::size_t block) {
  double maximum = kAbsent;
  for (std::size_t rank = block * kBlock; rank < EndOf(block); ++rank) {
    maximum = std::max(maximum, keys_[rank]);
  }
  maxima_[block] = maximum;
}

// A maximum is some trial's key, so the nth largest of them is reached often enough; good
// trials stand together, so most often by many more.
double KeyBounds::ReachedBy(std::size_t count) {
  count += unknown_count_;
  if (count == 0) return kAbsent;
  const auto nth_largest = [&] {
    if (values_.size() < count) return kAbsent;
    const auto nth = values_.begin() + static_cast<std::ptrdiff_t>(count - 1);
    std::nth_element(values_.begin(), nth, values_.end(), std::greater<>());
    return *nth;
  };
  values_.assign(maxima_.begin(), maxima_.end());
  const double reached = nth_largest();
  values_.clear();
  for (std::size_t block = 0; block < maxima_.size(); ++block) {
    if (maxima_[block] < reached) continue;
    for (std::size_t rank = block * kBlock; rank < EndOf(block); ++rank) {
      if (keys_[rank] >= reached) values_.push_back(keys_[rank]);
    }
  }
  return nth_largest();
}

std::size_t KeyBounds::EndOfFirst(std::size_t count, double key) const {
  if (count == 0) return 0;
  for (std::size_t block = 0; block < maxima_.size(); ++block) {
    if (maxima_[block] < key) continue;
    for (std::size_t rank = block * kBlock; rank < EndOf(block); ++rank) {
      if (keys_[rank] == key && --count == 0) return rank + 1;
    }
  }
  return keys_.size();
}

std::size_t KeyBounds::BeginOfLast(std::size_t count, double key) const {
  if (count == 0) return keys_.size();
  for (std::size_t block = maxima_.size(); block-- > 0;) {
    if (maxima_[block] < key) continue;
    for (std::size_t rank = EndOf(block); rank-- > block * kBlock;) {
      if (keys_[rank] == key && --count == 0) return rank;
    }
  }
  return 0;
}

void KeyBounds::Checkpoint() {
  remembered_.clear();
  size_before_ = keys_.size();
  has_checkpoint_ = true;
}

void KeyBounds::Rollback() {
  assert(has_checkpoint_);
  has_checkpoint_ = false;
  for (std::size_t i = remembered_.size(); i-- > 0;) {
    Set(remembered_[i].rank, remembered_[i].key);
  }
  remembered_.clear();
  unknown_count_ -= static_cast<std::size_t>(
      std::count(keys_.begin() + static_cast<std::ptrdiff_t>(size_before_), keys_.end(), kUnknown));
  Resize(size_before_);
  // The last block may have lost some of its trials.
  if (size_before_ > 0) FindMaximum((size_before_ - 1) / kBlock);
}

}  // namespace QuenloftSolver
