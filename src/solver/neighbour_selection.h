// SPDX-License-Identifier: MIT
//
// Which trials and faces of the box become the neighbours of a trial: near ones in
// well-spread directions.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "solver/aligned.h"
#include "solver/candidate_columns.h"
#include "solver/trial.h"

namespace QuenloftSolver {

// Counts of the work done, so that a gain in speed can be explained.
struct SelectionCounters {
  std::uint64_t selections = 0;
  std::uint64_t candidates = 0;
  std::uint64_t cosines = 0;
  std::uint64_t chosen = 0;
};

// What a selection needs to know besides the candidates.
struct SelectionRules {
  double spread_cosine;    // cos(2 pi / spread)
  bool face_may_be_first;  // while each combination has just its first trial
};

// One worker's selection, its result and its scratch.
//
// The method: of the candidates within the trial's radius, and the 2N faces, choose
// greedily, at most 3N times, the one of the smallest score
//
//     distance / (1 - c),    doubled for a face,
//
// where c is the largest cosine between the candidate's direction and one chosen
// before (0 at first). Stop when no remaining candidate has c <= spread_cosine, that
// is, when no direction is left that is far enough from all those chosen. The test
// looks at all that remain, not at the best: as long as some direction is free, the
// best-scoring candidate is taken even if it is itself close to a chosen one. Ties
// go to the candidate listed first: private candidates, then common ones, then faces.
//
// How it is done: the plain way brings every candidate's c up to date after every
// choice, O(kept * chosen) cosines. Here a candidate keeps its last known score
// until it comes to the front. A score only grows as neighbours are chosen, because
// c only grows; so a candidate that is up to date and stands in front of the last
// known scores of all others also stands in front of their true scores, and the
// choice is the same, ties included. Likewise one remaining candidate known to have
// c <= spread_cosine answers the stopping test for all; one that fails it once fails
// for good and is never asked again.
//
// Threads: one selection object a thread. Begin to Choose write the object only.
template <int N>
class NeighbourSelection {
 public:
  // Starts on `trial`, which must stay unchanged until Choose returns, against
  // `common`, which several workers may share. Room for `common` is taken here.
  void Begin(const Test<N>& trial, const CandidateColumns<N>& common);
  // Adds a candidate that stands before the common ones; 3N at most.
  void AddPrivate(std::uint32_t position, const Test<N>& candidate, std::int32_t best_index);
  // Chooses. The result stands in the operations below until the next Begin.
  void Choose(const SelectionRules& rules);

  // Allocates what selections against `count` common candidates need.
  void Reserve(std::size_t count);

  int ChosenCount() const { return chosen_count_; }
  // A position, or the complement of a face number.
  std::int32_t ChosenTest(int i) const { return chosen_test_[static_cast<std::size_t>(i)]; }
  double ChosenDistance(int i) const { return chosen_distance_[static_cast<std::size_t>(i)]; }
  // Whether no candidate within the radius with the best index is below `value`.
  bool IsLowest(double value) const;

  SelectionCounters counters;

 private:
  using Direction = std::array<double, N>;

  static constexpr std::size_t kTableSize = 3 * N;
  static constexpr std::size_t kPrivateBlocks = BlocksFor(kTableSize);
  static constexpr std::size_t kFaceBlocks = BlocksFor(2 * N);
  static constexpr std::size_t kChosenPadded = BlocksFor(kTableSize) * kBlock;
  static constexpr std::uint8_t kIsChosen = 255;
  static constexpr std::size_t kNoRecord = SIZE_MAX;

  void MeasureAll();
  void MeasureFaces();
  std::size_t Front(std::size_t block_end) const;
  bool IsFaceRecord(std::size_t record) const { return record >= face_begin_; }
  Direction DirectionOf(std::size_t record) const;
  double LargestCosine(const Direction& direction, double distance, int from) const;
  void BringUpToDate(std::size_t record);
  void SetScore(std::size_t record, double score);
  bool SomeDirectionIsFree(double spread_cosine);
  void Take(std::size_t record);

  // Fixed from Begin to Choose.
  const Test<N>* trial_ = nullptr;
  const CandidateColumns<N>* common_ = nullptr;
  CandidateColumns<N> private_;

  // Records, in the order of ties: the private blocks, the common blocks, the faces.
  std::size_t common_begin_ = 0;
  std::size_t face_begin_ = 0;
  std::size_t record_count_ = 0;
  AlignedVector<double> distance_;     // kUnset where not kept
  AlignedVector<double> score_;        // last known; kUnset where out of the running
  AlignedVector<double> max_cosine_;   // last known
  AlignedVector<double> block_score_;  // smallest score of each block
  std::vector<std::uint8_t> seen_;     // chosen neighbours that max_cosine_ knows of
  std::size_t witness_ = 0;            // no record before it is a free direction

  // The result, and the chosen directions in columns: row k holds coordinate k.
  int chosen_count_ = 0;
  std::array<std::int32_t, kTableSize> chosen_test_;
  alignas(kCacheLine) std::array<double, kChosenPadded> chosen_distance_{};
  alignas(kCacheLine) std::array<std::array<double, kChosenPadded>, N> chosen_direction_{};
};

}  // namespace QuenloftSolver
