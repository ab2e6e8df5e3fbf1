// SPDX-License-Identifier: MIT

#include "solver/key_bounds.h"

#include <algorithm>
#include <cassert>
#include <functional>

namespace QuenloftSolver {

void KeyBounds::Set(std::uint32_t rank, double best_key) {
  assert(best_key == best_key);
  if ((*this)[rank] == best_key) return;
  if (rank >= keys_.size()) Resize(rank + std::size_t{1});
  if (has_checkpoint_ && rank < size_before_) remembered_.push_back({rank, keys_[rank]});
  if (keys_[rank] == kUnknown) --unknown_count_;
  if (best_key == kUnknown) ++unknown_count_;
  keys_[rank] = best_key;
  MarkChanged(1, rank / kFanOut);
}

void KeyBounds::Resize(std::size_t count) {
  std::size_t nodes = count;
  for (Level& level : levels_) {
    nodes = (nodes + kFanOut - 1) / kFanOut;
    level.is_changed.resize(nodes);
    level.maxima.resize(nodes, kAbsent);
    level.changed.reserve(level.maxima.capacity());
  }
  keys_.resize(count, kAbsent);
}

void KeyBounds::MarkChanged(std::size_t level, std::size_t node) {
  Level& changed = levels_[level - 1];
  if (changed.is_changed[node]) return;
  changed.changed.push_back(static_cast<std::uint32_t>(node));
  changed.is_changed[node] = 1;
}

void KeyBounds::Settle() {
  for (std::size_t l = 1; l <= kTop; ++l) {
    const std::vector<double>& values = Values(l - 1);
    Level& level = levels_[l - 1];
    constexpr std::size_t kAhead = 16;  // they stand anywhere in memory
    for (std::size_t i = 0; i < level.changed.size(); ++i) {
      const std::size_t ahead = level.changed[std::min(i + kAhead, level.changed.size() - 1)];
      FetchLines(values.data() + ahead * kFanOut, kFanOut * sizeof(double));
      const std::size_t node = level.changed[i];
      const double* const begin = values.data() + node * kFanOut;
      const double* const end = values.data() + std::min(values.size(), (node + 1) * kFanOut);
      level.maxima[node] = *std::max_element(begin, end);
      level.is_changed[node] = 0;
      if (l < kTop) MarkChanged(l + 1, node / kFanOut);
    }
    level.changed.clear();
  }
}

// A maximum is some trial's key, so the nth largest of a level is reached often enough; good
// trials stand together, so most often by many more.
double KeyBounds::ReachedBy(std::size_t count) {
  count += unknown_count_;
  if (count == 0) return kAbsent;
  double reached = kAbsent;
  nodes_.clear();
  for (std::size_t level = kTop + 1; level-- > 0;) {
    Expand(
        level, [&](double value, std::size_t) { return value >= reached; }, nodes_);
    if (nodes_.size() < count) continue;
    values_.clear();
    for (const std::uint32_t node : nodes_) values_.push_back(Values(level)[node]);
    const auto nth = values_.begin() + static_cast<std::ptrdiff_t>(count - 1);
    std::nth_element(values_.begin(), nth, values_.end(), std::greater<>());
    reached = *nth;
  }
  return reached;
}

// The last, or the first, of `count` trials with this key, of those below the nodes from
// `begin` to before `end`. False, and those that were found are counted off, if there are
// fewer.
template <bool kIsForward>
bool KeyBounds::Find(std::size_t level, std::size_t begin, std::size_t end, double key,
                     std::size_t& count, std::size_t& rank) const {
  const std::vector<double>& values = Values(level);
  end = std::min(end, values.size());
  for (std::size_t i = begin; i < end; ++i) {
    const std::size_t node = kIsForward ? i : end - 1 - (i - begin);
    if (values[node] < key) continue;
    if (level > 0) {
      if (Find<kIsForward>(level - 1, node * kFanOut, (node + 1) * kFanOut, key, count, rank)) {
        return true;
      }
    } else if (values[node] == key && --count == 0) {
      rank = node;
      return true;
    }
  }
  return false;
}

std::size_t KeyBounds::EndOfFirst(std::size_t count, double key) const {
  if (count == 0) return 0;
  std::size_t rank = 0;
  return Find<true>(kTop, 0, SIZE_MAX, key, count, rank) ? rank + 1 : keys_.size();
}

std::size_t KeyBounds::BeginOfLast(std::size_t count, double key) const {
  if (count == 0) return keys_.size();
  std::size_t rank = 0;
  return Find<false>(kTop, 0, SIZE_MAX, key, count, rank) ? rank : 0;
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
  for (Level& level : levels_) {
    const auto is_gone = [&](std::uint32_t node) { return node >= level.maxima.size(); };
    std::vector<std::uint32_t>& changed = level.changed;
    changed.erase(std::remove_if(changed.begin(), changed.end(), is_gone), changed.end());
  }
  // The last block may have lost some of its trials.
  if (size_before_ > 0) MarkChanged(1, (size_before_ - 1) / kFanOut);
}

}  // namespace QuenloftSolver
