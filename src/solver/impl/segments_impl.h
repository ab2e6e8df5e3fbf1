// SPDX-License-Identifier: MIT
//
// Characteristics of segments: the larger, the lower the function may go on it.

#pragma once

#include "solver/solver.h"

namespace QuenloftSolver {

template <int N>
std::uint32_t Solver<N>::ClassOf(const Test<N>& trial) const {
  return candidates_.ClassOf(trial.value.index, trial.combination);
}

template <int N>
std::uint32_t Solver<N>::CombinationOf(std::uint32_t position) const {
  return store_[position].combination;
}

template <int N>
void Solver<N>::Prefetch(std::uint32_t position) const {
  FetchLines(&store_[position], sizeof(Test<N>));
}

// With m an overestimated slope, d the length of a segment and z the values at its
// ends, the least that the function can be on it is
//   (z_a + z_b - m d) / 2   between trials of one index,
//   z_a - m d               towards a face or a trial of a lower index,
// which the characteristic negates. The slope is that of the end with the higher
// index, whose class is the segment's: of its class for the global one, its own for the
// local one.
template <int N>
std::size_t Solver<N>::SegmentsOf(std::uint32_t position, ClassedSegment* segments) {
  struct Slopes {
    std::uint32_t its_class;
    bool has_changed;  // the global one
    double global;
    double local;
  };
  const auto slopes_of = [this](const Test<N>& end) {
    const std::uint32_t c = ClassOf(end);
    return Slopes{
        c, candidates_.SlopeChanged(c),
        candidates_.UsableSlope(candidates_.Slope(c)) * problem_.parameters.overestimation,
        candidates_.UsableSlope(end.slope) * problem_.parameters.overestimation_local};
  };
  const Test<N>& trial = store_[position];
  const TestValue value = trial.value;
  const Slopes own = slopes_of(trial);
  std::size_t count = 0;
  for (; count < 3 * N && trial.neighbours[count].test != kNone; ++count) {
    const Neighbour& segment = trial.neighbours[count];
    TestValue other{-1, 0.0};
    if (!IsFace(segment.test)) other = store_[static_cast<std::uint32_t>(segment.test)].value;
    const bool is_higher = other.index > value.index;
    const Slopes slopes =
        is_higher ? slopes_of(store_[static_cast<std::uint32_t>(segment.test)]) : own;
    const double higher = is_higher ? other.value : value.value;
    const auto characteristic = [&](double slope) {
      return other.index == value.index
                 ? (slope * segment.distance - value.value - other.value) / 2.0
                 : slope * segment.distance - higher;
    };
    if (segment.local_characteristic == kUnset) {
      store_.Change(position).neighbours[count].local_characteristic = characteristic(slopes.local);
    }
    if (segment.global_characteristic == kUnset || slopes.has_changed) {
      store_.Change(position).neighbours[count].global_characteristic =
          characteristic(slopes.global);
    }
    segments[count] = {slopes.its_class,
                       segment.test,
                       {{segment.global_characteristic, segment.local_characteristic}}};
  }
  return count;
}

}  // namespace QuenloftSolver
