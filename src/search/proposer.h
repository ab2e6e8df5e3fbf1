// SPDX-License-Identifier: MIT
//
// The search with one worker: where the next trial goes, and what a value changes.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "search/constrained_models.h"
#include "search/local_models.h"
#include "search/space.h"
#include "search/trend_model.h"
#include "search/trial_log.h"
#include "solver/function_interface.h"
#include "solver/solver_base.h"

namespace QuenloftSearch {

// What a search is made of, in the engine's terms.
struct Definition {
  // Lower and upper bound of each of the 1 to 32 variables in turn.
  std::vector<double> bounds;
  // Number of values of each categorical variable.
  std::vector<std::int32_t> categorical_sizes;
  // Constraints and the target together, at least 1: a TestValue's index is below.
  std::uint32_t function_count = 1;
  QuenloftSolver::SearchParameters parameters;
  // Whether local models share the search; without them its trials are the engine's.
  bool local_models = false;
  // Between a trial of a region's model and the next of the same region stand at least
  // batch - 1 others, so that this many workers need not wait.
  std::uint32_t batch = 1;
  // Where some variable is on a lattice: the local models' trials stay on it.
  std::shared_ptr<const Space> lattice;
};

// The serial method: initial trials, then steps of the engine and trials of the local
// models in turn. Its trials are a function of the definition and of the values that
// it is fed; every look-ahead is a use of the same operations between Checkpoint and
// Rollback.
//
// Operations are those of QuenloftSolver::SolverBase under the same names.
// Threads: none of the operations may overlap with another on the same proposer.
class Proposer {
 public:
  using Proposal = QuenloftSolver::SolverBase::Proposal;

  // Throws std::invalid_argument for a number of variables that is not from 1 to 32, or
  // not in this build.
  explicit Proposer(const Definition& definition);

  std::uint32_t InitialCount() const { return solver_->InitialCount(); }
  Proposal Initial(std::uint32_t i) const { return solver_->Initial(i); }
  std::optional<Proposal> Propose();
  // The trial is placed at the proposed point, or at `point` which was taken in its place.
  // `functions` holds the values of all constraints, in order, and of the target; NaN where
  // one is not known. With them the models know more than the first violated constraint.
  bool Accept(const QuenloftSolver::TestValue& value, const double* point = nullptr,
              const double* functions = nullptr);
  void Discard();
  bool Insert(const double* point, std::uint32_t combination,
              const QuenloftSolver::TestValue& value, std::uint32_t anchor,
              const double* functions = nullptr);
  // Writes down a trial that precedes the initial ones. The engine is told of it when these
  // are complete, unless one of them is at this very point: then TakeBegun accepts the
  // proposed point with the outcome of that trial, instead of a trial of its own.
  void Begin(const double* point, std::uint32_t combination, const QuenloftSolver::TestValue& value,
             const double* functions = nullptr);
  void TakeBegun(std::size_t trial, const double* point = nullptr);
  // Whether the engine was told of a trial.
  bool IsInEngine(std::size_t trial) const;
  // Whether the proposed point is of a local model, and the value that the model expects.
  bool IsLocal() const { return state_.local.has_value(); }
  double Expected() const { return state_.local->expected; }

  // Remembers the present state; one level. Rollback returns to it and forgets it.
  void Checkpoint();
  void Rollback();
  // Goes on exactly as this one would.
  std::unique_ptr<Proposer> Copy() const;

  // The trials: one for each Accept and Insert, in this order.
  std::size_t TrialCount() const { return log_.Size(); }
  const TrialLog& Trials() const { return log_; }
  // Position of the best one; 0 where there is none.
  std::size_t Best() const { return state_.best; }
  // Bits of TestBase::Flag: kFromLocalStep, kFromFit, kInserted.
  std::uint32_t Kind(std::size_t trial) const;
  // Distance to the farthest neighbour in the unit box, of a trial and of the best one;
  // infinity before the initial trials are complete.
  double Radius(std::size_t trial) const;
  double BestRadius() const;
  // The trials that are local minima, the lowest, ascending by value: of those that the engine
  // marks one for each value, but near the centre of a local model this one alone.
  std::vector<std::size_t> Locals(std::size_t most) const;

  // For reading: box, and what the engine holds.
  const QuenloftSolver::SolverBase& Solver() const { return *solver_; }

 private:
  // A point of a local model that waits for its value.
  enum class Model { kLocal, kConstrained, kTrend };
  struct LocalProposal {
    LocalPoint point;
    Model model;
    double expected;
  };
  // All that is not the engine's or the list of trials.
  struct State {
    std::uint32_t begun = 0;          // trials that precede the initial ones
    std::uint32_t initial_taken = 0;  // initial points accepted or discarded
    std::uint32_t best = 0;
    std::optional<LocalProposal> local;
    bool is_global_pending = false;
    LocalModels models;
    ConstrainedModels constrained;
    TrendModel trend;
    // Values of constraints were given: `constrained` is in charge.
    bool has_constraints = false;
    std::uint32_t last_gain = 0;  // trials when a local one was last the best
    double local_credit = 0.0;
    int local_due = 0;  // local trials until the next step of the engine
  };

  Proposer(const Proposer& other);
  void ProposeLocal();
  double LocalShare() const;
  void AcceptLocal(const QuenloftSolver::TestValue& value, const double* point,
                   const double* functions);
  bool Append(const double* point, std::uint32_t combination,
              const QuenloftSolver::TestValue& value, const double* functions,
              std::uint32_t position);
  void TakeInitial();
  // Lets the engine take a trial by `operation`. Where memory runs out and the engine holds the
  // trial already, it finishes the rest before its next step, and the trial counts.
  template <class Operation>
  void TellEngine(const Operation& operation);
  std::uint32_t InsertEngine(const double* point, std::uint32_t combination,
                             const QuenloftSolver::TestValue& value, std::uint32_t anchor);

  bool has_local_models_;
  // The solver keeps the address of the functions, and never calls them.
  std::shared_ptr<const std::vector<QuenloftSolver::FunctionInterface*>> functions_;
  std::shared_ptr<QuenloftSolver::SolverBase> solver_;
  TrialLog log_;
  State state_;
  // As they were at the checkpoint.
  std::optional<State> saved_;
  std::uint32_t saved_trials_ = 0;
};

}  // namespace QuenloftSearch
