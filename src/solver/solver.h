// SPDX-License-Identifier: MIT
//
// The search in N dimensions. The class is a table of contents: each step of the
// method has a file of its own in impl/, named after it.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "solver/candidate_columns.h"
#include "solver/candidate_list.h"
#include "solver/function_interface.h"
#include "solver/key_bounds.h"
#include "solver/local_fit.h"
#include "solver/neighbour_selection.h"
#include "solver/solver_base.h"
#include "solver/team.h"
#include "solver/trial.h"
#include "solver/trial_bits.h"

namespace QuenloftSolver {

// Work done since construction.
struct WorkCounters {
  std::uint64_t listed = 0;           // trials listed for a refresh
  std::uint64_t refreshed = 0;        // of those, tables rebuilt
  std::uint64_t full_updates = 0;     // candidate updates over every trial
  std::uint64_t offers = 0;           // candidates offered to the lists
  std::uint64_t entries_visited = 0;  // list entries looked at to find stale ones
  std::uint64_t candidates = 0;       // looked at in selections
  std::uint64_t kept = 0;             // of those, perhaps within the radius
  std::uint64_t cosines = 0;          // asked for in double precision, see ContenderTask
  std::uint64_t rounded_cosines = 0;  // computed of rounded directions
};

// A deterministic, derivative-free Lipschitz-type search for the global minimum.
//
// Every trial keeps a table of near neighbours in well-spread directions. On each
// segment between neighbours the function is bounded below by a model with an
// overestimated slope; a step splits the segment with the lowest bound. Slopes are
// estimated per class, a class being an index (how many constraints hold) and a
// categorical combination.
//
// Invariants, between two steps:
//   (1) Trials are only appended; a trial's position never changes.
//   (2) Trials of different combinations are never neighbours.
//   (3) Every characteristic in the table of a linked trial is computed.
//   (4) slopes_[c] is at least the slope of every trial of class c seen so far.
// The search is a function of the values that it is fed alone: sums over coordinates
// run in coordinate order from 0.0, and the number of threads changes nothing.
//
// Cost: a step works in proportion to the trials around the new one, but for an
// update of every trial when some class slope grows or a list runs dry.
// Threads: see SolverBase.
template <int N>
class Solver final : public SolverBase {
 public:
  static_assert(N >= 1, "a search has at least one variable");

  Solver(const std::vector<double>& bounds, const std::vector<std::int32_t>& categorical_sizes,
         const std::vector<FunctionInterface*>& functions, const SearchParameters& parameters);

  void Initialize() override;
  std::uint32_t Dimension() const override { return N; }
  std::uint32_t TripleDimension() const override { return 3 * N; }
  std::uint32_t TestCount() const override { return static_cast<std::uint32_t>(tests_.size()); }
  const TestBase* GetTest(std::uint32_t position) const override { return &tests_[position]; }
  void Step() override;
  std::uint32_t BestPosition() const override { return best_position_; }
  const std::vector<std::int32_t>& CategoricalSizes() const override { return categorical_sizes_; }
  std::uint32_t CombinationCount() const override { return combination_count_; }
  const std::int32_t* DecodeCombination(std::uint32_t combination) const override;
  void ToBounds(const double* unit, double* bounded) const override;
  bool Fit(std::uint32_t position) override;

  // For tests and benchmarks.
  const Test<N>& TrialAt(std::uint32_t position) const { return tests_[position]; }
  const std::vector<CandidateList>& GlobalLists() const { return global_lists_; }
  const std::vector<CandidateList>& LocalLists() const { return local_lists_; }
  WorkCounters Work() const;
  void ForceTeam(int threads) { team_.Force(threads); }

 private:
  using Coordinates = std::array<double, N>;

  // solver_impl.h: construction and evaluation.
  TestValue EvaluateAt(const Coordinates& unit, std::uint32_t combination);
  std::uint32_t ClassOf(const Test<N>& trial) const {
    return static_cast<std::uint32_t>(trial.value.index) * combination_count_ + trial.combination;
  }
  // A slope estimate of 0 says nothing: the largest slope known stands in, or 1.
  double UsableSlope(double slope) const {
    return slope != 0.0 ? slope : max_slope_ != 0.0 ? max_slope_ : 1.0;
  }

  // initial_trials_impl.h
  void SizeContainers();
  void PlaceInitialTrials();
  void AppendInEveryCombination(const Coordinates& point);
  void AppendTrial(const Coordinates& point, std::uint32_t combination, const TestValue& value,
                   std::uint32_t flags);
  void LinkInitialTrial(std::uint32_t position);

  // iteration_step_impl.h
  struct Segment {
    std::uint32_t anchor;
    std::int32_t partner;
  };
  enum class StepKind { kGlobal, kLocal };
  StepKind NextKind();
  Segment SelectCandidate(StepKind kind);
  void FetchAhead(const CandidateList& list) const;
  double SplittingSlope(const Test<N>& anchor, StepKind kind) const;
  Coordinates PointOn(const Segment& segment, StepKind kind) const;
  bool IsDuplicate(const Coordinates& point, const Segment& segment) const;
  bool RegisterNewest(const Segment& segment, int whole_rings);
  void UpdateExtremes(const TestValue& value);
  bool UpdateBest(std::uint32_t position);

  // neighbour_refresh_impl.h
  // A table that is rebuilt, and what the caller's thread must know of it: the trial
  // itself may stand in the cache of the thread that rebuilt it. On a line of its own.
  struct alignas(kCacheLine) Rebuilt {
    std::uint32_t position = 0;
    std::uint32_t trial_class = 0;
    double radius_before = 0.0;
    double slope = 0.0;
    // The best keys of its segments, unless these are yet to be computed.
    double best_local = 0.0;
    double best_global = 0.0;
    std::uint32_t segment_count = 0;
    bool has_keys = false;
    bool is_lowest = false;
    int is_claimed = 0;  // 1 once a thread of the team has taken it on
  };
  struct Worker;
  void ResetChanged();
  std::uint32_t& MetBy(std::uint32_t position) {
    if constexpr (kMarksStandInRows<N>) {
      return rows_[position].met_by;
    } else {
      return marks_[position].met_by;
    }
  }
  void ListForRefresh(std::uint32_t position);
  void ExpandChanged(int whole_rings);
  std::size_t TakeWholeRing(std::size_t ring_begin);
  std::size_t TakeRingWithinExtent(std::size_t ring_begin);
  void RefreshNeighbours();
  void ListRebuilt();
  void ReserveWorkers(int threads, std::size_t candidates);
  void RebuildTables(const std::vector<std::uint32_t>& candidates);
  void RebuildInTeam(int threads);
  template <typename Rebuild>  // void(std::size_t slot, std::size_t next)
  void ShareTables(std::size_t number, std::size_t threads, Rebuild rebuild);
  void FetchTable(std::uint32_t position) const;
  void FetchBack(std::uint32_t position) const;
  void ListLocalCandidates(const std::vector<std::uint32_t>& candidates);
  void GatherCandidates(const std::vector<std::uint32_t>& candidates,
                        CandidateColumns<N>& columns) const;
  void ResolveLocalMarks();
  bool TakesMark(const Rebuilt& rebuilt, const Test<N>& other) const;

  // neighbour_table_impl.h
  void RebuildTable(Rebuilt& rebuilt, Worker& worker);
  void WriteTable(std::uint32_t position, const NeighbourSelection<N>& selection);
  void RaiseSlopes(const Rebuilt& rebuilt);

  // local_refinement_impl.h: Fit, and
  bool ListFitData(std::uint32_t position);

  // candidate_update_impl.h
  void UpdateCandidates(UpdateMode mode);
  void MarkStaleCandidates();
  bool ClearOutdatedLists();
  void ListRebuiltIn(const CandidateList& list, const KeyBounds& bounds);
  void CommitLists();
  void UpdateEveryTrial();
  void ListNeeded();
  template <typename OfferTo>  // void(CandidateList&, const Candidate&)
  void OfferSegments(std::uint32_t position, OfferTo offer);
  void SetKeys(Rebuilt& rebuilt);
  void ForgetKeys(Rebuilt& rebuilt);
  void StageSegments(const Rebuilt& rebuilt);
  std::uint32_t SetCharacteristics(const Test<N>& trial, Neighbour& segment) const;

  // Fixed after construction.
  SearchParameters parameters_;
  double spread_cosine_;
  const std::vector<FunctionInterface*>* functions_;
  std::uint32_t function_count_;
  Coordinates width_;
  Coordinates lower_;
  std::vector<std::int32_t> categorical_sizes_;
  std::uint32_t combination_count_;
  std::uint32_t class_count_;

  // The trials and what is known of them together.
  std::vector<Test<N>> tests_;
  std::uint32_t initial_count_ = 0;  // of them, those that were there before the first step
  std::uint32_t best_position_ = 0;
  TestValue best_{-1, kUnset};
  std::vector<double> index_max_;  // one per index
  std::vector<double> index_min_;
  std::vector<double> slopes_;  // one per class
  double max_slope_ = 0.0;
  // Class slopes that grew since the last candidate update.
  std::vector<std::uint8_t> class_changed_;
  bool slopes_changed_ = false;
  // Accumulates local_vs_global; a local step is due at 1.
  double alternation_ = 0.0;
  // One per class.
  std::vector<CandidateList> local_lists_;
  std::vector<CandidateList> global_lists_;
  // Best keys of each trial's segments, in lists of whichever classes.
  KeyBounds local_bounds_;
  KeyBounds global_bounds_;

  // The refresh under way: the trials whose neighbourhoods the newest one may
  // disturb, all of its combination, the newest first; empty until the first step.
  std::vector<std::uint32_t> changed_;
  // Of those, the ones whose `kChanged` flag is set, in list order.
  std::vector<std::uint32_t> to_rescore_;
  // Of those, the ones whose tables this refresh rebuilds, in list order.
  std::vector<Rebuilt> rebuilt_;
  // Their positions alone: a team writes on the lines of the slots above.
  std::vector<std::uint32_t> rebuilt_positions_;
  // Whether what the lists hold of them is marked.
  bool stale_are_marked_ = false;
  // One per trial.
  std::vector<FloodRow<N>> rows_;
  std::vector<FloodMark> marks_;  // unless the rows have them
  std::uint32_t refresh_number_ = 0;
  // Whether a trial is listed, and whether it may be marked local: of one that is, the bit is
  // set. Apart from rows and flags, and short, as all threads ask it of every neighbour of the
  // tables that they rebuild.
  TrialBits is_listed_;
  TrialBits may_be_local_;

  // Scratch: meaningless between calls.
  std::vector<std::uint32_t> seen_;              // trials that a ring of the flood meets first
  std::vector<std::uint32_t> local_candidates_;  // candidates marked local
  std::vector<std::uint32_t> rebuilt_in_list_;   // perhaps, of the list at hand
  std::vector<std::uint32_t> needed_blocks_;     // in an update of every trial, as the next
  std::vector<std::uint32_t> needed_;
  std::vector<std::int32_t> evaluation_categories_;
  double evaluation_nanoseconds_ = 0.0;  // that the last timed evaluation took
  struct Worker {
    CandidateColumns<N> columns;
    NeighbourSelection<N> selection;
  };
  std::vector<Worker> workers_;  // one per thread
  Team team_;
  std::unique_ptr<LocalFit<N>> local_fit_;
  WorkCounters work_;
};

}  // namespace QuenloftSolver
