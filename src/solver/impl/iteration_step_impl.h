// SPDX-License-Identifier: MIT
//
// One step of the search: choose a segment, split it, evaluate, register.

#pragma once

#include <algorithm>
#include <cassert>
#include <cmath>
#include <optional>

#include "solver/errors.h"
#include "solver/solver.h"

namespace QuenloftSolver {

template <int N>
void Solver<N>::Step() {
  Initialize();
  if (state_.registration != Registration::kDone) {
    Register();
  } else if (state_.pending || ProposeSegment()) {
    AcceptEvaluated();
  }
  while (ProposeDueFit()) AcceptEvaluated();
}

template <int N>
std::optional<SolverBase::Proposal> Solver<N>::Propose() {
  Register();
  if (!state_.pending && !ProposeInitial() && !ProposeDueFit() && !ProposeSegment())
    return std::nullopt;
  Proposal proposal{state_.pending->point.data(), state_.pending->combination};
  if (!IsInitialising()) {
    const Segment& segment = state_.pending->segment;
    proposal.anchor = static_cast<std::int32_t>(segment.anchor);
    if (segment.partner != kNone && !IsFace(segment.partner)) proposal.partner = segment.partner;
  }
  return proposal;
}

// The segment chosen is off the lists: a step that fails is not tried again.
template <int N>
bool Solver<N>::ProposeSegment() {
  state_.fits_due = 0;
  const StepKind kind = NextKind();
  const Segment segment = TakeSegment(kind);
  const Coordinates point = PointOn(segment, kind);
  // A point that coincides with an end of its segment says nothing new: the segment is
  // dropped, and no trial is spent on it.
  if (point == store_[segment.anchor].coordinate) return false;
  if (!IsFace(segment.partner) &&
      point == store_[static_cast<std::uint32_t>(segment.partner)].coordinate) {
    return false;
  }
  // A face ends the box: beyond it there is no trial whose ring would be found.
  state_.pending = PendingPoint<N>{point, store_[segment.anchor].combination, segment,
                                   IsFace(segment.partner) ? 2 : 1,
                                   kind == StepKind::kLocal ? SolverBase::TestBase::kFromLocalStep
                                                            : SolverBase::TestBase::Flag{}};
  return true;
}

// A function that fails takes the proposal with it; memory that runs out does not.
template <int N>
void Solver<N>::AcceptEvaluated() {
  const PendingPoint<N> proposed = *state_.pending;
  Reserve(proposed.combination);
  const std::vector<std::int32_t> categories = problem_.Categories(proposed.combination);
  state_.pending.reset();
  const TestValue value = problem_.Evaluate(proposed.point, categories);
  state_.pending = proposed;
  Accept(value);
}

template <int N>
bool Solver<N>::Accept(const TestValue& value, const double* point) {
  assert(state_.pending && std::isfinite(value.value));
  assert(value.index >= 0 && value.index < static_cast<std::int32_t>(problem_.FunctionCount()));
  PendingPoint<N> accepted = *state_.pending;
  if (point != nullptr) {
    std::copy_n(point, N, accepted.point.begin());
    accepted.whole_rings = 2;  // it may lie beside the segment
  }
  Append(accepted, value);
  state_.pending.reset();
  if (IsInitialising()) {
    InitialIsTaken();
    return !IsInitialising();
  }
  state_.registration = Registration::kFlood;
  Register();
  return state_.has_improved;
}

template <int N>
void Solver<N>::Discard() {
  assert(state_.pending);
  state_.pending.reset();
  if (IsInitialising()) InitialIsTaken();
}

template <int N>
bool Solver<N>::Insert(const double* point, std::uint32_t combination, const TestValue& value,
                       std::uint32_t anchor) {
  Register();
  assert(!state_.pending && !IsInitialising());
  assert(anchor < TestCount() && store_[anchor].combination == combination);
  PendingPoint<N> inserted{{}, combination, {anchor, kNone}, 2, SolverBase::TestBase::kInserted};
  std::copy_n(point, N, inserted.point.begin());
  Append(inserted, value);
  state_.registration = Registration::kFlood;
  Register();
  return state_.has_improved;
}

template <int N>
std::uint32_t Solver<N>::Nearest(const double* point, std::uint32_t combination) const {
  std::uint32_t nearest = 0;
  double least = kUnset;
  for (std::uint32_t position = 0; position < TestCount(); ++position) {
    if (store_[position].combination != combination) continue;
    double square = 0.0;
    for (int k = 0; k < N; ++k) {
      const double difference = point[k] - store_[position].coordinate[k];
      square += difference * difference;
    }
    if (square < least) {
      least = square;
      nearest = position;
    }
  }
  return nearest;
}

// Local steps are spaced among global ones at the rate local_vs_global. A step is
// global while class slopes wait to be put into the candidates' keys.
template <int N>
StepKind Solver<N>::NextKind() {
  if (candidates_.SlopesChanged()) return StepKind::kGlobal;
  if (state_.alternation >= 1.0) {
    state_.alternation -= 1.0;
    return StepKind::kLocal;
  }
  state_.alternation += problem_.parameters.local_vs_global;
  return StepKind::kGlobal;
}

// The class whose best candidate is the best.
template <int N>
Segment Solver<N>::TakeSegment(StepKind kind) {
  Candidates::Preference preference{-1, 0.0, 0.0};
  if (problem_.FunctionCount() > 1) {
    preference = {state_.best.index, problem_.parameters.reserve,
                  state_.index_minima[static_cast<std::size_t>(state_.best.index)]};
  }
  const std::uint32_t c = candidates_.BestClass(kind, preference);
  const Candidate candidate = candidates_.TakeBest(kind, c);
  PrefetchBehind(candidates_.List(kind, c));
  return {candidate.position, candidate.test};
}

// Asks memory for what the steps to come will read, once the store is far larger than
// the caches.
//
// The best segment lies anywhere in the store, so what a step reads around it is cold,
// and one ring of the flood waits for the other. Prefetching inside the flood comes too
// late. But what stands behind the best candidate of a list is nearly always what
// the next steps take from it, unless they take what has just been found, which is warm.
// So the ends of the third segment from here are fetched now, the neighbours of the ends
// of the second, which were fetched a step ago, and their neighbours in turn for the
// first. Nothing is read that counts: the search is the same whatever is guessed. With
// records that start on cache lines it saved an eighth of the time of 1e6 trials at N = 2;
// from four dimensions on nothing clear was gained.
template <int N>
void Solver<N>::PrefetchBehind(const CandidateList& list) const {
  constexpr std::size_t kLargeStore = std::size_t{8} << 20;  // bytes
  const std::size_t size = list.Size();
  if (N > 3 || store_.Bytes() < kLargeStore || size < 3) return;
  const auto for_ends = [&](std::size_t place, auto visit) {
    visit(list[place].position);
    if (!IsFace(list[place].test)) visit(static_cast<std::uint32_t>(list[place].test));
  };
  const auto fetch = [&](std::uint32_t position, std::size_t bytes) {
    FetchLines(&store_.Row(position), sizeof(FloodRow<N>));
    FetchLines(&store_[position], bytes);
  };
  for_ends(size - 3, [&](std::uint32_t end) { fetch(end, sizeof(Test<N>)); });
  for_ends(size - 2, [&](std::uint32_t end) {
    for (const std::uint32_t near : store_.Row(end).neighbours) fetch(near, sizeof(Test<N>));
  });
  for_ends(size - 1, [&](std::uint32_t end) {
    for (const std::uint32_t near : store_.Row(end).neighbours) {
      for (const std::uint32_t far : store_.Row(near).neighbours) fetch(far, kCacheLine);
    }
  });
}

// Between trials of one index, the minimiser along the segment of the lower bound
// max(z_a - L s, z_p - L (d - s)), s the distance from the anchor: s = (d - dz / L) / 2
// (Piyavskii 1972; Strongin 1978). Between indices, and towards a face, the middle.
template <int N>
typename Solver<N>::Coordinates Solver<N>::PointOn(const Segment& segment, StepKind kind) const {
  const Test<N>& anchor = store_[segment.anchor];
  Coordinates point = anchor.coordinate;
  if (IsFace(segment.partner)) {
    double& coordinate = point[FaceAxis(segment.partner)];
    coordinate = (FaceSide(segment.partner) + coordinate) * 0.5;
    return point;
  }
  const Test<N>& partner = store_[static_cast<std::uint32_t>(segment.partner)];
  Coordinates direction;
  double square = 0.0;
  for (int k = 0; k < N; ++k) {
    direction[k] = partner.coordinate[k] - anchor.coordinate[k];
    square += direction[k] * direction[k];
  }
  double t = 0.5;
  if (anchor.value.index == partner.value.index) {
    const double distance = std::sqrt(square);
    const double difference = partner.value.value - anchor.value.value;
    const SearchParameters& parameters = problem_.parameters;
    const double slope =
        kind == StepKind::kLocal
            ? candidates_.UsableSlope(anchor.slope) * parameters.overestimation_local
            : candidates_.UsableSlope(candidates_.Slope(ClassOf(anchor))) *
                  parameters.overestimation;
    t = (distance - difference / slope) * 0.5 / distance;
  }
  for (int k = 0; k < N; ++k) point[k] = anchor.coordinate[k] + t * direction[k];
  return point;
}

// For one trial more, and the fit that may follow: all that the step allocates before the trial
// is there.
template <int N>
void Solver<N>::Reserve(std::uint32_t combination) {
  store_.ReserveNext();
  refresh_.Reserve();
  candidates_.Reserve(combination);
  if (problem_.parameters.fit > 0) ReserveFit();
}

template <int N>
void Solver<N>::Append(const PendingPoint<N>& point, const TestValue& value) {
  Reserve(point.combination);
  candidates_.Append(TestCount(), point.combination);
  store_.Append(point.point, point.combination, value, point.flags);
  state_.newest = point;
}

// Registers the newest trial, if that is still to be done. Memory may run out before each
// part, and only there.
template <int N>
void Solver<N>::Register() {
  Registration& next = state_.registration;
  switch (next) {
    case Registration::kInitialTables:
      LinkInitialTrials();
      next = Registration::kInitialLists;
      [[fallthrough]];
    case Registration::kInitialLists:
      candidates_.Begin(*this);
      break;
    case Registration::kFlood:
      FloodAround(state_.newest.segment, state_.newest.whole_rings);
      next = Registration::kTables;
      [[fallthrough]];
    case Registration::kTables:
      RebuildTables();
      next = Registration::kLists;
      [[fallthrough]];
    case Registration::kLists:
      candidates_.Update({state_.newest.combination, refresh_.Rebuilt(), refresh_.Rescored()},
                         *this);
      CountFits();
      break;
    case Registration::kDone:
      break;
  }
  next = Registration::kDone;
}

// Lists the neighbourhoods that the newest trial disturbs. A partner of kNone stands for none.
template <int N>
void Solver<N>::FloodAround(const Segment& segment, int whole_rings) {
  const std::uint32_t position = TestCount() - 1;
  refresh_.Begin();
  Extent<N>& extent = store_.Change(position).extent;
  extent.SetTo(store_[position].coordinate);
  extent.Widen(store_[segment.anchor].coordinate);
  refresh_.List(segment.anchor);
  if (IsFace(segment.partner)) {
    extent.WidenToFace(segment.partner);
  } else if (segment.partner != kNone) {
    const auto partner = static_cast<std::uint32_t>(segment.partner);
    extent.Widen(store_[partner].coordinate);
    refresh_.List(partner);
  }
  refresh_.Spread(whole_rings);
  refresh_.ListRebuilt();
}

// Refreshes them.
template <int N>
void Solver<N>::RebuildTables() {
  refresh_.RebuildTables(Rules(), store_.HasCheckpoint() ? 1 : forced_threads_);
  for (const std::uint32_t rebuilt : refresh_.Rebuilt()) {
    candidates_.RaiseSlope(ClassOf(store_[rebuilt]), store_[rebuilt].slope);
  }
  state_.has_improved = UpdateBest(TestCount() - 1);
}

template <int N>
void Solver<N>::CountFits() {
  if ((state_.newest.flags & SolverBase::TestBase::kInserted) != 0) return;
  const bool is_fit = (state_.newest.flags & SolverBase::TestBase::kFromFit) != 0;
  if (!state_.has_improved) {
    state_.fits_due = 0;
  } else if (!is_fit) {
    state_.fits_due = problem_.parameters.fit;
  } else if (state_.fits_due > 0) {
    --state_.fits_due;
  }
}

template <int N>
TableRules Solver<N>::Rules() const {
  return {{problem_.spread_cosine, TestCount() <= problem_.combination_count}, state_.best.index};
}

template <int N>
bool Solver<N>::UpdateBest(std::uint32_t position) {
  const TestValue& value = store_[position].value;
  double& index_minimum = state_.index_minima[static_cast<std::size_t>(value.index)];
  if (index_minimum > value.value) index_minimum = value.value;
  const TestValue& best = state_.best;
  const bool improves =
      value.index > best.index || (value.index == best.index && best.value > value.value);
  if (improves) {
    state_.best = value;
    state_.best_position = position;
  }
  return improves;
}

}  // namespace QuenloftSolver
