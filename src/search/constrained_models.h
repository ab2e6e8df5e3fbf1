// SPDX-License-Identifier: MIT
//
// Quadratic models of the target and of every constraint in one trust region.

#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "search/linear_algebra.h"
#include "search/local_models.h"
#include "search/trial_log.h"

namespace QuenloftSearch {

// For problems of which the values of the constraints are known, at infeasible points too. A
// region moves towards feasibility and the least target together: trials are compared by the
// target plus weighted violations, and the models' own problem with constraints says where
// the next one goes. A region that can gain no more is left for good, and another begun.
class ConstrainedModels {
 public:
  ConstrainedModels(std::uint32_t dimension, std::uint32_t function_count, std::uint32_t batch)
      : dimension_(dimension), function_count_(function_count), batch_(batch) {}

  std::optional<LocalPoint> Propose(const TrialLog& log);
  // The outcome of the proposal is the newest trial of the log.
  void Accept(const TrialLog& log);
  void Discard();
  // The value of the target that the model expects at the point proposed.
  double Expected() const { return pending_->expected; }

 private:
  struct Region {
    std::uint32_t centre;
    std::uint32_t root;      // the trial at which it was first begun
    std::uint32_t begun_at;  // where it was before its own trials moved it
    double radius;           // half the side of the cube
    std::uint32_t free_at = 0;
    bool is_failed = false;
    // One per function, the target last.
    std::vector<Eigen::MatrixXd> hessians;  // of the last models, in unit coordinates
    std::vector<double> weights;            // of violations
    // Half the error of the last model, which is kept from the constraint; over the square of
    // the radius.
    std::vector<double> margins;
  };
  // A function's model in the region, its values divided by `scale`.
  struct Model;
  struct Pending {
    double predicted;  // gain of merit
    double length;
    bool is_geometry;
    double expected;
    std::vector<double> at_centre;  // values of the functions
    std::vector<double> scales;     // of the functions; 0 where there is no model
    std::vector<double> values;     // expected
  };

  bool Begin(const TrialLog& log);
  void BeginAt(std::uint32_t centre, double radius);
  std::optional<LocalPoint> ProposeIn(const TrialLog& log);
  void FitAll(const TrialLog& log, std::vector<Model>& models, Eigen::MatrixXd& offsets) const;
  double Merit(const std::vector<double>& scales, const double* functions) const;

  std::uint32_t dimension_;
  std::uint32_t function_count_;
  std::uint32_t batch_;
  std::optional<Region> region_;
  std::vector<std::uint32_t> exhausted_;  // roots and last centres of regions, this one's root too
  std::optional<Pending> pending_;
};

}  // namespace QuenloftSearch
