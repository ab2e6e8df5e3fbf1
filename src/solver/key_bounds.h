// SPDX-License-Identifier: MIT
//
// The best key of every trial's segments in one class, so that an update of every trial can
// pass over those whose segments are all too poor for a list.

#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "solver/aligned.h"
#include "solver/scratch.h"

namespace QuenloftSolver {

// Trials have numbers from 0, here called ranks. Their keys stand in blocks of kFanOut with a
// common maximum, these maxima in blocks with one, and so on: of a million trials few maxima
// tell where to look closer. A change marks its block, whose maximum is computed anew by the
// next Settle.
//
// Cost: Set O(1); Settle O(log of the ranks) for each changed block; what is asked, the same
// for each trial that is looked at.
// Threads: none.
class KeyBounds {
 public:
  static constexpr std::size_t kFanOut = 16;
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
  void Prefetch(std::size_t rank) const {
    if (rank < keys_.size()) FetchLines(&keys_[rank], sizeof(double));
  }
  bool HasUnknown() const { return unknown_count_ > 0; }

  // Brings the maxima up to date. All of the following is valid from then to the next change.
  void Settle();

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
  void List(Needs needs, std::vector<std::uint32_t>& ranks) const;

  // Remembers the bounds as they are, in place of an earlier checkpoint; Rollback makes them
  // that again, and the checkpoint stands no more. Neither allocates.
  void Checkpoint();
  void Rollback();

 private:
  static constexpr std::size_t kTop = 4;  // of the levels; the keys are level 0

  // What changes with the keys below it.
  struct Level {
    std::vector<double> maxima;
    std::vector<std::uint8_t> is_changed;
    std::vector<std::uint32_t> changed;  // has room for all
  };
  struct Remembered {
    std::uint32_t rank;
    double key;
  };

  const std::vector<double>& Values(std::size_t level) const {
    return level == 0 ? keys_ : levels_[level - 1].maxima;
  }
  void Resize(std::size_t count);  // the keys last: where memory runs out, it is done again
  void MarkChanged(std::size_t level, std::size_t node);
  template <typename Keep>  // bool(double value, std::size_t node)
  void Expand(std::size_t level, Keep keep, std::vector<std::uint32_t>& nodes) const;
  template <bool kIsForward>
  bool Find(std::size_t level, std::size_t begin, std::size_t end, double key, std::size_t& count,
            std::size_t& rank) const;

  std::vector<double> keys_;
  std::size_t unknown_count_ = 0;
  std::array<Level, kTop> levels_;

  bool has_checkpoint_ = false;
  std::size_t size_before_ = 0;  // at the checkpoint
  std::vector<Remembered> remembered_;

  mutable Scratch<std::vector<std::uint32_t>> blocks_;
  Scratch<std::vector<std::uint32_t>> nodes_;
  Scratch<std::vector<double>> values_;
};

// Replaces nodes of the level above, unless this is the top, by those below them that are
// kept; of what is absent none is.
template <typename Keep>
void KeyBounds::Expand(std::size_t level, Keep keep, std::vector<std::uint32_t>& nodes) const {
  const std::vector<double>& values = Values(level);
  const auto keep_from = [&](std::size_t begin, std::size_t end) {
    for (std::size_t node = begin; node < std::min(end, values.size()); ++node) {
      if (values[node] != kAbsent && keep(values[node], node)) {
        nodes.push_back(static_cast<std::uint32_t>(node));
      }
    }
  };
  blocks_.assign(nodes.begin(), nodes.end());
  nodes.clear();
  if (level == kTop) return keep_from(0, values.size());
  constexpr std::size_t kAhead = 16;  // they stand anywhere in memory
  for (std::size_t i = 0; i < blocks_.size(); ++i) {
    FetchLines(&values[blocks_[std::min(i + kAhead, blocks_.size() - 1)] * kFanOut],
               kFanOut * sizeof(double));
    keep_from(blocks_[i] * kFanOut, (blocks_[i] + std::size_t{1}) * kFanOut);
  }
}

template <typename Needs>
void KeyBounds::List(Needs needs, std::vector<std::uint32_t>& ranks) const {
  ranks.clear();
  std::size_t span = 1;
  for (std::size_t level = 0; level < kTop; ++level) span *= kFanOut;
  for (std::size_t level = kTop + 1; level-- > 0; span /= kFanOut) {
    const auto keep = [&](double bound, std::size_t node) {
      return needs(bound, node * span, (node + 1) * span);
    };
    Expand(level, keep, ranks);
  }
}

}  // namespace QuenloftSolver
