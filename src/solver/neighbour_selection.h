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
#include "solver/selection_kernels.h"
#include "solver/trial.h"

namespace QuenloftSolver {

// Counts of the work done, so that a gain in speed can be explained.
struct SelectionCounters {
  std::uint64_t candidates = 0;       // looked at
  std::uint64_t kept = 0;             // perhaps within the radius
  std::uint64_t cosines = 0;          // asked for in double precision, see ContenderTask
  std::uint64_t rounded_cosines = 0;  // computed of rounded directions
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
// not what it is. So unit directions are rounded to 16-bit integers, two products to an
// instruction and a lane, and scores are bounded from both sides; most often the bounds
// tell the next choice. For the stopping test one candidate that is surely far enough
// from all those chosen answers, and rounded coordinates tell which candidates need not
// be measured. The tolerances are rigorous, and where the bounds leave several candidates
// these are compared in double precision, by the formulas above.
//
// In many dimensions those are many: half of all choices at N = 8 are made among
// candidates that tie to the last bit. Of those one after the other is chosen without a
// look at any other, as long as the choices leave its score as it is, which the rounded
// directions mostly tell. What they mean for the others is brought up in one pass.
//
// So the outcome is the plain one, ties included. What it gains is measured in
// docs/performance.md.
//
// Threads: one selection object a thread. They stand in a row, so each has its cache lines,
// and the ones fetched along with them, to itself.
template <int N>
class alignas(2 * kCacheLine) NeighbourSelection {
 public:
  NeighbourSelection();

  // Starts on `trial` against `common`; both must stay unchanged until Choose returns.
  void Begin(const Test<N>& trial, const CandidateColumns<N>& common);
  // Adds a candidate that stands before the common ones; 3N at most. It must stay
  // unchanged until Choose returns.
  void AddPrivate(std::uint32_t position, const Test<N>& candidate, std::int32_t best_index);
  // Chooses. The result stands in the operations below until the next Begin.
  void Choose(const SelectionRules& rules);

  // Allocates what a selection among `count` common candidates needs; Begin must
  // not meet more.
  void Reserve(std::size_t count);

  int ChosenCount() const { return choice_.chosen_count; }
  // A position, or the complement of a face number.
  std::int32_t ChosenTest(int i) const { return TestOf(chosen_[i]); }
  double ChosenDistance(int i) const { return distance_[chosen_[i]]; }
  // Whether no candidate within the radius with the best index is below `value`.
  bool IsLowest(double value) const;

  SelectionCounters counters;

 private:
  static constexpr std::size_t kTableSize = 3 * N;
  static constexpr std::size_t kFaceCount = 2 * N;

  void SetFaces();
  void PushCommon();
  std::size_t Measure();
  std::size_t FirstRecord(std::size_t nearest_trial, bool face_may_be_first) const;
  bool SomeDirectionIsFree(double spread_cosine);
  std::int32_t TestOf(std::size_t record) const;

  const SelectionKernels<N>* kernels_;

  // Fixed from Begin to Choose.
  const Test<N>* trial_ = nullptr;
  const CandidateColumns<N>* common_ = nullptr;

  // Records: the faces, then private and common candidates that may lie within the radius,
  // filled up to a whole block.
  std::size_t private_count_ = 0;
  std::size_t trial_count_ = 0;   // private and common ones
  double nearest_face_ = kUnset;  // its distance
  std::array<std::int32_t, kTableSize> private_test_;
  std::array<double, kTableSize> private_rival_value_;
  std::vector<std::uint32_t> near_;         // of the common ones, the numbers in the columns
  std::vector<const double*> points_;       // of each record
  AlignedVector<double> difference_;        // to the trial, in blocks
  AlignedVector<double> distance_;          // kUnset where not kept
  AlignedVector<std::int32_t> unit_;        // in blocks, see MeasureTask
  AlignedVector<std::int32_t> max_cosine_;  // kGone where not kept or chosen
  AlignedVector<float> weight_;             // least distance / distance, halved for a face
  AlignedVector<float> doubt_;              // see ChoiceTask, as the next two
  AlignedVector<float> upper_;
  std::vector<std::uint32_t> contenders_;
  ContenderTask<N> contender_{};

  bool is_trusted_ = true;  // the bounds
  ChoiceTask<N> choice_{};
  std::array<std::uint32_t, kTableSize> chosen_;
};

}  // namespace QuenloftSolver
