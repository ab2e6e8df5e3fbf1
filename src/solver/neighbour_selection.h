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

template <int N>
struct SelectionKernels;

// Counts of the work done, so that a gain in speed can be explained.
struct SelectionCounters {
  std::uint64_t candidates = 0;       // looked at
  std::uint64_t kept = 0;             // within the radius
  std::uint64_t cosines = 0;          // computed in double precision
  std::uint64_t rounded_cosines = 0;  // computed in single precision
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
// before (0 at first); those with c >= 1 are out. Stop when no remaining candidate
// has c <= spread_cosine, that is, when no direction is left that is far enough from
// all those chosen. The test looks at all that remain, not at the best: as long as
// some direction is free, the best-scoring candidate is taken even if it is itself
// close to a chosen one. Ties go to the candidate listed first: private candidates,
// then common ones, then faces.
//
// How it is done. The plain way keeps directions, distances and cosines in double
// precision and brings every candidate up to date after every choice: kept * chosen
// cosines, each with a division. But a choice needs to know which score is smallest,
// not what it is. So unit directions are rounded to single precision, sixteen to a
// vector, and scores are bounded from both sides; the bounds tell the winner apart
// nearly always, and where they leave several, those are compared in double precision
// by the formulas above. The same goes for the stopping test, and for the distance to
// a candidate, which is computed when rounded coordinates do not put it outside the
// radius. The tolerances are rigorous (kTolerance below), so the choice is the plain
// one, ties included: with it a whole search at N = 8 takes 5.4 times less than plain
// (AMD EPYC, g++ 12, docs/performance.md).
//
// Threads: one selection object a thread.
template <int N>
class NeighbourSelection {
 public:
  NeighbourSelection();

  // Starts on `trial`, which must stay unchanged until Choose returns, against
  // `common`, which several workers may share.
  void Begin(const Test<N>& trial, const CandidateColumns<N>& common);
  // Adds a candidate that stands before the common ones; 3N at most. It must stay
  // unchanged until Choose returns.
  void AddPrivate(std::uint32_t position, const Test<N>& candidate, std::int32_t best_index);
  // Chooses. The result stands in the operations below until the next Begin.
  void Choose(const SelectionRules& rules);

  // Allocates what a selection among `count` common candidates needs; Begin must
  // not meet more.
  void Reserve(std::size_t count);

  int ChosenCount() const { return chosen_count_; }
  // A position, or the complement of a face number.
  std::int32_t ChosenTest(int i) const { return test_[chosen_[i]]; }
  double ChosenDistance(int i) const { return distance_[chosen_[i]]; }
  // Whether no candidate within the radius with the best index is below `value`.
  bool IsLowest(double value) const;

  SelectionCounters counters;

 private:
  using Direction = std::array<double, N>;

  static constexpr std::size_t kTableSize = 3 * N;
  static constexpr std::size_t kFaceRoom = BlocksFor(2 * N) * kBlock;
  static constexpr std::size_t kNoRecord = SIZE_MAX;

  void Push(std::int32_t test, const double* coordinates, double rival_value);
  void PushCommon();
  void PushFaces();
  std::size_t NearestRecord(bool face_may_be_first) const;
  std::size_t NextRecord(double spread_cosine);
  std::size_t BestContender(float threshold);
  bool SomeDirectionIsFree(double spread_cosine);
  bool IsFaceRecord(std::size_t record) const { return record >= face_begin_; }
  Direction DirectionOf(std::size_t record) const;
  double LargestCosine(std::size_t record);
  void Take(std::size_t record);

  const SelectionKernels<N>* kernels_;

  // Fixed from Begin to Choose.
  const Test<N>* trial_ = nullptr;
  const CandidateColumns<N>* common_ = nullptr;

  // Records, in the order of ties: private and common candidates that may lie within
  // the radius, filled up to a whole block, then the faces, filled up likewise.
  std::size_t record_count_ = 0;
  std::size_t face_begin_ = 0;
  std::vector<std::int32_t> test_;
  std::vector<const double*> coordinates_;  // null for a face
  std::vector<double> rival_value_;
  AlignedVector<double> difference_;        // to the trial, in blocks; trials only
  AlignedVector<double> distance_;          // kUnset where not kept
  AlignedVector<float> unit_;               // in blocks; trials only
  AlignedVector<float> max_cosine_;         // kGone where not kept or chosen
  AlignedVector<float> weight_;             // least distance / distance, halved for a face
  AlignedVector<float> upper_;              // bound of the inverse score
  std::array<float, kFaceRoom> face_sign_;  // of the direction along the face's axis
  alignas(kCacheLine) std::array<float, kFaceRoom> face_cosine_{};  // with the last chosen one
  AlignedVector<double> exact_cosine_;    // over the first exact_seen_ of the chosen ones
  std::vector<std::uint8_t> exact_seen_;  // of a face, or of a block at its first record
  std::vector<std::uint32_t> listed_;     // numbers that a kernel found

  // The result, and the chosen directions in double precision, as far as they were
  // asked for.
  int chosen_count_ = 0;
  std::array<std::size_t, kTableSize> chosen_;
  int exact_count_ = 0;
  std::array<Direction, kTableSize> exact_direction_;
  std::array<double, kTableSize> exact_distance_;
};

}  // namespace QuenloftSolver
