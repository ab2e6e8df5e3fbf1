// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>

#include "solver/impl/measure_impl.h"
#include "solver/neighbour_selection.h"

namespace QuenloftSolver {

template <int N>
void NeighbourSelection<N>::Reserve(std::size_t count) {
  const std::size_t blocks = kPrivateBlocks + BlocksFor(count) + kFaceBlocks;
  if (block_score_.size() >= blocks) return;
  const std::size_t grown = std::max(blocks, 2 * block_score_.size());
  distance_.resize(grown * kBlock);
  score_.resize(grown * kBlock);
  max_cosine_.resize(grown * kBlock);
  seen_.resize(grown * kBlock);
  block_score_.resize(grown);
}

template <int N>
void NeighbourSelection<N>::Begin(const Test<N>& trial, const CandidateColumns<N>& common) {
  trial_ = &trial;
  common_ = &common;
  private_.Clear();
  chosen_count_ = 0;
  witness_ = 0;
  Reserve(common.Size());
}

template <int N>
void NeighbourSelection<N>::AddPrivate(std::uint32_t position, const Test<N>& candidate,
                                       std::int32_t best_index) {
  assert(private_.Size() < kTableSize);
  private_.Append(position, candidate, best_index);
}

template <int N>
void NeighbourSelection<N>::Choose(const SelectionRules& rules) {
  MeasureAll();
  const std::size_t all_blocks = record_count_ / kBlock;
  const std::size_t face_blocks = face_begin_ / kBlock;
  while (chosen_count_ < static_cast<int>(kTableSize)) {
    const bool is_first = chosen_count_ == 0;
    const std::size_t front =
        Front(is_first && !rules.face_may_be_first ? face_blocks : all_blocks);
    if (front == kNoRecord) return;
    if (seen_[front] < chosen_count_) {
      BringUpToDate(front);
      continue;
    }
    // Before the first choice every record stands at 0.
    if (is_first ? 0.0 > rules.spread_cosine : !SomeDirectionIsFree(rules.spread_cosine)) return;
    Take(front);
  }
}

template <int N>
bool NeighbourSelection<N>::IsLowest(double value) const {
  const double* rivals = private_.RivalValues();
  for (std::size_t i = 0; i < private_.Size(); ++i) {
    if (rivals[i] < value && distance_[i] != kUnset) return false;
  }
  rivals = common_->RivalValues();
  const double* distance = distance_.data() + common_begin_;
  for (std::size_t i = 0; i < common_->Size(); ++i) {
    if (rivals[i] < value && distance[i] != kUnset) return false;
  }
  return true;
}

template <int N>
void NeighbourSelection<N>::MeasureAll() {
  static const MeasureFunction<N> measure = FastestMeasure<N>();
  common_begin_ = private_.BlockCount() * kBlock;
  face_begin_ = common_begin_ + common_->BlockCount() * kBlock;
  record_count_ = face_begin_ + kFaceBlocks * kBlock;

  MeasureTask<N> task;
  task.origin = trial_->coordinate.data();
  task.radius = trial_->radius;
  task.blocks = private_.Blocks();
  task.block_count = private_.BlockCount();
  task.distance = distance_.data();
  task.block_minimum = block_score_.data();
  measure(task);
  task.blocks = common_->Blocks();
  task.block_count = common_->BlockCount();
  task.distance += common_begin_;
  task.block_minimum += common_begin_ / kBlock;
  measure(task);

  std::copy_n(distance_.data(), face_begin_, score_.data());
  MeasureFaces();
  std::fill_n(max_cosine_.data(), record_count_, 0.0);
  std::fill_n(seen_.data(), record_count_, std::uint8_t{0});
  ++counters.selections;
  counters.candidates += private_.Size() + common_->Size();
}

template <int N>
void NeighbourSelection<N>::MeasureFaces() {
  double* distance = distance_.data() + face_begin_;
  double* score = score_.data() + face_begin_;
  std::fill_n(distance, kFaceBlocks * kBlock, kUnset);
  std::fill_n(score, kFaceBlocks * kBlock, kUnset);
  for (int face = 0; face < 2 * N; ++face) {
    const double length = std::fabs(face % 2 - trial_->coordinate[face / 2]);
    if (length == 0.0) continue;
    distance[face] = length;
    score[face] = 2.0 * length;
  }
  for (std::size_t b = 0; b < kFaceBlocks; ++b) {
    block_score_[face_begin_ / kBlock + b] =
        *std::min_element(score + b * kBlock, score + (b + 1) * kBlock);
  }
}

// The first record of the smallest score in the blocks before `block_end`.
template <int N>
std::size_t NeighbourSelection<N>::Front(std::size_t block_end) const {
  const double* blocks = block_score_.data();
  std::size_t block = 0;
  double smallest = kUnset;
  for (std::size_t b = 0; b < block_end; ++b) {
    if (blocks[b] < smallest) {
      smallest = blocks[b];
      block = b;
    }
  }
  if (smallest == kUnset) return kNoRecord;
  std::size_t record = block * kBlock;
  while (score_[record] != smallest) ++record;
  return record;
}

template <int N>
typename NeighbourSelection<N>::Direction NeighbourSelection<N>::DirectionOf(
    std::size_t record) const {
  Direction direction;
  if (IsFaceRecord(record)) {
    const int face = static_cast<int>(record - face_begin_);
    direction.fill(0.0);
    direction[face / 2] = face % 2 - trial_->coordinate[face / 2];
    return direction;
  }
  const bool is_private = record < common_begin_;
  const CandidateColumns<N>& columns = is_private ? private_ : *common_;
  const std::size_t i = is_private ? record : record - common_begin_;
  for (int k = 0; k < N; ++k) {
    direction[k] = columns.Coordinate(i, k) - trial_->coordinate[k];
  }
  return direction;
}

// The largest cosine between a direction and the chosen ones from number `from` on.
template <int N>
double NeighbourSelection<N>::LargestCosine(const Direction& direction, double distance,
                                            int from) const {
  constexpr int kLanes = 4;
  double largest[kLanes] = {0.0, 0.0, 0.0, 0.0};
  for (int first = from / kLanes * kLanes; first < chosen_count_; first += kLanes) {
#pragma omp simd
    for (int lane = 0; lane < kLanes; ++lane) {
      const int c = first + lane;
      double dot = 0.0;
      for (int k = 0; k < N; ++k) dot += direction[k] * chosen_direction_[k][c];
      const double cosine = dot / (distance * chosen_distance_[c]);
      largest[lane] = cosine > largest[lane] ? cosine : largest[lane];
    }
  }
  return std::max(std::max(largest[0], largest[1]), std::max(largest[2], largest[3]));
}

template <int N>
void NeighbourSelection<N>::BringUpToDate(std::size_t record) {
  const double distance = distance_[record];
  const double cosine = LargestCosine(DirectionOf(record), distance, seen_[record]);
  counters.cosines += static_cast<std::uint64_t>(chosen_count_ - seen_[record]);
  seen_[record] = static_cast<std::uint8_t>(chosen_count_);
  if (!(cosine > max_cosine_[record])) return;
  max_cosine_[record] = cosine;
  if (score_[record] == kUnset) return;
  if (cosine < 1.0) {
    const double score = distance / (1.0 - cosine);
    SetScore(record, IsFaceRecord(record) ? 2.0 * score : score);
  } else {
    SetScore(record, kUnset);
  }
}

template <int N>
void NeighbourSelection<N>::SetScore(std::size_t record, double score) {
  const std::size_t block = record / kBlock;
  const bool was_smallest = score_[record] == block_score_[block];
  score_[record] = score;
  if (!was_smallest) return;
  const double* scores = score_.data() + block * kBlock;
  double smallest = kUnset;
#pragma omp simd reduction(min : smallest)
  for (std::size_t j = 0; j < kBlock; ++j) smallest = scores[j] < smallest ? scores[j] : smallest;
  block_score_[block] = smallest;
}

template <int N>
bool NeighbourSelection<N>::SomeDirectionIsFree(double spread_cosine) {
  for (; witness_ < record_count_; ++witness_) {
    if (distance_[witness_] == kUnset || seen_[witness_] == kIsChosen) continue;
    if (max_cosine_[witness_] > spread_cosine) continue;
    if (seen_[witness_] < chosen_count_) BringUpToDate(witness_);
    if (!(max_cosine_[witness_] > spread_cosine)) return true;
  }
  return false;
}

template <int N>
void NeighbourSelection<N>::Take(std::size_t record) {
  const auto c = static_cast<std::size_t>(chosen_count_);
  const Direction direction = DirectionOf(record);
  for (int k = 0; k < N; ++k) chosen_direction_[k][c] = direction[k];
  chosen_distance_[c] = distance_[record];
  chosen_test_[c] = IsFaceRecord(record) ? FaceToTest(static_cast<int>(record - face_begin_))
                    : record < common_begin_
                        ? static_cast<std::int32_t>(private_.Position(record))
                        : static_cast<std::int32_t>(common_->Position(record - common_begin_));
  // Lanes beyond the last chosen one repeat it: a cosine twice changes no maximum.
  for (std::size_t lane = c + 1; lane % 4 != 0; ++lane) {
    for (int k = 0; k < N; ++k) chosen_direction_[k][lane] = direction[k];
    chosen_distance_[lane] = chosen_distance_[c];
  }
  SetScore(record, kUnset);
  seen_[record] = kIsChosen;
  ++chosen_count_;
  ++counters.chosen;
}

}  // namespace QuenloftSolver
