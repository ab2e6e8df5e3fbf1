// SPDX-License-Identifier: MIT
//
// Characteristics of segments, and the lists of the best of them. The larger a
// characteristic, the lower the function may go on its segment.

#pragma once

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "solver/list_demand.h"
#include "solver/solver.h"

namespace QuenloftSolver {

template <int N>
void Solver<N>::UpdateCandidates(UpdateMode mode) {
  if (mode == UpdateMode::kIncremental && !stale_are_marked_) MarkStaleCandidates();
  if (ClearOutdatedLists()) mode = UpdateMode::kFull;
  if (mode == UpdateMode::kFull) {
    ++work_.full_updates;
    CommitLists();
    UpdateEveryTrial();
  } else if (to_rescore_.size() == rebuilt_.size()) {
    for (const Rebuilt& rebuilt : rebuilt_) StageSegments(rebuilt);
    CommitLists();
  } else {
    // Some of what is offered may be listed already.
    CommitLists();
    for (const std::uint32_t position : to_rescore_) {
      OfferSegments(position, [](CandidateList& list, const Candidate& candidate) {
        list.Offer(candidate, UpdateMode::kIncremental);
      });
    }
  }
  if (slopes_changed_) std::fill(class_changed_.begin(), class_changed_.end(), std::uint8_t{0});
  slopes_changed_ = false;
}

// Marks what the lists hold of the trials whose tables are rebuilt, before, while or after
// that is done.
//
// The plain way looks every entry up in its trial's table, to see whether its
// characteristic still stands. But a characteristic is unset by a rebuild alone, and
// the next update sets it again, so an entry is stale exactly when its trial was
// rebuilt since (or its key happens to be the mark for unset). And rebuilt trials are of
// one combination, so the lists of others hold nothing stale; nor does a list whose
// least key none of the rebuilt trials reached before: more than half of all.
template <int N>
void Solver<N>::MarkStaleCandidates() {
  const std::uint32_t combination = tests_[changed_.front()].combination;
  for (std::uint32_t c = 0; c < class_count_; ++c) {
    const bool may_be_stale = c % combination_count_ == combination && !rebuilt_.empty();
    const auto mark = [&](CandidateList& list, const KeyBounds& bounds) {
      if (!may_be_stale && !list.HasUnorderedKeys()) return;
      ListRebuiltIn(list, bounds);
      if (!rebuilt_in_list_.empty()) work_.entries_visited += list.Size();
      list.MarkStale(rebuilt_in_list_.data(), rebuilt_in_list_.size());
    };
    mark(local_lists_[c], local_bounds_);
    mark(global_lists_[c], global_bounds_);
  }
}

// A global list is outdated as a whole when its class slope grew, which all its keys use. True
// when some list, global or local, held something once and has nothing left that is not stale:
// it asks for a full update.
template <int N>
bool Solver<N>::ClearOutdatedLists() {
  bool some_ran_dry = false;
  for (std::uint32_t c = 0; c < class_count_; ++c) {
    if (class_changed_[c]) global_lists_[c].Clear();
    for (const CandidateList* const list : {&local_lists_[c], &global_lists_[c]}) {
      some_ran_dry |= list->IsUsed() && list->StayingCount() == 0;
    }
  }
  return some_ran_dry;
}

// The rebuilt trials that may have entries in the list.
template <int N>
void Solver<N>::ListRebuiltIn(const CandidateList& list, const KeyBounds& bounds) {
  rebuilt_in_list_.clear();
  if (list.IsEmpty()) return;
  const double least = list.LeastKey();
  for (const std::uint32_t position : rebuilt_positions_) {
    // Beyond the bounds are trials that never were offered.
    const bool reaches = position < bounds.Size() && !(bounds[position] < least);
    if (reaches || list.HasUnorderedKeys()) {
      rebuilt_in_list_.push_back(position);
    }
  }
}

template <int N>
void Solver<N>::CommitLists() {
  for (std::uint32_t c = 0; c < class_count_; ++c) {
    local_lists_[c].Commit();
    global_lists_[c].Commit();
  }
}

// Offers the segments of every trial whose segments can leave a trace, in store order.
template <int N>
void Solver<N>::UpdateEveryTrial() {
  const auto each_list = [&](auto apply) {
    for (std::uint32_t c = 0; c < class_count_; ++c) {
      apply(local_lists_[c]);
      apply(global_lists_[c]);
    }
  };
  each_list([](CandidateList& list) { list.BeginFull(); });
  ListNeeded();
  // They stand anywhere in memory.
  constexpr std::size_t kAhead = 8;
  for (std::size_t i = 0; i < needed_.size(); ++i) {
    FetchLines(&tests_[needed_[std::min(i + kAhead, needed_.size() - 1)]], sizeof(Test<N>));
    OfferSegments(needed_[i],
                  [](CandidateList& list, const Candidate& candidate) { list.Gather(candidate); });
  }
  each_list([](CandidateList& list) { list.EndFull(); });
}

// With several classes, and when the class slope grew so that every global key must be
// computed anew, all trials are visited.
template <int N>
void Solver<N>::ListNeeded() {
  const std::uint32_t count = TestCount();
  needed_.clear();
  if (class_count_ != 1 || class_changed_[0] || global_bounds_.Size() == 0) {
    for (std::uint32_t p = 0; p < count; ++p) needed_.push_back(p);
    return;
  }
  // Computes their keys; no other can have become unknown.
  for (const Rebuilt& rebuilt : rebuilt_) {
    OfferSegments(rebuilt.position, [](CandidateList&, const Candidate&) {});
  }
  local_bounds_.Grow(count);
  global_bounds_.Grow(count);
  const ListDemand local(local_lists_[0], local_bounds_);
  const ListDemand global(global_lists_[0], global_bounds_);
  needed_blocks_.clear();
  for (std::size_t group = 0; group < local_bounds_.GroupCount(); ++group) {
    if (!local.NeedsGroup(group) && !global.NeedsGroup(group)) continue;
    const std::size_t end = local_bounds_.EndOfGroup(group);
    for (std::size_t block = group * KeyBounds::kGroupSize; block < end; ++block) {
      if (local.NeedsBlock(block) || global.NeedsBlock(block)) {
        needed_blocks_.push_back(static_cast<std::uint32_t>(block));
      }
    }
  }
  // Their keys stand anywhere in memory.
  constexpr std::size_t kAhead = 16;
  for (std::size_t i = 0; i < needed_blocks_.size(); ++i) {
    const std::size_t ahead = needed_blocks_[std::min(i + kAhead, needed_blocks_.size() - 1)];
    local_bounds_.FetchBlock(ahead);
    global_bounds_.FetchBlock(ahead);
    const std::size_t begin = needed_blocks_[i] * KeyBounds::kBlockSize;
    const std::size_t end = local_bounds_.EndOfBlock(needed_blocks_[i]);
    for (std::size_t p = begin; p < end; ++p) {
      if (local.NeedsTrial(p) || global.NeedsTrial(p)) {
        needed_.push_back(static_cast<std::uint32_t>(p));
      }
    }
  }
}

template <int N>
template <typename OfferTo>
void Solver<N>::OfferSegments(std::uint32_t position, OfferTo offer) {
  Test<N>& trial = tests_[position];
  double best_local = -std::numeric_limits<double>::infinity();
  double best_global = best_local;
  for (Neighbour& segment : trial.neighbours) {
    if (segment.test == kNone) break;
    // The other end is looked up only where it matters: it stands anywhere in memory.
    std::uint32_t c = trial.combination;
    const bool is_known =
        segment.local_characteristic != kUnset && segment.global_characteristic != kUnset;
    if (function_count_ > 1 || !is_known || class_changed_[c]) {
      c = SetCharacteristics(trial, segment);
    }
    offer(local_lists_[c], {segment.local_characteristic, position, segment.test});
    offer(global_lists_[c], {segment.global_characteristic, position, segment.test});
    work_.offers += 2;
    // With one class a trial's keys are NaN together, as its slopes are.
    if (!(segment.local_characteristic <= best_local)) best_local = segment.local_characteristic;
    if (!(segment.global_characteristic <= best_global)) {
      best_global = segment.global_characteristic;
    }
  }
  local_bounds_.Set(position, best_local);
  global_bounds_.Set(position, best_global);
}

// Computes the keys of a table that was just rebuilt. May run on any thread of the team.
//
// The plain way is OfferSegments: of each segment it asks what its other end is, whether
// its characteristics are known, and which class has it. Here they are all unknown, and of
// the trial's class unless a partner has a higher index; then they are left to the plain
// way. A face, or a partner of a lower index, counts as one of value 0 that weighs nothing.
// The keys are the plain ones: to subtract 0, to multiply by 1 or by 1/2 is exact.
template <int N>
void Solver<N>::SetKeys(Rebuilt& rebuilt) {
  Test<N>& trial = tests_[rebuilt.position];
  const FloodRow<N>& row = rows_[rebuilt.position];
  static constexpr double kNothing = 0.0;
  static constexpr double kWeights[] = {1.0, 0.5};
  std::array<double, 3 * N> partner_values;
  std::array<double, 3 * N> weights;
  bool has_higher_partner = false;
  std::size_t count = 0;
  for (; count < 3 * N && trial.neighbours[count].test != kNone; ++count) {
    const TestValue& value = tests_[row.neighbours[count]].value;
    bool is_mean = value.index == trial.value.index;
    is_mean &= !IsFace(trial.neighbours[count].test);
    has_higher_partner |= value.index > trial.value.index;
    const double* const counted[] = {&kNothing, &value.value};
    partner_values[count] = *counted[is_mean];
    weights[count] = kWeights[is_mean];
  }
  rebuilt.segment_count = static_cast<std::uint32_t>(count);
  rebuilt.has_keys = !has_higher_partner;
  if (has_higher_partner) return;

  // The global key and the local one side by side.
  using Pair = double __attribute__((vector_size(16)));
  const auto both = [](double x) { return Pair{x, x}; };
  const Pair slopes = {UsableSlope(slopes_[rebuilt.trial_class]) * parameters_.overestimation,
                       UsableSlope(trial.slope) * parameters_.overestimation_local};
  const Pair own_value = both(trial.value.value);
  Pair best = both(-std::numeric_limits<double>::infinity());
  auto is_nan = best != best;
  for (std::size_t i = 0; i < count; ++i) {
    Neighbour& segment = trial.neighbours[i];
    const Pair keys =
        (slopes * both(segment.distance) - own_value - both(partner_values[i])) * both(weights[i]);
    segment.global_characteristic = keys[0];
    segment.local_characteristic = keys[1];
    best = keys > best ? keys : best;
    is_nan |= keys != keys;
  }
  rebuilt.best_global = is_nan[0] != 0 ? KeyBounds::kUnknown : best[0];
  rebuilt.best_local = is_nan[1] != 0 ? KeyBounds::kUnknown : best[1];
}

template <int N>
void Solver<N>::ForgetKeys(Rebuilt& rebuilt) {
  rebuilt.has_keys = false;
  for (Neighbour& segment : tests_[rebuilt.position].neighbours) {
    segment.global_characteristic = kUnset;
    segment.local_characteristic = kUnset;
  }
}

// Stages the segments of a table that was just rebuilt. Most reach no list, so a list is
// asked once for the best key of them, and the table is looked at where that does.
template <int N>
void Solver<N>::StageSegments(const Rebuilt& rebuilt) {
  if (!rebuilt.has_keys) {
    OfferSegments(rebuilt.position,
                  [](CandidateList& list, const Candidate& candidate) { list.Stage(candidate); });
    return;
  }
  work_.offers += 2u * rebuilt.segment_count;
  const auto stage = [&](CandidateList& list, double best_key, double Neighbour::*key) {
    if (rebuilt.segment_count == 0 || !list.AwaitsStaged(best_key)) return;
    const Test<N>& trial = tests_[rebuilt.position];
    list.StageAll(rebuilt.segment_count, [&](std::size_t i) {
      const Neighbour& segment = trial.neighbours[i];
      return Candidate{segment.*key, rebuilt.position, segment.test};
    });
  };
  stage(local_lists_[rebuilt.trial_class], rebuilt.best_local, &Neighbour::local_characteristic);
  stage(global_lists_[rebuilt.trial_class], rebuilt.best_global, &Neighbour::global_characteristic);
  global_bounds_.Set(rebuilt.position, rebuilt.best_global);
  local_bounds_.Set(rebuilt.position, rebuilt.best_local);
}

// With m an overestimated slope, d the length of a segment and z the values at its
// ends, the least that the function can be on it is
//   (z_a + z_b - m d) / 2   between trials of one index,
//   z_a - m d               towards a face or a trial of a lower index,
// which the characteristic negates. The slope is that of the end with the higher
// index: of its class for the global one, its own for the local one.
// Returns the class of the segment.
template <int N>
std::uint32_t Solver<N>::SetCharacteristics(const Test<N>& trial, Neighbour& segment) const {
  const Test<N>* a = &trial;
  const Test<N>* b =
      IsFace(segment.test) ? nullptr : &tests_[static_cast<std::uint32_t>(segment.test)];
  if (b != nullptr && b->value.index > a->value.index) std::swap(a, b);
  const std::uint32_t c = ClassOf(*a);
  const auto characteristic = [&](double slope) {
    return b != nullptr && a->value.index == b->value.index
               ? (slope * segment.distance - a->value.value - b->value.value) / 2.0
               : slope * segment.distance - a->value.value;
  };
  if (segment.local_characteristic == kUnset) {
    segment.local_characteristic =
        characteristic(UsableSlope(a->slope) * parameters_.overestimation_local);
  }
  if (segment.global_characteristic == kUnset || class_changed_[c]) {
    segment.global_characteristic =
        characteristic(UsableSlope(slopes_[c]) * parameters_.overestimation);
  }
  return c;
}

}  // namespace QuenloftSolver
