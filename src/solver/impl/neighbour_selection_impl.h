// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>

#include "solver/impl/selection_kernels.h"
#include "solver/neighbour_selection.h"

namespace QuenloftSolver {

template <int N>
NeighbourSelection<N>::NeighbourSelection() : kernels_(SelectionKernels<N>::Fastest()) {
  Reserve(0);
}

template <int N>
void NeighbourSelection<N>::Reserve(std::size_t count) {
  const std::size_t needed = BlocksFor(kTableSize + count) * kBlock + kFaceRoom;
  if (distance_.size() >= needed) return;
  const std::size_t room = std::max(needed, 2 * distance_.size());
  test_.resize(room);
  coordinates_.resize(room);
  rival_value_.resize(room);
  difference_.resize(room * N);
  distance_.resize(room);
  unit_.resize(room * N);
  max_cosine_.resize(room);
  weight_.resize(room);
  upper_.resize(room);
  exact_cosine_.resize(room);
  exact_seen_.resize(room);
  listed_.resize(room);
}

template <int N>
void NeighbourSelection<N>::Begin(const Test<N>& trial, const CandidateColumns<N>& common) {
  trial_ = &trial;
  common_ = &common;
  record_count_ = 0;
  chosen_count_ = 0;
  exact_count_ = 0;
}

template <int N>
void NeighbourSelection<N>::AddPrivate(std::uint32_t position, const Test<N>& candidate,
                                       std::int32_t best_index) {
  Push(static_cast<std::int32_t>(position), candidate.coordinate.data(),
       candidate.value.index == best_index ? candidate.value.value
                                           : std::numeric_limits<double>::infinity());
}

template <int N>
void NeighbourSelection<N>::Choose(const SelectionRules& rules) {
  PushCommon();
  PushFaces();
  // Before the first choice every record stands at a cosine of 0.
  std::size_t record =
      0.0 > rules.spread_cosine ? kNoRecord : NearestRecord(rules.face_may_be_first);
  while (record != kNoRecord) {
    Take(record);
    if (chosen_count_ == static_cast<int>(kTableSize)) break;
    record = NextRecord(rules.spread_cosine);
  }
}

template <int N>
bool NeighbourSelection<N>::IsLowest(double value) const {
  for (std::size_t i = 0; i < face_begin_; ++i) {
    if (rival_value_[i] < value && distance_[i] != kUnset) return false;
  }
  return true;
}

template <int N>
void NeighbourSelection<N>::Push(std::int32_t test, const double* coordinates, double rival_value) {
  const std::size_t record = record_count_++;
  test_[record] = test;
  coordinates_[record] = coordinates;
  rival_value_[record] = rival_value;
  double* difference = difference_.data() + record / kBlock * N * kBlock + record % kBlock;
  const double* origin = trial_->coordinate.data();
  for (std::size_t k = 0; k < N; ++k) difference[k * kBlock] = coordinates[k] - origin[k];
}

// With coordinates in [-1, 2], each of the 2N products and sums of the test in single
// precision, and each rounded factor, is off by at most 4N * 2^-24; the margin covers
// all of them. Where the test cannot be used every candidate is measured.
template <int N>
void NeighbourSelection<N>::PushCommon() {
  constexpr double kMargin = 4.0 * N * (3.0 * N + 4.0) * 6e-8;
  std::array<float, N> origin;
  double square = 0.0;
  bool is_moderate = common_->IsModerate() && trial_->radius < 1e15;
  for (std::size_t k = 0; k < N; ++k) {
    const double coordinate = trial_->coordinate[k];
    origin[k] = static_cast<float>(coordinate);
    square += coordinate * coordinate;
    is_moderate = is_moderate && coordinate >= -1.0 && coordinate <= 2.0;
  }
  NearTask<N> near;
  near.blocks = common_->RoundedBlocks();
  near.block_count = common_->BlockCount();
  near.origin = origin.data();
  near.least_product =
      static_cast<float>(0.5 * (square - trial_->radius * trial_->radius) - kMargin);
  near.near = listed_.data();
  const std::size_t count = is_moderate ? kernels_->find_near(near) : common_->Size();
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t candidate = is_moderate ? listed_[i] : i;
    Push(static_cast<std::int32_t>(common_->Position(candidate)), common_->Coordinates(candidate),
         common_->RivalValue(candidate));
  }
  counters.candidates += record_count_ - count + common_->Size();
  counters.kept += record_count_;
}

template <int N>
void NeighbourSelection<N>::PushFaces() {
  face_begin_ = BlocksFor(record_count_) * kBlock;
  for (std::size_t record = record_count_; record < face_begin_; ++record) {
    rival_value_[record] = std::numeric_limits<double>::infinity();
    double* difference = difference_.data() + record / kBlock * N * kBlock + record % kBlock;
    for (std::size_t k = 0; k < N; ++k) difference[k * kBlock] = 0.0;
  }
  DirectionTask<N> directions;
  directions.block_count = face_begin_ / kBlock;
  directions.radius = trial_->radius;
  directions.difference = difference_.data();
  directions.distance = distance_.data();
  directions.unit = unit_.data();
  double least = kernels_->find_directions(directions);

  double* distance = distance_.data() + face_begin_;
  std::fill_n(distance, kFaceRoom, kUnset);
  face_sign_.fill(0.0f);
  for (int face = 0; face < 2 * N; ++face) {
    const double difference = face % 2 - trial_->coordinate[face / 2];
    const double length = std::fabs(difference);
    if (length == 0.0) continue;
    test_[face_begin_ + face] = FaceToTest(face);
    distance[face] = length;
    face_sign_[face] = difference < 0.0 ? -1.0f : 1.0f;
    least = std::min(least, length);
  }
  record_count_ = face_begin_ + kFaceRoom;
  std::fill_n(exact_seen_.data(), record_count_, std::uint8_t{0});
  std::fill_n(exact_cosine_.data(), record_count_, 0.0);
  for (std::size_t record = 0; record < record_count_; ++record) {
    const bool is_kept = distance_[record] != kUnset;
    max_cosine_[record] = is_kept ? 0.0f : kGone;
    const double weight = least / distance_[record];
    weight_[record] =
        is_kept ? static_cast<float>(IsFaceRecord(record) ? 0.5 * weight : weight) : 0.0f;
  }
}

// The record of the smallest score before anything is chosen.
template <int N>
std::size_t NeighbourSelection<N>::NearestRecord(bool face_may_be_first) const {
  std::size_t nearest = kNoRecord;
  double smallest = kUnset;
  const std::size_t end = face_may_be_first ? record_count_ : face_begin_;
  for (std::size_t record = 0; record < end; ++record) {
    if (distance_[record] == kUnset) continue;
    const double score = IsFaceRecord(record) ? 2.0 * distance_[record] : distance_[record];
    if (score < smallest) {
      smallest = score;
      nearest = record;
    }
  }
  return nearest;
}

// The record of the smallest score once something is chosen, kNoRecord to stop.
template <int N>
std::size_t NeighbourSelection<N>::NextRecord(double spread_cosine) {
  const std::size_t last = chosen_[chosen_count_ - 1];
  std::array<float, N> chosen;
  if (IsFaceRecord(last)) {
    chosen.fill(0.0f);
    const std::size_t face = last - face_begin_;
    chosen[face / 2] = face_sign_[face];
  } else {
    const float* unit = unit_.data() + last / kBlock * N * kBlock + last % kBlock;
    for (std::size_t k = 0; k < N; ++k) chosen[k] = unit[k * kBlock];
  }
  // A face's direction is an axis: the cosine is a component of the chosen direction.
  for (std::size_t face = 0; face < 2 * N; ++face) {
    face_cosine_[face] = face_sign_[face] * chosen[face / 2];
  }
  UpdateTask<N> task;
  task.block_count = face_begin_ / kBlock;
  task.unit = unit_.data();
  task.max_cosine = max_cosine_.data();
  task.weight = weight_.data();
  task.face_cosine = face_cosine_.data();
  task.chosen = chosen.data();
  task.upper = upper_.data();
  const UpdateResult result = kernels_->update(task);
  counters.rounded_cosines += record_count_;

  if (result.least_cosine == kGone) return kNoRecord;
  if (result.least_cosine > spread_cosine + kTolerance<N>) return kNoRecord;
  if (!(result.least_cosine < spread_cosine - kTolerance<N>)&&!SomeDirectionIsFree(spread_cosine)) {
    return kNoRecord;
  }
  const bool is_sure = result.is_single && result.threshold > kUnderflow;
  return is_sure ? result.contender : BestContender(result.threshold);
}

// Among the records whose bounds reach the threshold, the one of the smallest score.
template <int N>
std::size_t NeighbourSelection<N>::BestContender(float threshold) {
  ContenderTask<N> task;
  task.block_count = record_count_ / kBlock;
  task.upper = upper_.data();
  task.threshold = threshold;
  task.contenders = listed_.data();
  const std::size_t count = kernels_->find_contenders(task);
  std::size_t best = kNoRecord;
  double smallest = kUnset;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t record = listed_[i];
    if (max_cosine_[record] == kGone) continue;
    const double cosine = LargestCosine(record);
    if (!(cosine < 1.0)) continue;
    const double ratio = distance_[record] / (1.0 - cosine);
    const double score = IsFaceRecord(record) ? 2.0 * ratio : ratio;
    if (score < smallest) {
      smallest = score;
      best = record;
    }
  }
  return best;
}

template <int N>
bool NeighbourSelection<N>::SomeDirectionIsFree(double spread_cosine) {
  for (std::size_t record = 0; record < record_count_; ++record) {
    if (max_cosine_[record] == kGone || max_cosine_[record] > spread_cosine + kTolerance<N>) {
      continue;
    }
    if (!(LargestCosine(record) > spread_cosine)) return true;
  }
  return false;
}

template <int N>
typename NeighbourSelection<N>::Direction NeighbourSelection<N>::DirectionOf(
    std::size_t record) const {
  Direction direction{};
  if (IsFaceRecord(record)) {
    const std::size_t face = record - face_begin_;
    direction[face / 2] = static_cast<double>(face % 2) - trial_->coordinate[face / 2];
    return direction;
  }
  const double* difference = difference_.data() + record / kBlock * N * kBlock + record % kBlock;
  for (std::size_t k = 0; k < N; ++k) direction[k] = difference[k * kBlock];
  return direction;
}

// In double precision, over all chosen directions; 0 if all lie at obtuse angles.
// Records that tie meet here choice after choice and many at a time, so a block of
// them is brought up to date together and keeps what it knows.
template <int N>
double NeighbourSelection<N>::LargestCosine(std::size_t record) {
  for (; exact_count_ < chosen_count_; ++exact_count_) {
    const std::size_t chosen = chosen_[exact_count_];
    exact_direction_[exact_count_] = DirectionOf(chosen);
    exact_distance_[exact_count_] = distance_[chosen];
  }
  const std::size_t unit = IsFaceRecord(record) ? record : record / kBlock * kBlock;
  const int seen = exact_seen_[unit];
  if (seen == chosen_count_) return exact_cosine_[record];
  exact_seen_[unit] = static_cast<std::uint8_t>(chosen_count_);
  if (IsFaceRecord(record)) {
    const std::size_t axis = (record - face_begin_) / 2;
    const double difference = DirectionOf(record)[axis];
    for (int c = seen; c < chosen_count_; ++c) {
      const double cosine =
          difference * exact_direction_[c][axis] / (distance_[record] * exact_distance_[c]);
      if (cosine > exact_cosine_[record]) exact_cosine_[record] = cosine;
    }
    counters.cosines += static_cast<std::uint64_t>(chosen_count_ - seen);
    return exact_cosine_[record];
  }
  ExactTask<N> task;
  task.difference = difference_.data() + unit * N;
  task.distance = distance_.data() + unit;
  task.max_cosine = exact_cosine_.data() + unit;
  task.directions = exact_direction_[0].data();
  task.distances = exact_distance_.data();
  task.from = seen;
  task.to = chosen_count_;
  kernels_->update_exact(task);
  counters.cosines += kBlock * static_cast<std::uint64_t>(chosen_count_ - seen);
  return exact_cosine_[record];
}

template <int N>
void NeighbourSelection<N>::Take(std::size_t record) {
  chosen_[chosen_count_++] = record;
  max_cosine_[record] = kGone;
  weight_[record] = 0.0f;
}

}  // namespace QuenloftSolver
