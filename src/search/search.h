// SPDX-License-Identifier: MIT
//
// A search that is asked for points and told their values, by one worker or by many.

#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "search/column.h"
#include "search/fair_mutex.h"
#include "search/guess.h"
#include "search/problem.h"
#include "search/space.h"
#include "solver/solver_base.h"

namespace QuenloftSearch {

class Proposer;

// A point to evaluate.
struct Point {
  // Counts the points of a search from 0, in the order in which they were first handed
  // out or supplied.
  std::uint64_t id;
  // In the caller's units.
  std::vector<double> x;
  // One of 0 .. size - 1 for each categorical variable.
  std::vector<std::int32_t> categories;
};

// A point whose evaluation is not a trial, at least not yet.
struct OpenPoint {
  Point point;
  // It was handed out, and its value is still to come.
  bool is_pending;
  std::optional<Outcome> outcome;
};

// The trials made so far, one row each. The views stay valid, and the rows in them do not
// change, whatever happens to the search.
struct Trials {
  ColumnView<double> x;                 // in the caller's units, one column per variable
  ColumnView<std::int32_t> categories;  // one column per categorical variable
  ColumnView<std::int32_t> index;       // number of the first violated constraint
  ColumnView<double> value;             // its value, or the objective's where all hold
  ColumnView<double> constraints;       // one column per constraint; NaN where not known
  ColumnView<double> objective;         // NaN where not known
  ColumnView<std::uint64_t> id;         // of the point
  ColumnView<std::uint32_t> kind;       // kFromLocalStep, kFromFit, kInserted of TestBase::Flag
};

// The serial method (Proposer), fed by whoever evaluates. Points are handed out before it
// is known whether the method wants them: a value waits until it does, and is surplus if
// it never does.
//
// Invariants:
//   (1) The trials are those of the serial method: a function of the problem and of the
//       values at its points. The order of values, how many points are asked for at once,
//       and guesses of the look-ahead have no part in them.
//   (2) A point that is pending or whose value waits is not handed out again.
//   (3) An operation that throws leaves the search as it was.
// Cost: Tell and Advance that of the engine's step for every trial made; Ask one such step
// for every point that is pending, waits or is new.
// Threads: any operation may be called from any thread at any time; they take turns.
class Search {
 public:
  static constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();

  // Throws std::invalid_argument for what is wrong with the problem.
  explicit Search(Problem problem);
  ~Search();

  // Up to `count` points to evaluate now: those that the search cannot go on without, then
  // those that it will probably want next. None when it is finished, or when it has to
  // see values first.
  std::vector<Point> Ask(std::size_t count = 1);
  // Takes the value of a point that was handed out. Throws std::invalid_argument for any
  // other and for one told already.
  void Tell(const Point& point, Outcome outcome);
  // The same where there are no constraints.
  void Tell(const Point& point, double value);
  // The point handed out at these coordinates, for callers that keep no ids. Throws as Tell
  // does.
  Point Find(const std::vector<double>& x, const std::vector<std::int32_t>& categories) const;
  // Takes the value of any point: used if the search asks for exactly this one.
  Point Supply(std::vector<double> x, const std::vector<std::int32_t>& categories, Outcome outcome);
  // The value of a point that was handed out will not come: it may be handed out again.
  void Retract(const Point& point);
  // Makes trials of values that are there, at most `limit`. Returns how many were made;
  // fewer where a value is missing or the search is finished.
  std::size_t Advance(std::size_t limit = std::numeric_limits<std::size_t>::max());
  // The most trials, those known beforehand not counted. Nothing is asked for beyond it.
  void SetLimit(std::uint64_t trials);

  std::uint64_t Limit() const;
  std::size_t TrialCount() const;
  Trials GetTrials() const;
  // Position of the best trial: of the highest index, of these with the least value, of
  // these the first; a value that is not finite is the worst. Nothing before any trial.
  std::optional<std::size_t> Best() const;
  // Positions of the trials that are local minima, the lowest, ascending by value; see Proposer.
  std::vector<std::size_t> Locals(std::size_t most = 10) const;
  // Distance of a trial to its farthest neighbour in the unit box.
  double Radius(std::size_t position) const;
  // The same of the engine's best trial, infinity before the initial trials are linked.
  double BestRadius() const;
  // Nothing is left to split; on a lattice, every point of it is a trial.
  bool IsExhausted() const;
  // No trial is to come: exhausted, or at the limit.
  bool IsFinished() const;
  // Points that are no trials, in the order of their ids.
  std::vector<OpenPoint> OpenPoints() const;
  // Of those pending, the ones that the search cannot go on without.
  std::vector<Point> Needed() const;

  // Another guess for the look-ahead, for measurements: it changes no trial.
  void SetGuesser(Guesser guesser) { guesser_ = guesser; }
  const Problem& GetProblem() const { return problem_; }
  // Goes on exactly as this one would.
  std::unique_ptr<Search> Copy() const;

  // What a search is saved as, beside its problem and limit.
  struct State {
    std::uint64_t next_id = 0;
    std::vector<std::pair<Point, Outcome>> trials;
    std::vector<OpenPoint> open;
  };
  State Save() const;
  // Into a search just made of the same problem.
  void Restore(const State& state);

 private:
  // A point that the method wants, with the way to make it a trial.
  struct Candidate {
    PointKey key;
    std::vector<double> unit;
    enum { kProposed, kMoved, kFiller } way;  // as proposed; moved onto the lattice; see NextFiller
    // The ends of the segment, as in Proposal.
    std::int32_t anchor = -1;
    std::int32_t partner = -1;
  };
  class Lookahead;

  Search(const Search& other);

  bool Step();
  bool TakeStart();
  const Candidate* Current();
  std::optional<Candidate> Next();
  std::optional<Candidate> NextFiller();
  Candidate CandidateAt(const QuenloftSolver::SolverBase::Proposal& proposal) const;
  void Register(const QuenloftSolver::TestValue& value, const std::vector<double>& functions = {});
  void ReserveRow();
  using OpenIds = std::unordered_map<PointKey, std::uint64_t, PointKeyHash>;
  void TakeRow(OpenIds::iterator entry);
  QuenloftSolver::TestValue EngineValue(const Outcome& outcome) const;
  std::vector<double> FunctionsOf(const Outcome& outcome) const;
  QuenloftSolver::TestValue GuessOf(const Candidate& candidate) const;
  bool IsAtLimit(std::size_t further = 0) const;
  std::optional<std::size_t> WaitingStart(const PointKey& key) const;
  const OpenPoint* FindOpen(const PointKey& key) const;
  OpenPoint& Open(const PointKey& key);
  OpenPoint& Untold(const Point& point);
  PointKey KeyOf(const Point& point) const;

  mutable FairMutex mutex_;
  const Problem problem_;
  const Space space_;
  std::unique_ptr<Proposer> proposer_;
  Guesser guesser_ = GuessByPlane;
  std::uint64_t limit_ = kNoLimit;
  // What the method waits for; none when it is still to be found, or there is none.
  std::optional<Candidate> current_;
  bool is_exhausted_ = false;
  std::uint32_t initial_taken_ = 0;  // initial points that are trials, or were dropped
  // On a lattice, the points that are trials.
  std::unordered_set<PointKey, PointKeyHash> on_lattice_;
  std::uint64_t next_filler_ = 0;

  // Points that are no trials.
  std::uint64_t next_id_ = 0;
  std::map<std::uint64_t, OpenPoint> open_;
  OpenIds open_ids_;
  // Ids of the points that precede the initial ones: those known beforehand, then those wanted.
  std::vector<std::uint64_t> start_ids_;
  std::size_t known_count_ = 0;
  std::size_t next_start_ = 0;  // of them, to be made a trial
  // Their rows.
  std::unordered_map<PointKey, std::size_t, PointKeyHash> start_rows_;

  // One row per trial.
  Column<double> x_;
  Column<std::int32_t> categories_;
  Column<std::int32_t> index_;
  Column<double> value_;
  Column<double> constraints_;
  Column<double> objective_;
  Column<std::uint64_t> id_;
  Column<std::uint32_t> kind_;
  std::optional<std::size_t> best_;
  // Per index below the goal, the largest finite violation so far.
  std::vector<std::optional<double>> worst_;
};

}  // namespace QuenloftSearch
