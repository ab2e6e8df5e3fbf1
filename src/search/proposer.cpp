// SPDX-License-Identifier: MIT

#include "search/proposer.h"

#include <algorithm>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <tuple>

#include "solver/create_solver.h"

namespace QuenloftSearch {

using QuenloftSolver::FunctionInterface;
using QuenloftSolver::SolverBase;
using QuenloftSolver::TestValue;

namespace {

// Trials without a new best from a local one, in units of N, after which local trials become
// rarer; four and sixteen times as many make them rarer still.
constexpr std::uint32_t kBarren = 4;
// A local trial nearer than this to a trial of the engine stays with the models: it would
// tell the engine nothing but noise, which looks the steeper the nearer two trials are.
constexpr double kNear = 0.02;

std::shared_ptr<SolverBase> SolverOf(const Definition& definition,
                                     const std::vector<FunctionInterface*>& functions) {
  auto solver = QuenloftSolver::CreateSolver(definition.bounds, definition.categorical_sizes,
                                             functions, definition.parameters);
  if (!solver) {
    throw std::invalid_argument("no search over " + std::to_string(definition.bounds.size() / 2) +
                                " variables in this build");
  }
  return solver;
}
}  // namespace

Proposer::Proposer(const Definition& definition)
    : has_local_models_(definition.local_models),
      functions_(std::make_shared<const std::vector<FunctionInterface*>>(definition.function_count,
                                                                         nullptr)),
      solver_(SolverOf(definition, *functions_)),
      log_(solver_->Dimension(), definition.function_count),
      state_{0,
             0,
             0,
             std::nullopt,
             false,
             LocalModels(solver_->Dimension(), definition.batch, definition.lattice),
             ConstrainedModels(solver_->Dimension(), definition.function_count, definition.batch),
             TrendModel(solver_->Dimension(), definition.batch, definition.lattice)} {}

Proposer::Proposer(const Proposer& other)
    : has_local_models_(other.has_local_models_),
      functions_(other.functions_),
      solver_(other.solver_->Copy()),
      log_(other.log_),
      state_(other.state_) {}

std::unique_ptr<Proposer> Proposer::Copy() const {
  return std::unique_ptr<Proposer>(new Proposer(*this));
}

void Proposer::Checkpoint() {
  saved_ = state_;
  saved_trials_ = log_.Size();
  solver_->Checkpoint();
}

void Proposer::Rollback() {
  if (!saved_) return;
  solver_->Rollback();
  log_.Truncate(saved_trials_);
  if (saved_->initial_taken < InitialCount()) {
    for (std::uint32_t trial = 0; trial < saved_->begun; ++trial) {
      if (log_.EnginePosition(trial) >= solver_->TestCount()) {
        log_.SetEnginePosition(trial, TrialLog::kNotInEngine);
      }
    }
  }
  state_ = std::move(*saved_);
  saved_.reset();
}

std::optional<Proposer::Proposal> Proposer::Propose() {
  if (!state_.local && !state_.is_global_pending && has_local_models_) ProposeLocal();
  if (state_.local) {
    return Proposal{state_.local->point.coordinates.data(), state_.local->point.combination};
  }
  const std::optional<Proposal> proposal = solver_->Propose();
  state_.is_global_pending = proposal.has_value();
  return proposal;
}

void Proposer::ProposeLocal() {
  if (!state_.has_constraints) {
    if (auto point = state_.trend.Propose(log_)) {
      state_.local = LocalProposal{*point, Model::kTrend, state_.trend.Expected()};
      return;
    }
  }
  if (state_.local_due == 0) return;
  --state_.local_due;
  if (state_.has_constraints) {
    if (auto point = state_.constrained.Propose(log_)) {
      state_.local = LocalProposal{*point, Model::kConstrained, state_.constrained.Expected()};
    }
  } else if (auto point = state_.models.Propose(log_, *solver_, state_.best)) {
    state_.local = LocalProposal{*point, Model::kLocal, state_.models.Expected(log_)};
  }
}

bool Proposer::Accept(const TestValue& value, const double* point, const double* functions) {
  log_.ReserveNext();
  if (state_.local) {
    AcceptLocal(value, point, functions);
    return state_.best + 1 == log_.Size();
  }
  const Proposal proposal = *solver_->Propose();
  const std::vector<double> proposed(proposal.point, proposal.point + log_.Dimension());
  const std::uint32_t position = solver_->TestCount();
  TellEngine([&] { solver_->Accept(value, point); });
  state_.is_global_pending = false;
  const bool is_initial = state_.initial_taken < InitialCount();
  if (!is_initial) {
    state_.local_credit += LocalShare();
    state_.local_due = static_cast<int>(state_.local_credit);
    state_.local_credit -= state_.local_due;
  }
  const bool is_best = Append(point != nullptr ? point : proposed.data(), proposal.combination,
                              value, functions, position);
  if (is_initial) TakeInitial();
  return is_best;
}

void Proposer::Begin(const double* point, std::uint32_t combination, const TestValue& value,
                     const double* functions) {
  Append(point, combination, value, functions, TrialLog::kNotInEngine);
  ++state_.begun;
}

void Proposer::TakeBegun(std::size_t trial, const double* point) {
  const auto number = static_cast<std::uint32_t>(trial);
  solver_->Propose();
  const std::uint32_t position = solver_->TestCount();
  TellEngine([&] { solver_->Accept(log_.Value(number), point); });
  log_.SetEnginePosition(number, position);
  state_.is_global_pending = false;
  TakeInitial();
}

bool Proposer::IsInEngine(std::size_t trial) const {
  return log_.EnginePosition(static_cast<std::uint32_t>(trial)) != TrialLog::kNotInEngine;
}

// Counts an initial point. After the last one the engine is told of the trials that precede
// them; one that coincides with a trial of the engine stays with the models.
void Proposer::TakeInitial() {
  if (++state_.initial_taken < InitialCount()) return;
  for (std::uint32_t trial = 0; trial < state_.begun; ++trial) {
    if (IsInEngine(trial)) continue;
    const double* point = log_.Point(trial);
    const std::uint32_t anchor = solver_->Nearest(point, log_.Combination(trial));
    const double* near = solver_->GetTest(anchor)->Coordinate();
    if (std::equal(point, point + log_.Dimension(), near)) continue;
    log_.SetEnginePosition(trial,
                           InsertEngine(point, log_.Combination(trial), log_.Value(trial), anchor));
  }
}

// Local trials after a step of the engine, while the models have any to offer: as many as
// their success makes worth while. While they gain, as many as a model learns a gradient from.
double Proposer::LocalShare() const {
  const std::uint32_t barren = (log_.Size() - state_.last_gain) / (kBarren * log_.Dimension());
  if (barren < 1) return std::max(2.0, 1.0 * log_.Dimension());
  return barren < 4 ? 1.0 : barren < 16 ? 0.5 : 0.25;
}

void Proposer::AcceptLocal(const TestValue& value, const double* point, const double* functions) {
  const LocalProposal proposal = *state_.local;
  const double* at = point != nullptr ? point : proposal.point.coordinates.data();
  const std::uint32_t anchor = solver_->Nearest(at, proposal.point.combination);
  double square = 0.0;
  for (std::uint32_t k = 0; k < log_.Dimension(); ++k) {
    const double difference = at[k] - solver_->GetTest(anchor)->Coordinate()[k];
    square += difference * difference;
  }
  const std::uint32_t position = square < kNear * kNear
                                     ? TrialLog::kNotInEngine
                                     : InsertEngine(at, proposal.point.combination, value, anchor);
  state_.local.reset();
  if (Append(at, proposal.point.combination, value, functions, position))
    state_.last_gain = log_.Size();
  if (proposal.model == Model::kConstrained) state_.constrained.Accept(log_);
  if (proposal.model == Model::kLocal) {
    const bool has_misled = state_.models.Accept(log_);
    if (has_misled && LocalShare() >= 1.0) state_.trend.Call(log_);
  }
}

bool Proposer::Insert(const double* point, std::uint32_t combination, const TestValue& value,
                      std::uint32_t anchor, const double* functions) {
  log_.ReserveNext();
  return Append(point, combination, value, functions,
                InsertEngine(point, combination, value, anchor));
}

std::uint32_t Proposer::InsertEngine(const double* point, std::uint32_t combination,
                                     const TestValue& value, std::uint32_t anchor) {
  const std::uint32_t position = solver_->TestCount();
  TellEngine([&] { solver_->Insert(point, combination, value, anchor); });
  return position;
}

template <class Operation>
void Proposer::TellEngine(const Operation& operation) {
  const std::uint32_t count = solver_->TestCount();
  try {
    operation();
  } catch (const std::bad_alloc&) {
    if (solver_->TestCount() == count) throw;
  }
}

void Proposer::Discard() {
  if (state_.local) {
    if (state_.local->model == Model::kConstrained) state_.constrained.Discard();
    if (state_.local->model == Model::kLocal) state_.models.Discard();
    if (state_.local->model == Model::kTrend) state_.trend.Discard();
    state_.local.reset();
    return;
  }
  solver_->Discard();
  state_.is_global_pending = false;
  if (state_.initial_taken < InitialCount()) TakeInitial();
}

// Writes down a trial that is the engine's already. True when it is the best one.
bool Proposer::Append(const double* point, std::uint32_t combination, const TestValue& value,
                      const double* functions, std::uint32_t position) {
  log_.Append(point, combination, value, functions, position);
  state_.has_constraints |= functions != nullptr && log_.FunctionCount() > 1;
  const std::uint32_t trial = log_.Size() - 1;
  const bool is_best = trial == 0 || log_.IsBetter(trial, state_.best);
  if (is_best) state_.best = trial;
  state_.models.Notice(log_);
  return is_best;
}

std::uint32_t Proposer::Kind(std::size_t trial) const {
  const std::uint32_t position = log_.EnginePosition(static_cast<std::uint32_t>(trial));
  if (position == TrialLog::kNotInEngine) return SolverBase::TestBase::kInserted;
  return solver_->GetTest(position)->flags.load(std::memory_order_relaxed) &
         (SolverBase::TestBase::kFromLocalStep | SolverBase::TestBase::kFromFit |
          SolverBase::TestBase::kInserted);
}

// A trial that the engine does not hold stands for the nearest one that it holds.
double Proposer::Radius(std::size_t trial) const {
  const auto number = static_cast<std::uint32_t>(trial);
  std::uint32_t position = log_.EnginePosition(number);
  if (state_.initial_taken < InitialCount()) return std::numeric_limits<double>::infinity();
  if (position == TrialLog::kNotInEngine) {
    position = solver_->Nearest(log_.Point(number), log_.Combination(number));
  }
  return solver_->GetTest(position)->Radius();
}

double Proposer::BestRadius() const {
  return TrialCount() == 0 ? std::numeric_limits<double>::infinity() : Radius(state_.best);
}

std::vector<std::size_t> Proposer::Locals(std::size_t most) const {
  struct Candidate {
    double value;
    std::uint32_t trial;
    bool is_refined;
  };
  std::vector<Candidate> candidates;
  const auto add = [&](std::uint32_t trial, bool is_refined) {
    candidates.push_back({log_.Value(trial).value, trial, is_refined});
  };
  if (has_local_models_ && log_.Size() > 0) {
    add(state_.best, true);
    for (const std::uint32_t trial : state_.models.Centres()) {
      if (log_.Value(trial).index == log_.Value(state_.best).index) add(trial, true);
    }
  }
  for (std::uint32_t trial = 0; trial < log_.Size(); ++trial) {
    const std::uint32_t position = log_.EnginePosition(trial);
    if (position == TrialLog::kNotInEngine) continue;
    const std::uint32_t flags = solver_->GetTest(position)->flags.load(std::memory_order_relaxed);
    if ((flags & SolverBase::TestBase::kLocal) != 0) add(trial, false);
  }
  std::sort(candidates.begin(), candidates.end(), [](const Candidate& a, const Candidate& b) {
    return std::tie(a.value, a.trial, b.is_refined) < std::tie(b.value, b.trial, a.is_refined);
  });
  std::vector<Candidate> minima;
  for (const Candidate& candidate : candidates) {
    if (minima.size() == most) break;
    const bool is_known = std::any_of(minima.begin(), minima.end(), [&](const Candidate& other) {
      if (!other.is_refined) return !candidate.is_refined && other.value == candidate.value;
      return log_.Combination(candidate.trial) == log_.Combination(other.trial) &&
             log_.SquaredDistance(candidate.trial, log_.Point(other.trial)) < kNear * kNear;
    });
    if (!is_known) minima.push_back(candidate);
  }
  std::vector<std::size_t> trials;
  trials.reserve(minima.size());
  for (const Candidate& minimum : minima) trials.push_back(minimum.trial);
  return trials;
}

}  // namespace QuenloftSearch
