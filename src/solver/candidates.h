// SPDX-License-Identifier: MIT
//
// The segments that steps choose from: of each class the best ones, its slope, and how good
// the segments of every trial are.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "solver/candidate_list.h"
#include "solver/key_bounds.h"
#include "solver/reserve.h"
#include "solver/scratch.h"

namespace QuenloftSolver {

// Global steps go by the slopes of classes, local ones by those of trials.
enum class StepKind { kGlobal, kLocal };
inline constexpr StepKind kStepKinds[] = {StepKind::kGlobal, StepKind::kLocal};

// One for each kind of step.
template <typename T>
struct PerKind {
  T of[2];
  T& operator[](StepKind kind) { return of[static_cast<std::size_t>(kind)]; }
  const T& operator[](StepKind kind) const { return of[static_cast<std::size_t>(kind)]; }
};

// An entry of a trial's neighbour table as the lists take it, its keys computed.
struct ClassedSegment {
  std::uint32_t segment_class;
  std::int32_t test;
  PerKind<double> key;
};

// Who knows the segments.
class SegmentSource {
 public:
  // Room for the segments of one trial.
  static constexpr std::size_t kMostSegments = 96;

  // Writes the segments of the trial at `position` and returns their number. Keys that are
  // unset, and global ones of classes whose slope changed, are computed before.
  virtual std::size_t SegmentsOf(std::uint32_t position, ClassedSegment* segments) = 0;
  virtual std::uint32_t CombinationOf(std::uint32_t position) const = 0;
  // Asks memory for what SegmentsOf will read.
  virtual void Prefetch(std::uint32_t position) const = 0;

 protected:
  ~SegmentSource() = default;
};

// What a new trial did to the tables of others.
struct Disturbance {
  std::uint32_t combination;  // of all of them
  // Whose tables were rebuilt, and whose segments are to be offered again: these and perhaps
  // others.
  const std::vector<std::uint32_t>& rebuilt;
  const std::vector<std::uint32_t>& rescored;
};

// Work done since construction.
struct UpdateCounters {
  std::uint64_t full_updates = 0;     // over every trial
  std::uint64_t visited = 0;          // trials whose segments these asked for
  std::uint64_t offers = 0;           // to the lists
  std::uint64_t entries_visited = 0;  // of lists, to find stale ones
};

// A class is an index and a combination: number index * combinations + combination. Of each
// there is a list by global keys and one by local keys.
//
// An update of every trial is due when a list runs dry or a slope grew. Of each trial's
// segments in a class the best keys are kept, so that it need not look at trials whose
// segments are too poor for the lists.
//
// Invariants, between two updates:
//   (1) Slope(c) is at least the slope of every trial of class c seen so far.
//   (2) The bounds of a class hold the best keys of every trial that has segments in it.
//   (3) No list holds a segment of a table that was rebuilt since it was offered.
// Cost: Update O(classes) and in proportion to the segments offered; with all trials, in
// proportion to those that can leave a trace, but for a class whose slope grew.
// Threads: none.
class Candidates {
 public:
  Candidates(std::uint32_t function_count, std::uint32_t combination_count);

  std::uint32_t ClassCount() const { return static_cast<std::uint32_t>(classes_.size()); }
  std::uint32_t ClassOf(std::int32_t index, std::uint32_t combination) const {
    return static_cast<std::uint32_t>(index) * combination_count_ + combination;
  }

  double Slope(std::uint32_t c) const { return classes_[c].slope; }
  // A slope estimate of 0 says nothing: the largest slope known stands in, or 1.
  double UsableSlope(double slope) const {
    return slope != 0.0 ? slope : max_slope_ != 0.0 ? max_slope_ : 1.0;
  }
  // The slope of a trial of class c.
  void RaiseSlope(std::uint32_t c, double slope);
  // Since the last update: of some class, or of one.
  bool SlopesChanged() const { return slopes_changed_; }
  bool SlopeChanged(std::uint32_t c) const { return classes_[c].slope_changed; }

  // What makes the classes of one index better than their keys say.
  struct Preference {
    std::int32_t index;  // -1 for none
    double slopes;       // so many slopes of the class,
    double value;        // and this
  };
  // The class of the best candidate, keys being made comparable by the slopes; of equal ones
  // the lowest. Throws SearchExhausted where there is none.
  std::uint32_t BestClass(StepKind kind, const Preference& preference) const;
  Candidate TakeBest(StepKind kind, std::uint32_t c) { return classes_[c].list[kind].TakeBest(); }
  const CandidateList& List(StepKind kind, std::uint32_t c) const { return classes_[c].list[kind]; }

  // Makes room for one trial more.
  void Reserve(std::uint32_t combination);
  // The trial that comes to stand at `position`, the first that is free.
  void Append(std::uint32_t position, std::uint32_t combination);
  // Brings the lists up to date with the newest trial. Where memory runs out it is to be called
  // again, with the same trial, before anything else.
  void Update(const Disturbance& disturbance, SegmentSource& source);
  // The first update, when none of the trials was ever offered. Likewise.
  void Begin(SegmentSource& source);

  // Remembers all of it, in place of an earlier checkpoint; Rollback makes it that again, and
  // the checkpoint stands no more.
  void Checkpoint();
  void Rollback();

  const UpdateCounters& Work() const { return work_; }

  // What a class takes at least.
  static const double kClassBytes;

 private:
  struct Class {
    PerKind<CandidateList> list;
    double slope = 0.0;
    bool slope_changed = false;  // since the last update
  };
  using Bounds = PerKind<KeyBounds>;
  struct State {
    std::vector<Class> classes;
    double max_slope = 0.0;
    bool slopes_changed = false;
    std::uint32_t trial_count = 0;
  };

  // A trial's number among those of its combination, and back.
  std::uint32_t RankOf(std::uint32_t position) const {
    return combination_count_ == 1 ? position : ranks_[position];
  }
  std::uint32_t PositionOf(std::uint32_t rank, std::uint32_t combination) const {
    return combination_count_ == 1 ? rank : positions_[combination][rank];
  }

  void TakeBack(std::uint32_t position);
  void MarkStale(const Disturbance& disturbance);
  bool ClearOutdatedLists();
  void UpdateIncrementally(const Disturbance& disturbance, SegmentSource& source);
  void EndUpdate();
  void UpdateAll(const std::vector<std::uint32_t>& rebuilt, SegmentSource& source);
  void FillList(std::uint32_t c, StepKind kind, SegmentSource& source);
  std::size_t Rescore(std::uint32_t position, SegmentSource& source);

  std::uint32_t combination_count_;
  std::vector<Class> classes_;
  std::vector<Bounds> bounds_;  // of each class
  double max_slope_ = 0.0;
  bool slopes_changed_ = false;

  std::uint32_t trial_count_ = 0;
  // Unless there is one combination only:
  std::vector<std::uint32_t> ranks_;                   // of each trial
  std::vector<std::vector<std::uint32_t>> positions_;  // of each combination, by rank

  State remembered_;

  // The update under way, where memory ran out.
  enum class Stage { kNone, kIncremental, kFull };
  Stage stage_ = Stage::kNone;
  std::uint32_t filled_count_ = 0;  // lists that a full one is through with

  Scratch<std::vector<std::uint32_t>> in_list_;  // rebuilt trials that may be in the list at hand
  Scratch<std::vector<std::uint32_t>> needed_;   // ranks
  std::vector<PerKind<double>> best_keys_;       // of the trial at hand, one for each index
  ClassedSegment segments_[SegmentSource::kMostSegments];
  UpdateCounters work_;
};

}  // namespace QuenloftSolver
