// SPDX-License-Identifier: MIT
//
// Smoothing models over wide scales, which see the bottom of a funnel through its ripples.

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "search/local_models.h"
#include "search/space.h"
#include "search/trial_log.h"

namespace QuenloftSearch {

// Asked where a step of a local model gained nothing, so that the function is not what a
// quadratic through the nearest trials says. The trend is a quadratic by least squares over
// trials that lie apart, at scales from half the box to a thirtieth in turn. It pays where it is
// convex: then there is a funnel, or a single basin that it sees as a whole.
class TrendModel {
 public:
  // For `batch` and `lattice` see Definition.
  TrendModel(std::uint32_t dimension, std::uint32_t batch, std::shared_ptr<const Space> lattice)
      : dimension_(dimension), batch_(batch), lattice_(std::move(lattice)) {}

  // A step of a local model, the newest trial of the log, gained nothing. The trend is asked once,
  // when batch - 1 other trials have passed.
  void Call(const TrialLog& log) {
    if (!due_at_) due_at_ = log.Size() + batch_ - 1;
  }
  // If it was called, where the model around the best trial is lowest, at the next scale at which
  // it is convex and there is no trial yet. None where trials are too few: so always beyond 12
  // variables, as a model has at most 4N + 100 of them. It does not read the newest batch - 1
  // trials, so that this many workers need not wait.
  std::optional<LocalPoint> Propose(const TrialLog& log);
  // There is no outcome of the proposal.
  void Discard() { discarded_.push_back(proposed_); }

  // The value that the model expects at the point proposed.
  double Expected() const { return expected_; }

 private:
  std::optional<LocalPoint> ProposeAt(const TrialLog& log, std::uint32_t read, std::uint32_t best,
                                      double radius);
  bool IsNew(const TrialLog& log, const LocalPoint& point, double apart) const;

  std::uint32_t dimension_;
  std::uint32_t batch_;
  std::shared_ptr<const Space> lattice_;  // null where all variables are continuous
  std::uint32_t scale_ = 0;
  std::optional<std::uint32_t> due_at_;  // number of trials
  double expected_ = 0.0;
  LocalPoint proposed_{};
  std::vector<LocalPoint> discarded_;
};

}  // namespace QuenloftSearch
