// SPDX-License-Identifier: MIT
//
// The engine as its callers see it: the abstract solver, the abstract trial, and
// the two records that cross the border. A solver of the right dimension comes
// from CreateSolver (create_solver.h).

#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "solver/neighbour.h"

namespace QuenloftSolver {

// The outcome of evaluating a point. Trials are ranked by higher `index`, then
// by smaller `value`; of equals the one found first is the better.
struct TestValue {
  // Number of the first violated constraint, from 0, or the number of
  // constraints when all hold; -1 in a trial that was never evaluated.
  std::int32_t index;
  // The violated constraint's value (above 0), or the target's.
  double value;
};

// Tuning of a search. The solver copies it whole and checks nothing: an unusual
// value gives an unusual search, never an invalid one.
struct SearchParameters {
  // Factor on the slope estimate of a class of trials, in global steps.
  double overestimation = 2.0;
  // Factor on a trial's own slope estimate, in local steps.
  double overestimation_local = 1.1;
  // Local steps per global step; 0 turns local steps off, 1 alternates.
  double local_vs_global = 0.1;
  // Neighbours of a trial are chosen while some direction is at least
  // 2 pi / spread away from all those chosen.
  double spread = 12.0;
  // Extent of the initial cross of trials, as a share of the box; 0 for none.
  double cross = 0.99;
  // Local model fits after a step that improved the best trial, at most.
  std::uint32_t fit = 0;
  // With constraints, `reserve` class slopes are added to the key of the classes
  // at the best trial's index.
  double reserve = 0.0;
};

// A search over the unit box that stands for the caller's box, one trial a step.
//
// Memory: where it runs out an operation throws std::bad_alloc. A trial that is stored then
// stays, and the operations that go on with the search first finish what was begun; a
// proposal that is not stored waits as before. So a search that is given memory again goes on
// as if nothing had been. From Checkpoint to Rollback, take the guesses back first.
//
// Threads: none of the operations may overlap with another on the same solver.
// Step and Fit use several threads inside; the functions are called on the
// caller's thread only.
class SolverBase {
 public:
  // One evaluated point. Valid until the solver stores more trials than it has
  // reserved room for (1,000,000 where memory allows); read it between steps.
  class TestBase {
   public:
    // Bits of `flags`.
    enum Flag : std::uint32_t {
      kLocal = 1,          // lowest of its index and combination within its radius
      kFromLocalStep = 2,  // placed by a local step
      kExcluded = 4,       // listed for the refresh that the newest trial caused (Solver<N>
                           // holds this bit apart from the trials)
      kChanged = 8,        // its neighbour table was rebuilt by that refresh
      kBoundary = 16,      // a face of the box is among its neighbours
      kFromFit = 32,       // placed by a local fit
      kInserted = 64,      // placed at a point from outside
    };

    virtual TestValue GetValue() const = 0;
    // N unit coordinates.
    virtual const double* Coordinate() const = 0;
    // Number of the categorical combination; see SolverBase::DecodeCombination.
    virtual std::uint32_t CombinationIndex() const = 0;
    // Distance to the farthest neighbour, in unit coordinates.
    virtual double Radius() const = 0;
    // The first of 3 N entries; one that is empty ends the table.
    virtual const Neighbour* Neighbours() const = 0;

    std::atomic<std::uint32_t> flags{0};

   protected:
    TestBase() = default;
    TestBase(const TestBase& other) : flags(other.flags.load(std::memory_order_relaxed)) {}
    TestBase& operator=(const TestBase& other) {
      flags.store(other.flags.load(std::memory_order_relaxed), std::memory_order_relaxed);
      return *this;
    }
    ~TestBase() = default;
  };

  // A point whose value the search wants.
  struct Proposal {
    // N unit coordinates; valid until the next operation that changes the solver.
    const double* point;
    std::uint32_t combination;
    // Positions of the trials at the ends of the segment that it splits, the anchor first;
    // -1 where there is none, as at a face of the box.
    std::int32_t anchor = -1;
    std::int32_t partner = -1;
  };

  virtual ~SolverBase() = default;

  // Evaluates and links the initial trials; does nothing when there are any.
  virtual void Initialize() = 0;
  // N.
  virtual std::uint32_t Dimension() const = 0;
  // 3 N, the number of neighbour entries of a trial.
  virtual std::uint32_t TripleDimension() const = 0;
  virtual std::uint32_t TestCount() const = 0;
  // The trial at `position`, which must be below TestCount().
  virtual const TestBase* GetTest(std::uint32_t position) const = 0;
  // Places at most one trial (and those of the fits it leads to). The first call
  // initialises. Throws what the functions throw, EvaluationError for a value
  // that is not finite, SearchExhausted when no segment is left to split.
  virtual void Step() = 0;

  // A step in parts, for a caller who evaluates by himself: what Propose returns is
  // evaluated, and Accept takes the value. The functions of the solver are not called.
  // Fed with the same values a search has the same trials either way.
  //
  // The initial trials, which are the first proposals. They can all be evaluated before
  // the first is accepted: their number, and proposal `i` of them.
  virtual std::uint32_t InitialCount() const = 0;
  virtual Proposal Initial(std::uint32_t i) const = 0;
  // The next point; the same one until it is accepted or discarded. Nothing where the
  // step ends without an evaluation: the next call is the next step. Throws
  // SearchExhausted when no segment is left to split.
  virtual std::optional<Proposal> Propose() = 0;
  // Places a trial of this outcome, which must be finite, at the proposed point, or at
  // `point` (N unit coordinates) which the caller took in its place. True when it became
  // the best one; of initial trials that is known when the last one is accepted.
  virtual bool Accept(const TestValue& value, const double* point = nullptr) = 0;
  // Ends the step without a trial. Of initial points, all combinations' or none's.
  virtual void Discard() = 0;
  // Places a trial at a point from outside, which splits no segment: it is registered
  // among the neighbours of the trial at `anchor`, which should be near and must be of
  // the same combination. There must be no trial at the point. Not before the last of
  // the initial trials is accepted, and not while a proposal waits.
  // True when it became the best one.
  virtual bool Insert(const double* point, std::uint32_t combination, const TestValue& value,
                      std::uint32_t anchor) = 0;
  // Position of the trial of `combination` nearest to the point, the first of equals.
  // Cost: looks at every trial.
  virtual std::uint32_t Nearest(const double* point, std::uint32_t combination) const = 0;

  // Speculation: what steps change after a checkpoint is remembered, and Rollback makes the
  // search what it was then, to the last bit; the checkpoint then stands no more. A second
  // one takes the place of the first. Meanwhile steps have one thread.
  // Cost: Checkpoint copies the candidate lists of every class; a step then copies each trial
  // that it changes; Rollback copies back.
  virtual void Checkpoint() = 0;
  // Does nothing without a checkpoint.
  virtual void Rollback() = 0;
  // A search that goes on exactly as this one, and shares nothing with it but the functions.
  virtual std::shared_ptr<SolverBase> Copy() const = 0;

  // Position of the best trial; 0 before the initial trials are linked.
  virtual std::uint32_t BestPosition() const = 0;
  virtual const std::vector<std::int32_t>& CategoricalSizes() const = 0;
  // Product of the categorical sizes, 1 when there are none.
  virtual std::uint32_t CombinationCount() const = 0;
  // The categorical values of a combination, variable 0 varying fastest. The
  // buffer belongs to the calling thread and lives until its next call.
  virtual const std::int32_t* DecodeCombination(std::uint32_t combination) const = 0;
  // bounded[k] = width[k] * unit[k] + lower[k].
  virtual void ToBounds(const double* unit, double* bounded) const = 0;
  // Fits a convex quadratic to the trial at `position` and its neighbours and
  // places a trial at its minimiser. True when that trial became the best one.
  virtual bool Fit(std::uint32_t position) = 0;
  // Installs what the operations that go on with the search call now and then where they
  // may be at it for long; none at first, or when empty. It must leave the solver alone,
  // and may throw: that passes through unchanged, and the trials recorded before stay
  // valid. A fit that it interrupts is begun anew by Propose, and left out by Step.
  virtual void SetInterruptionCheck(std::function<void()> check) = 0;
};

}  // namespace QuenloftSolver
