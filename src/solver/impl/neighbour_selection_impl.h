// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <cmath>
#include <limits>

#include "solver/neighbour_selection.h"

namespace QuenloftSolver {

template <int N>
NeighbourSelection<N>::NeighbourSelection() : kernels_(SelectionKernels<N>::Fastest()) {
  Reserve(0);
  std::fill_n(contender_.chosen_distance, ContenderTask<N>::kRow, 1.0);
}

template <int N>
void NeighbourSelection<N>::Reserve(std::size_t count) {
  const std::size_t needed = BlocksFor(kFaceCount + kTableSize + count) * kBlock;
  // The last to be resized: where memory runs out the next call begins anew.
  if (contenders_.size() >= needed + kBlock) return;
  const std::size_t room = std::max(needed, 2 * contenders_.size());
  near_.resize(room + kBlock);
  points_.resize(room);
  difference_.resize(room * N);
  distance_.resize(room);
  unit_.resize(room * GridPoint<N>::kPairs);
  max_cosine_.resize(room);
  weight_.resize(room);
  doubt_.resize(room);
  upper_.resize(room);
  contenders_.resize(room + kBlock);
}

template <int N>
void NeighbourSelection<N>::Begin(const Test<N>& trial, const CandidateColumns<N>& common) {
  trial_ = &trial;
  common_ = &common;
  private_count_ = 0;
  SetFaces();
}

// Each differs from the trial on one axis. On the others the rows hold zeros since they
// were allocated.
template <int N>
void NeighbourSelection<N>::SetFaces() {
  nearest_face_ = kUnset;
  for (std::size_t face = 0; face < kFaceCount; ++face) {
    const std::size_t axis = face / 2;
    const std::size_t block = face / kBlock;
    const std::size_t lane = face % kBlock;
    const double difference = static_cast<double>(face % 2) - trial_->coordinate[axis];
    difference_[(block * N + axis) * kBlock + lane] = difference;
    const std::int32_t component = difference > 0.0 ? kUnit : -kUnit;
    unit_[(block * GridPoint<N>::kPairs + axis / 2) * kBlock + lane] =
        axis % 2 == 0 ? PairOf(component, 0) : PairOf(0, component);
    distance_[face] = difference != 0.0 ? std::fabs(difference) : kUnset;
    nearest_face_ = std::min(nearest_face_, distance_[face]);
    points_[face] = trial_->coordinate.data();
  }
}

template <int N>
void NeighbourSelection<N>::AddPrivate(std::uint32_t position, const Test<N>& candidate,
                                       std::int32_t best_index) {
  private_test_[private_count_] = static_cast<std::int32_t>(position);
  private_rival_value_[private_count_] = candidate.value.index == best_index
                                             ? candidate.value.value
                                             : std::numeric_limits<double>::infinity();
  points_[kFaceCount + private_count_] = candidate.coordinate.data();
  ++private_count_;
}

template <int N>
void NeighbourSelection<N>::Choose(const SelectionRules& rules) {
  PushCommon();
  choice_.chosen_count = 0;
  const std::size_t nearest_trial = Measure();
  // Before the first choice every record stands at a cosine of 0.
  const std::size_t first = FirstRecord(nearest_trial, rules.face_may_be_first);
  if (first == kNoRecord || 0.0 > rules.spread_cosine) return;
  chosen_[0] = static_cast<std::uint32_t>(first);
  choice_.chosen_count = 1;
  choice_.applied_count = 0;
  // The least number where nothing is sure: no trust, or a spread that is no number.
  const double free_below = rules.spread_cosine * kCosineOfOne - Tolerance<N>() - 1.0;
  choice_.free_below =
      is_trusted_ && free_below > INT32_MIN ? static_cast<std::int32_t>(free_below) : INT32_MIN;
  choice_.free_record = 0;
  contender_.spread_cosine = rules.spread_cosine;
  for (;;) {
    const Pause pause = kernels_->choose(choice_);
    if (pause == Pause::kFull) break;
    if (pause == Pause::kFewAreFree && !SomeDirectionIsFree(rules.spread_cosine)) break;
    if (!kernels_->choose_contenders(choice_, contender_)) break;
  }
  counters.cosines += contender_.cosine_count;
  counters.rounded_cosines +=
      static_cast<std::uint64_t>(choice_.chosen_count) * (choice_.block_count * kBlock);
}

template <int N>
bool NeighbourSelection<N>::IsLowest(double value) const {
  const double* distance = distance_.data() + kFaceCount;
  for (std::size_t i = 0; i < trial_count_; ++i) {
    const double rival_value = i < private_count_ ? private_rival_value_[i]
                                                  : common_->RivalValue(near_[i - private_count_]);
    if (rival_value < value && distance[i] != kUnset) return false;
  }
  return true;
}

// Points are no farther from one another when taken into the box, and rounding to the grid
// moves each of two by sqrt(N) / 2 at most, in multiples. So of a candidate within the
// radius the distance on the grid is at most the radius and sqrt(N); what else is added is
// for the rounding in double precision. Nothing in the box is farther than sqrt(N).
template <int N>
void NeighbourSelection<N>::PushCommon() {
  constexpr std::int32_t kRoot = RootAbove(N);
  const double radius = trial_->radius < kRoot ? trial_->radius : kRoot;
  const auto reach = static_cast<std::int64_t>(radius * GridPoint<N>::kMultiples) + kRoot + 2;
  const GridPoint<N>& origin = trial_->grid_point;
  const std::int64_t least_product = origin.half_square - (reach * reach + 1) / 2;
  NearTask<N> task;
  task.blocks = common_->GridBlocks();
  task.block_count = common_->BlockCount();
  task.origin = origin.pairs.data();
  task.least_product =
      static_cast<std::int32_t>(std::max<std::int64_t>(least_product, kNearNothing + 1));
  task.near = near_.data();
  const std::size_t count = kernels_->find_near(task);
  const double** points = points_.data() + kFaceCount + private_count_;
  for (std::size_t i = 0; i < count; ++i) points[i] = common_->Coordinates(near_[i]);
  trial_count_ = private_count_ + count;
  const std::size_t end = kFaceCount + trial_count_;
  for (std::size_t record = end; record < BlocksFor(end) * kBlock; ++record) {
    points_[record] = trial_->coordinate.data();  // of distance 0, not kept
  }
  counters.candidates += private_count_ + common_->Size();
  counters.kept += trial_count_;
}

// Returns the nearest trial's record.
template <int N>
std::size_t NeighbourSelection<N>::Measure() {
  MeasureTask<N> task;
  task.block_count = BlocksFor(kFaceCount + trial_count_);
  task.origin = trial_->coordinate.data();
  task.radius = trial_->radius;
  task.nearest_face = nearest_face_;
  task.points = points_.data();
  task.difference = difference_.data();
  task.distance = distance_.data();
  task.unit = unit_.data();
  task.max_cosine = max_cosine_.data();
  task.weight = weight_.data();
  task.doubt = doubt_.data();
  const MeasureResult result = kernels_->measure(task);
  is_trusted_ = result.is_trusted;

  choice_.block_count = task.block_count;
  choice_.unit = unit_.data();
  choice_.max_cosine = max_cosine_.data();
  choice_.weight = weight_.data();
  choice_.upper = upper_.data();
  choice_.doubt = doubt_.data();
  choice_.chosen = chosen_.data();
  contender_.difference = difference_.data();
  contender_.distance = distance_.data();
  contender_.is_trusted = is_trusted_;
  contender_.contenders = contenders_.data();
  contender_.exact_count = 0;
  contender_.cosine_count = 0;
  return result.nearest_trial;
}

// The record of the smallest score before anything is chosen.
template <int N>
std::size_t NeighbourSelection<N>::FirstRecord(std::size_t nearest_trial,
                                               bool face_may_be_first) const {
  if (!face_may_be_first) return nearest_trial;
  std::size_t first = nearest_trial;
  for (std::size_t face = 0; face < 2 * N; ++face) {
    const double smallest = first == kNoRecord   ? kUnset
                            : first < kFaceCount ? 2.0 * distance_[first]
                                                 : distance_[first];
    if (distance_[face] != kUnset && 2.0 * distance_[face] < smallest) first = face;
  }
  return first;
}

template <int N>
bool NeighbourSelection<N>::SomeDirectionIsFree(double spread_cosine) {
  const std::size_t record_count = choice_.block_count * kBlock;
  for (std::size_t record = 0; record < record_count; ++record) {
    if (max_cosine_[record] == kGone) continue;
    if (is_trusted_ && max_cosine_[record] > spread_cosine * kCosineOfOne + Tolerance<N>())
      continue;
    const std::size_t first_difference = OffsetOf(record, N);
    double largest = 0.0;
    for (int i = 0; i < choice_.chosen_count; ++i) {
      const std::size_t chosen = chosen_[static_cast<std::size_t>(i)];
      const std::size_t chosen_difference = OffsetOf(chosen, N);
      double dot = 0.0;
      for (std::size_t k = 0; k < N; ++k)
        dot += difference_[first_difference + k * kBlock] *
               difference_[chosen_difference + k * kBlock];
      const double cosine = dot / (distance_[chosen] * distance_[record]);
      largest = cosine > largest ? cosine : largest;
    }
    counters.cosines += static_cast<std::uint64_t>(choice_.chosen_count);
    if (!(largest > spread_cosine)) return true;
  }
  return false;
}

template <int N>
std::int32_t NeighbourSelection<N>::TestOf(std::size_t record) const {
  if (record < kFaceCount) return FaceToTest(static_cast<int>(record));
  const std::size_t i = record - kFaceCount;
  return i < private_count_
             ? private_test_[i]
             : static_cast<std::int32_t>(common_->Position(near_[i - private_count_]));
}

}  // namespace QuenloftSolver
