// SPDX-License-Identifier: MIT
//
// Quadratic models in trust regions around the best local minima of a search.

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "search/cube.h"
#include "search/linear_algebra.h"
#include "search/quadratic_model.h"
#include "search/space.h"
#include "search/trial_log.h"
#include "solver/solver_base.h"

namespace QuenloftSearch {

// A point whose value a model wants.
struct LocalPoint {
  std::vector<double> coordinates;
  std::uint32_t combination;
};

class LocalModels {
 public:
  // For `batch` and `lattice` see Definition.
  LocalModels(std::uint32_t dimension, std::uint32_t batch, std::shared_ptr<const Space> lattice)
      : dimension_(dimension), batch_(batch), lattice_(std::move(lattice)) {}

  // The next trial of the best region that has one to offer.
  std::optional<LocalPoint> Propose(const TrialLog& log, const QuenloftSolver::SolverBase& solver,
                                    std::uint32_t best);
  // The outcome of the proposal is the newest trial of the log, or there is none. True when it
  // shows that a model misled: its step gained nothing.
  bool Accept(const TrialLog& log);
  void Discard();
  // A trial of the engine's was appended.
  void Notice(const TrialLog& log);

  // The best trial of each region.
  std::vector<std::uint32_t> Centres() const;

  // The value that the model expects at the point proposed.
  double Expected(const TrialLog& log) const {
    return log.Value(regions_[pending_->region].centre).value - pending_->predicted;
  }

 private:
  struct Region {
    std::uint32_t centre;
    double radius;  // half the side of the cube
    double cover;
    bool is_exhausted = false;
    bool is_hopeless = false;      // until a trial comes near
    std::uint32_t free_at = 0;     // number of trials
    std::uint64_t rest_until = 0;  // turn
    bool is_failed = false;    // the last step: the radius is to shrink, or directions are missing
    double shrink = 0.5;       // of the radius, then
    int failures = 0;          // since the last success
    double first_error = 0.0;  // of the model, in the first of them
    Eigen::MatrixXd hessian;   // of the last model, in unit coordinates
  };
  struct Pending {
    std::size_t region;
    double predicted;
    double length;  // largest coordinate of the step
    bool is_geometry;
  };

  bool Covers(const TrialLog& log, const Region& region, std::uint32_t trial) const;
  std::optional<std::size_t> SelectRegion(const TrialLog& log,
                                          const QuenloftSolver::SolverBase& solver);
  std::optional<LocalPoint> RefineHopeless(const TrialLog& log);
  std::optional<LocalPoint> ProposeIn(const TrialLog& log, std::size_t number, std::uint32_t best);
  Eigen::VectorXd UntriedNeighbour(const TrialLog& log, const Region& region, const Cube& cube,
                                   const QuadraticModel& model,
                                   const std::vector<Eigen::VectorXd>& offsets) const;
  std::vector<std::uint32_t> NearestTrials(const TrialLog& log, std::uint32_t centre,
                                           std::size_t count);

  std::uint32_t dimension_;
  std::uint32_t batch_;
  std::shared_ptr<const Space> lattice_;  // null where all variables are continuous
  std::vector<Region> regions_;
  std::uint64_t turn_ = 0;
  std::uint64_t idle_turns_ = 0;
  std::optional<Pending> pending_;
  std::vector<std::pair<double, std::uint32_t>> near_;
};

}  // namespace QuenloftSearch
