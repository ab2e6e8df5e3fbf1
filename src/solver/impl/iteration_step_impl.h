// SPDX-License-Identifier: MIT
//
// One step of the search: choose a segment, split it, evaluate, register.

#pragma once

#include <cmath>
#include <optional>

#include "solver/errors.h"
#include "solver/solver.h"

namespace QuenloftSolver {

template <int N>
void Solver<N>::Step() {
  Initialize();
  const StepKind kind = NextKind();
  const Segment segment = SelectCandidate(kind);
  const Coordinates point = PointOn(segment, kind);
  if (IsDuplicate(point, segment)) return;

  const std::uint32_t combination = tests_[segment.anchor].combination;
  const TestValue value = EvaluateAt(point, combination);
  AppendTrial(point, combination, value,
              kind == StepKind::kLocal ? SolverBase::TestBase::kFromLocalStep
                                       : SolverBase::TestBase::Flag{});

  // A face ends the box: beyond it there is no trial whose ring would be found.
  const bool improved = RegisterNewest(segment, IsFace(segment.partner) ? 2 : 1);
  if (!improved) return;
  for (std::uint32_t fit = 0; fit < parameters_.fit && Fit(best_position_); ++fit) {
  }
}

// Local steps are spaced among global ones at the rate local_vs_global. A step is
// global while class slopes wait to be put into the candidates' keys.
template <int N>
typename Solver<N>::StepKind Solver<N>::NextKind() {
  if (slopes_changed_) return StepKind::kGlobal;
  if (alternation_ >= 1.0) {
    alternation_ -= 1.0;
    return StepKind::kLocal;
  }
  alternation_ += parameters_.local_vs_global;
  return StepKind::kGlobal;
}

// The best candidate over all classes, their keys made comparable by the class
// slope. Ties go to the lower class.
template <int N>
typename Solver<N>::Segment Solver<N>::SelectCandidate(StepKind kind) {
  std::vector<CandidateList>& lists = kind == StepKind::kLocal ? local_lists_ : global_lists_;
  double best_ratio = -kUnbounded;
  CandidateList* best_list = nullptr;
  for (std::uint32_t c = 0; c < class_count_; ++c) {
    if (lists[c].IsEmpty()) continue;
    double key = lists[c].BestKey();
    if (function_count_ > 1 && c / combination_count_ == static_cast<std::uint32_t>(best_.index)) {
      key += slopes_[c] * parameters_.reserve + index_min_[static_cast<std::size_t>(best_.index)];
    }
    const double ratio = key / UsableSlope(slopes_[c]);
    if (ratio > best_ratio) {
      best_ratio = ratio;
      best_list = &lists[c];
    }
  }
  if (best_list == nullptr) throw SearchExhausted();
  const Candidate candidate = best_list->TakeBest();
  FetchAhead(*best_list);
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
void Solver<N>::FetchAhead(const CandidateList& list) const {
  constexpr std::size_t kLargeStore = std::size_t{8} << 20;  // bytes
  const std::size_t size = list.Size();
  if (N > 3 || tests_.size() < kLargeStore / sizeof(Test<N>) || size < 3) return;
  const auto for_ends = [&](std::size_t place, auto visit) {
    visit(list[place].position);
    if (!IsFace(list[place].test)) visit(static_cast<std::uint32_t>(list[place].test));
  };
  const auto fetch = [&](std::uint32_t position, std::size_t bytes) {
    FetchLines(&rows_[position], sizeof(FloodRow<N>));
    FetchLines(&tests_[position], bytes);
  };
  for_ends(size - 3, [&](std::uint32_t end) { fetch(end, sizeof(Test<N>)); });
  for_ends(size - 2, [&](std::uint32_t end) {
    for (const std::uint32_t near : rows_[end].neighbours) fetch(near, sizeof(Test<N>));
  });
  for_ends(size - 1, [&](std::uint32_t end) {
    for (const std::uint32_t near : rows_[end].neighbours) {
      for (const std::uint32_t far : rows_[near].neighbours) fetch(far, kCacheLine);
    }
  });
}

template <int N>
double Solver<N>::SplittingSlope(const Test<N>& anchor, StepKind kind) const {
  return kind == StepKind::kLocal
             ? UsableSlope(anchor.slope) * parameters_.overestimation_local
             : UsableSlope(slopes_[ClassOf(anchor)]) * parameters_.overestimation;
}

// Between trials of one index, the minimiser along the segment of the lower bound
// max(z_a - L s, z_p - L (d - s)), s the distance from the anchor: s = (d - dz / L) / 2
// (Piyavskii 1972; Strongin 1978). Between indices, and towards a face, the middle.
template <int N>
typename Solver<N>::Coordinates Solver<N>::PointOn(const Segment& segment, StepKind kind) const {
  const Test<N>& anchor = tests_[segment.anchor];
  Coordinates point = anchor.coordinate;
  if (IsFace(segment.partner)) {
    double& coordinate = point[FaceAxis(segment.partner)];
    coordinate = (FaceSide(segment.partner) + coordinate) * 0.5;
    return point;
  }
  const Test<N>& partner = tests_[static_cast<std::uint32_t>(segment.partner)];
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
    t = (distance - difference / SplittingSlope(anchor, kind)) * 0.5 / distance;
  }
  for (int k = 0; k < N; ++k) point[k] = anchor.coordinate[k] + t * direction[k];
  return point;
}

// A point that coincides with an end of its segment says nothing new: the segment
// is dropped, and no trial is spent on it.
template <int N>
bool Solver<N>::IsDuplicate(const Coordinates& point, const Segment& segment) const {
  return point == tests_[segment.anchor].coordinate ||
         (!IsFace(segment.partner) &&
          point == tests_[static_cast<std::uint32_t>(segment.partner)].coordinate);
}

// Registers the trial just appended and refreshes the neighbourhoods it disturbs. A
// partner of kNone stands for none. True when the trial is the new best.
template <int N>
bool Solver<N>::RegisterNewest(const Segment& segment, int whole_rings) {
  const std::uint32_t position = TestCount() - 1;
  const Test<N>& trial = tests_[position];
  std::optional<Stopwatch> stopwatch;
  if (team_.IsTiming()) stopwatch.emplace();

  ResetChanged();
  Extent<N>& extent = tests_[position].extent;
  extent.SetTo(trial.coordinate);
  extent.Widen(tests_[segment.anchor].coordinate);
  ListForRefresh(segment.anchor);
  if (IsFace(segment.partner)) {
    extent.WidenToFace(segment.partner);
  } else if (segment.partner != kNone) {
    const auto partner = static_cast<std::uint32_t>(segment.partner);
    extent.Widen(tests_[partner].coordinate);
    ListForRefresh(partner);
  }
  ExpandChanged(whole_rings);
  RefreshNeighbours();

  UpdateExtremes(trial.value);
  const bool improved = UpdateBest(position);
  UpdateCandidates(UpdateMode::kIncremental);
  team_.Record(Team::Work(rebuilt_.size(), changed_.size(), N),
               stopwatch ? stopwatch->Nanoseconds() : 0.0);
  return improved;
}

template <int N>
void Solver<N>::UpdateExtremes(const TestValue& value) {
  const auto index = static_cast<std::size_t>(value.index);
  if (value.value > index_max_[index]) index_max_[index] = value.value;
  if (index_min_[index] > value.value) index_min_[index] = value.value;
}

template <int N>
bool Solver<N>::UpdateBest(std::uint32_t position) {
  const TestValue& value = tests_[position].value;
  const bool improves =
      value.index > best_.index || (value.index == best_.index && best_.value > value.value);
  if (improves) {
    best_ = value;
    best_position_ = position;
  }
  return improves;
}

}  // namespace QuenloftSolver
