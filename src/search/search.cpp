// SPDX-License-Identifier: MIT

#include "search/search.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "search/proposer.h"
#include "solver/errors.h"

namespace QuenloftSearch {

using QuenloftSolver::SearchExhausted;
using QuenloftSolver::SolverBase;
using QuenloftSolver::TestValue;

namespace {

// What the engine is told of a failed evaluation while none of its index had a value.
constexpr double kFailedValue = 1.0;

const Problem& Checked(const Problem& problem) {
  Check(problem);
  return problem;
}

Definition DefinitionOf(const Problem& problem) {
  Definition definition;
  const auto space = std::make_shared<const Space>(problem);
  definition.bounds = space->EngineBounds();
  if (space->HasLattice()) definition.lattice = space;
  definition.categorical_sizes = problem.category_sizes;
  definition.function_count = static_cast<std::uint32_t>(problem.Goal()) + 1;
  definition.parameters = problem.parameters;
  definition.local_models = problem.has_local_models;
  definition.batch = problem.batch;
  return definition;
}

[[noreturn]] void Refuse(std::uint64_t id, const char* why) {
  throw std::invalid_argument("point " + std::to_string(id) + " " + why);
}

constexpr char kToldAlready[] = "was told already";
constexpr char kNotAskedFor[] = "was not asked for";
constexpr char kNoSuchPoint[] = "the search has no such point";

}  // namespace

// The method fed with guesses, from construction on; it is as before afterwards.
class Search::Lookahead {
 public:
  explicit Lookahead(Search& search)
      : search_(search),
        steps_(search.start_ids_.size() - search.next_start_),
        current_(search.current_),
        is_exhausted_(search.is_exhausted_),
        initial_taken_(search.initial_taken_),
        next_filler_(search.next_filler_) {
    search_.proposer_->Checkpoint();
  }
  ~Lookahead() {
    search_.proposer_->Rollback();
    for (const PointKey& key : added_) search_.on_lattice_.erase(key);
    search_.current_ = std::move(current_);
    search_.is_exhausted_ = is_exhausted_;
    search_.initial_taken_ = initial_taken_;
    search_.next_filler_ = next_filler_;
  }
  Lookahead(const Lookahead&) = delete;
  Lookahead& operator=(const Lookahead&) = delete;

  // What the method wants next; none when it would be at its limit, or exhausted.
  const Candidate* Wanted() const {
    return search_.IsAtLimit(steps_) ? nullptr : search_.Current();
  }

  void Feed(const TestValue& value, const std::vector<double>& functions = {}) {
    if (search_.space_.HasLattice()) added_.push_back(search_.current_->key);
    search_.Register(value, functions);
    ++steps_;
  }

 private:
  Search& search_;
  std::size_t
      steps_;  // since the search's trials, the points that precede the initial ones included
  std::optional<Candidate> current_;
  const bool is_exhausted_;
  const std::uint32_t initial_taken_;
  const std::uint64_t next_filler_;
  std::vector<PointKey> added_;
};

Search::Search(Problem problem)
    : problem_(std::move(problem)),
      space_(Checked(problem_)),
      proposer_(std::make_unique<Proposer>(DefinitionOf(problem_))),
      x_(problem_.variables.size()),
      categories_(problem_.category_sizes.size()),
      constraints_(problem_.constraint_count),
      worst_(static_cast<std::size_t>(problem_.Goal())) {
  for (const KnownPoint& known : problem_.known) {
    start_ids_.push_back(Supply(known.x, known.categories, known.outcome).id);
  }
  known_count_ = start_ids_.size();
  while (next_start_ < known_count_) TakeStart();
  for (const WantedPoint& wanted : problem_.wanted) {
    PointKey key{wanted.x, space_.CombinationOf(wanted.categories)};
    space_.Snap(key.x);
    if (FindOpen(key) == nullptr) start_ids_.push_back(Open(key).point.id);
  }
}

Search::Search(const Search& other)
    : problem_(other.problem_),
      space_(problem_),
      proposer_(other.proposer_->Copy()),
      guesser_(other.guesser_),
      limit_(other.limit_),
      current_(other.current_),
      is_exhausted_(other.is_exhausted_),
      initial_taken_(other.initial_taken_),
      on_lattice_(other.on_lattice_),
      next_filler_(other.next_filler_),
      next_id_(other.next_id_),
      open_(other.open_),
      open_ids_(other.open_ids_),
      start_ids_(other.start_ids_),
      known_count_(other.known_count_),
      next_start_(other.next_start_),
      start_rows_(other.start_rows_),
      x_(other.x_),
      categories_(other.categories_),
      index_(other.index_),
      value_(other.value_),
      constraints_(other.constraints_),
      objective_(other.objective_),
      id_(other.id_),
      kind_(other.kind_),
      best_(other.best_),
      worst_(other.worst_) {}

Search::~Search() = default;

std::unique_ptr<Search> Search::Copy() const {
  const std::lock_guard<FairMutex> lock(mutex_);
  return std::unique_ptr<Search>(new Search(*this));
}

std::vector<Point> Search::Ask(std::size_t count) {
  const std::lock_guard<FairMutex> lock(mutex_);
  while (Step()) {
  }
  std::vector<Point> points;
  if (count == 0 || IsAtLimit()) return points;
  const auto hand_out = [&points](OpenPoint& open) {
    if (open.is_pending || open.outcome) return;
    points.push_back(open.point);
    open.is_pending = true;
  };
  try {
    for (std::size_t i = next_start_; i < start_ids_.size(); ++i) {
      if (points.size() == count || IsAtLimit(i - next_start_)) return points;
      hand_out(open_.at(start_ids_[i]));
    }
    if (points.size() == count) return points;
    // One worker needs no look-ahead, which costs more than a step.
    if (const Candidate* wanted = Current()) hand_out(Open(wanted->key));
    if (points.size() == count) return points;
    Lookahead ahead(*this);
    while (const Candidate* wanted = ahead.Wanted()) {
      OpenPoint& open = Open(wanted->key);
      if (open.outcome) {
        ahead.Feed(EngineValue(*open.outcome), FunctionsOf(*open.outcome));
        continue;
      }
      hand_out(open);
      if (points.size() == count) break;
      ahead.Feed(GuessOf(*wanted));
    }
  } catch (...) {
    for (const Point& point : points) open_.at(point.id).is_pending = false;
    throw;
  }
  return points;
}

void Search::Tell(const Point& point, double value) {
  Tell(point, MakeOutcome(problem_, value, {}, false));
}

void Search::Tell(const Point& point, Outcome outcome) {
  Check(problem_, outcome);
  const std::lock_guard<FairMutex> lock(mutex_);
  OpenPoint& open = Untold(point);
  open.outcome = std::move(outcome);
  open.is_pending = false;
}

Point Search::Find(const std::vector<double>& x,
                   const std::vector<std::int32_t>& categories) const {
  const std::lock_guard<FairMutex> lock(mutex_);
  PointKey key{x, space_.CombinationOf(categories)};
  if (!space_.Contains(key.x)) throw std::invalid_argument(kNoSuchPoint);
  space_.Snap(key.x);
  if (const OpenPoint* open = FindOpen(key)) return open->point;
  for (std::size_t position = value_.Rows(); position-- > 0;) {
    if (std::equal(key.x.begin(), key.x.end(), x_.Row(position)) &&
        std::equal(categories.begin(), categories.end(), categories_.Row(position))) {
      Refuse(id_[position], kToldAlready);
    }
  }
  throw std::invalid_argument("this point was not asked for");
}

Point Search::Supply(std::vector<double> x, const std::vector<std::int32_t>& categories,
                     Outcome outcome) {
  Check(problem_, outcome);
  const std::lock_guard<FairMutex> lock(mutex_);
  PointKey key{std::move(x), space_.CombinationOf(categories)};
  if (!space_.Contains(key.x)) throw std::invalid_argument(kNoSuchPoint);
  space_.Snap(key.x);
  OpenPoint& open = Open(key);
  if (open.outcome) Refuse(open.point.id, kToldAlready);
  open.outcome = std::move(outcome);
  open.is_pending = false;
  return open.point;
}

void Search::Retract(const Point& point) {
  const std::lock_guard<FairMutex> lock(mutex_);
  Untold(point).is_pending = false;
}

std::size_t Search::Advance(std::size_t limit) {
  const std::lock_guard<FairMutex> lock(mutex_);
  std::size_t made = 0;
  while (made < limit && Step()) ++made;
  return made;
}

void Search::SetLimit(std::uint64_t trials) {
  const std::lock_guard<FairMutex> lock(mutex_);
  limit_ = trials;
}

std::uint64_t Search::Limit() const {
  const std::lock_guard<FairMutex> lock(mutex_);
  return limit_;
}

std::size_t Search::TrialCount() const {
  const std::lock_guard<FairMutex> lock(mutex_);
  return value_.Rows();
}

Trials Search::GetTrials() const {
  const std::lock_guard<FairMutex> lock(mutex_);
  return {x_.View(),           categories_.View(), index_.View(), value_.View(),
          constraints_.View(), objective_.View(),  id_.View(),    kind_.View()};
}

std::optional<std::size_t> Search::Best() const {
  const std::lock_guard<FairMutex> lock(mutex_);
  return best_;
}

std::vector<std::size_t> Search::Locals(std::size_t most) const {
  const std::lock_guard<FairMutex> lock(mutex_);
  return proposer_->Locals(most);
}

double Search::Radius(std::size_t position) const {
  const std::lock_guard<FairMutex> lock(mutex_);
  if (position >= value_.Rows()) throw std::invalid_argument("there is no such trial");
  return proposer_->Radius(position);
}

double Search::BestRadius() const {
  const std::lock_guard<FairMutex> lock(mutex_);
  return proposer_->BestRadius();
}

bool Search::IsExhausted() const {
  const std::lock_guard<FairMutex> lock(mutex_);
  return is_exhausted_;
}

bool Search::IsFinished() const {
  const std::lock_guard<FairMutex> lock(mutex_);
  return is_exhausted_ || IsAtLimit();
}

std::vector<OpenPoint> Search::OpenPoints() const {
  const std::lock_guard<FairMutex> lock(mutex_);
  std::vector<OpenPoint> points;
  for (const auto& [id, open] : open_) points.push_back(open);
  return points;
}

std::vector<Point> Search::Needed() const {
  const std::lock_guard<FairMutex> lock(mutex_);
  std::vector<Point> points;
  const auto add = [&](const PointKey& key) {
    const OpenPoint* open = FindOpen(key);
    if (open != nullptr && open->is_pending) points.push_back(open->point);
  };
  if (is_exhausted_ || IsAtLimit()) return points;
  for (std::size_t i = next_start_; i < start_ids_.size(); ++i) {
    const OpenPoint& open = open_.at(start_ids_[i]);
    if (open.is_pending) points.push_back(open.point);
  }
  const std::uint32_t initial_count = proposer_->InitialCount();
  for (std::uint32_t i = initial_taken_; i < initial_count; ++i) {
    add(CandidateAt(proposer_->Initial(i)).key);
  }
  if (initial_taken_ == initial_count && current_) add(current_->key);
  return points;
}

Search::State Search::Save() const {
  const std::lock_guard<FairMutex> lock(mutex_);
  State state;
  state.next_id = next_id_;
  for (std::size_t position = 0; position < value_.Rows(); ++position) {
    const auto row = [position](const auto& column, std::size_t width) {
      using Value = std::decay_t<decltype(column[0])>;
      return std::vector<Value>(column.Row(position), column.Row(position) + width);
    };
    state.trials.push_back({{id_[position], row(x_, problem_.variables.size()),
                             row(categories_, problem_.category_sizes.size())},
                            {index_[position], value_[position],
                             row(constraints_, problem_.constraint_count), objective_[position]}});
  }
  for (const auto& [id, open] : open_) state.open.push_back(open);
  return state;
}

// The trials follow from their values once more, one at a time, as a point may have been a
// trial more than once.
void Search::Restore(const State& state) {
  const std::lock_guard<FairMutex> lock(mutex_);
  const auto add = [&](const OpenPoint& open) {
    if (open.outcome) Check(problem_, *open.outcome);
    if (!space_.Contains(open.point.x)) throw std::invalid_argument(kNoSuchPoint);
    open_.insert_or_assign(open.point.id, open);
    open_ids_.insert_or_assign(KeyOf(open.point), open.point.id);
  };
  next_id_ = state.next_id;
  for (std::size_t i = known_count_; i < state.trials.size(); ++i) {
    const auto& [point, outcome] = state.trials[i];
    const auto found = open_.find(point.id);
    if (found == open_.end() || !found->second.outcome) add({point, false, outcome});
    if (!Step() || id_[id_.Rows() - 1] != point.id) {
      throw std::invalid_argument("these are not the trials of this search");
    }
  }
  for (const OpenPoint& open : state.open) add(open);
}

// Makes one trial, if the value is there.
bool Search::Step() {
  if (IsAtLimit()) return false;
  if (next_start_ < start_ids_.size()) return TakeStart();
  const Candidate* wanted = Current();
  if (wanted == nullptr) return false;
  const auto found = open_ids_.find(wanted->key);
  if (found == open_ids_.end()) return false;
  const std::optional<Outcome>& outcome = open_.at(found->second).outcome;
  if (!outcome) return false;
  ReserveRow();
  Register(EngineValue(*outcome), FunctionsOf(*outcome));
  TakeRow(found);
  return true;
}

// Makes a trial of the next of the points that precede the initial ones, if its value is there.
bool Search::TakeStart() {
  const OpenPoint& open = open_.at(start_ids_[next_start_]);
  if (!open.outcome) return false;
  const auto found = open_ids_.find(KeyOf(open.point));
  const PointKey& key = found->first;
  const std::vector<double> unit = space_.Encode(key.x);
  ReserveRow();
  start_rows_.emplace(key, value_.Rows());
  if (space_.HasLattice()) on_lattice_.insert(key);
  const std::vector<double> functions = FunctionsOf(*open.outcome);
  proposer_->Begin(unit.data(), key.combination, EngineValue(*open.outcome),
                   functions.empty() ? nullptr : functions.data());
  ++next_start_;
  current_.reset();  // it may be at this very point
  TakeRow(found);
  return true;
}

const Search::Candidate* Search::Current() {
  if (!current_ && !is_exhausted_) {
    current_ = Next();
    is_exhausted_ = !current_;
  }
  return current_ ? &*current_ : nullptr;
}

// What the method wants next, none when there is nothing. A point of the lattice that is a
// trial is dropped, and so is an initial point that was given to begin with.
std::optional<Search::Candidate> Search::Next() {
  // Local steps may have nothing left to split where a global one has.
  int kinds_left = space_.HasLattice()
                       ? 2 + static_cast<int>(std::min(problem_.parameters.local_vs_global, 100.0))
                       : 1;
  while (kinds_left > 0) {
    try {
      const std::optional<SolverBase::Proposal> proposal = proposer_->Propose();
      if (!proposal) continue;
      Candidate candidate = CandidateAt(*proposal);
      if (const auto row = WaitingStart(candidate.key)) {
        const bool is_moved = candidate.way == Candidate::kMoved;
        proposer_->TakeBegun(*row, is_moved ? candidate.unit.data() : nullptr);
        ++initial_taken_;
        continue;
      }
      if (!space_.HasLattice() || on_lattice_.count(candidate.key) == 0) return candidate;
      proposer_->Discard();
      if (initial_taken_ < proposer_->InitialCount()) ++initial_taken_;
    } catch (const SearchExhausted&) {
      --kinds_left;
    }
  }
  return NextFiller();
}

// The engine may have nothing left to split, as its lists are short and dropped segments do
// not come back, when a lattice still has points. These follow in their order.
std::optional<Search::Candidate> Search::NextFiller() {
  for (; next_filler_ < space_.PointCount(); ++next_filler_) {
    PointKey key = space_.PointAt(next_filler_);
    if (on_lattice_.count(key) > 0) continue;
    std::vector<double> unit = space_.Encode(key.x);
    return Candidate{std::move(key), std::move(unit), Candidate::kFiller};
  }
  return std::nullopt;
}

Search::Candidate Search::CandidateAt(const SolverBase::Proposal& proposal) const {
  const SolverBase& solver = proposer_->Solver();
  std::vector<double> engine(solver.Dimension());
  solver.ToBounds(proposal.point, engine.data());
  Candidate candidate{{space_.Decode(engine.data()), proposal.combination},
                      {proposal.point, proposal.point + engine.size()},
                      Candidate::kProposed,
                      proposal.anchor,
                      proposal.partner};
  if (!space_.HasLattice()) return candidate;
  const std::vector<double> middle = space_.Encode(candidate.key.x);
  for (std::size_t k = 0; k < middle.size(); ++k) {
    if (!space_.IsOnLattice(k) || candidate.unit[k] == middle[k]) continue;
    candidate.unit[k] = middle[k];
    candidate.way = Candidate::kMoved;
  }
  return candidate;
}

// Makes a trial of the point that the method waits for.
void Search::Register(const TestValue& value, const std::vector<double>& functions) {
  const Candidate& candidate = *current_;
  const double* known = functions.empty() ? nullptr : functions.data();
  if (space_.HasLattice()) on_lattice_.insert(candidate.key);
  switch (candidate.way) {
    case Candidate::kProposed:
      proposer_->Accept(value, nullptr, known);
      break;
    case Candidate::kMoved:
      proposer_->Accept(value, candidate.unit.data(), known);
      break;
    case Candidate::kFiller: {
      const std::uint32_t combination = candidate.key.combination;
      proposer_->Insert(candidate.unit.data(), combination, value,
                        proposer_->Solver().Nearest(candidate.unit.data(), combination), known);
      break;
    }
  }
  if (initial_taken_ < proposer_->InitialCount()) ++initial_taken_;
  current_.reset();
}

void Search::ReserveRow() {
  const std::size_t rows = value_.Rows() + 1;
  x_.Reserve(rows);
  categories_.Reserve(rows);
  index_.Reserve(rows);
  value_.Reserve(rows);
  constraints_.Reserve(rows);
  objective_.Reserve(rows);
  id_.Reserve(rows);
  kind_.Reserve(rows);
}

// Moves an open point to the rows of the trials, as the engine's newest. Cannot fail after
// ReserveRow.
void Search::TakeRow(OpenIds::iterator entry) {
  const auto found = open_.find(entry->second);
  const OpenPoint& open = found->second;
  const std::size_t position = value_.Rows();
  const Outcome& outcome = *open.outcome;
  x_.Append(open.point.x.data());
  categories_.Append(open.point.categories.data());
  index_.Append(&outcome.index);
  value_.Append(&outcome.value);
  constraints_.Append(outcome.constraints.data());
  objective_.Append(&outcome.objective);
  id_.Append(&open.point.id);
  const std::uint32_t kind = proposer_->Kind(position);
  kind_.Append(&kind);

  const bool is_finite = std::isfinite(outcome.value);
  const auto index = static_cast<std::size_t>(outcome.index);
  if (is_finite && index < worst_.size()) {
    worst_[index] = std::max(worst_[index].value_or(outcome.value), outcome.value);
  }
  const auto rank = [](double value) {
    return std::isfinite(value) ? value : std::numeric_limits<double>::infinity();
  };
  if (!best_ || outcome.index > index_[*best_] ||
      (outcome.index == index_[*best_] && rank(outcome.value) < rank(value_[*best_]))) {
    best_ = position;
  }
  open_.erase(found);
  open_ids_.erase(entry);
}

// A failed evaluation is as bad as the worst of its index so far.
TestValue Search::EngineValue(const Outcome& outcome) const {
  if (std::isfinite(outcome.value)) return {outcome.index, outcome.value};
  return {outcome.index, worst_[static_cast<std::size_t>(outcome.index)].value_or(kFailedValue)};
}

// What the models may know: the constraints' values, then the target's, NaN where unknown.
// Nothing where there are no constraints but that evaluations succeed, of which no value tells
// how far it is from failing.
std::vector<double> Search::FunctionsOf(const Outcome& outcome) const {
  if (problem_.constraint_count == 0) return {};
  std::vector<double> functions = outcome.constraints;
  functions.resize(static_cast<std::size_t>(problem_.Goal()) + 1,
                   std::numeric_limits<double>::quiet_NaN());
  functions.back() = outcome.objective;
  for (double& value : functions) {
    if (!std::isfinite(value)) value = std::numeric_limits<double>::quiet_NaN();
  }
  return functions;
}

TestValue Search::GuessOf(const Candidate& candidate) const {
  const TestValue guess = guesser_(
      proposer_->Solver(),
      {candidate.unit.data(), candidate.key.combination, candidate.anchor, candidate.partner});
  return proposer_->IsLocal() ? TestValue{guess.index, proposer_->Expected()} : guess;
}

bool Search::IsAtLimit(std::size_t further) const {
  return value_.Rows() - std::min(next_start_, known_count_) + further >= limit_;
}

// The row of an initial point that was given to begin with, if the engine is not told of it yet.
std::optional<std::size_t> Search::WaitingStart(const PointKey& key) const {
  if (start_rows_.empty() || initial_taken_ == proposer_->InitialCount()) return std::nullopt;
  const auto found = start_rows_.find(key);
  if (found == start_rows_.end() || proposer_->IsInEngine(found->second)) return std::nullopt;
  return found->second;
}

const OpenPoint* Search::FindOpen(const PointKey& key) const {
  const auto found = open_ids_.find(key);
  return found == open_ids_.end() ? nullptr : &open_.at(found->second);
}

// An open point, not pending and without a value.
OpenPoint& Search::Open(const PointKey& key) {
  const auto found = open_ids_.find(key);
  if (found != open_ids_.end()) return open_.at(found->second);
  const std::int32_t* categories = proposer_->Solver().DecodeCombination(key.combination);
  Point point{next_id_, key.x, {categories, categories + problem_.category_sizes.size()}};
  const auto entry = open_ids_.emplace(key, next_id_).first;
  try {
    OpenPoint& open = open_[next_id_];
    open.point = std::move(point);
    ++next_id_;
    return open;
  } catch (...) {
    open_ids_.erase(entry);
    throw;
  }
}

OpenPoint& Search::Untold(const Point& point) {
  if (point.id >= next_id_) Refuse(point.id, kNotAskedFor);
  const auto found = open_.find(point.id);
  if (found == open_.end() || found->second.outcome) Refuse(point.id, kToldAlready);
  if (found->second.point.x != point.x) Refuse(point.id, "is a point of another search");
  return found->second;
}

PointKey Search::KeyOf(const Point& point) const {
  return {point.x, space_.CombinationOf(point.categories)};
}

}  // namespace QuenloftSearch
