// SPDX-License-Identifier: MIT

#include "search/lattice_step.h"

namespace QuenloftSearch {

using Eigen::Index;
using Eigen::VectorXd;

std::vector<VectorXd> NeighbourOffsets(const Space& space, const double* point, Index dimension) {
  std::vector<VectorXd> offsets;
  for (Index k = 0; k < dimension; ++k) {
    if (!space.IsOnLattice(k)) continue;
    for (const int way : {-1, 1}) {
      const double offset = space.OnLattice(k, point[k], way) - point[k];
      if (offset != 0.0) offsets.push_back(offset * VectorXd::Unit(dimension, k));
    }
  }
  return offsets;
}

bool IsSameOnLattices(const Space& space, const double* a, const double* b, Index dimension) {
  for (Index k = 0; k < dimension; ++k) {
    if (space.IsOnLattice(k) && space.OnLattice(k, a[k], 0) != space.OnLattice(k, b[k], 0)) {
      return false;
    }
  }
  return true;
}

VectorXd LowestStep(const Space& space, const double* centre, const VectorXd& scale,
                    const QuadraticModel& model, const std::vector<VectorXd>& starts,
                    VectorXd lower, VectorXd upper,
                    const std::function<bool(const VectorXd&)>& is_allowed) {
  for (Index k = 0; k < scale.size(); ++k) {
    if (space.IsOnLattice(k)) lower[k] = upper[k] = 0.0;
  }
  VectorXd lowest;
  for (const VectorXd& start : starts) {
    VectorXd step = VectorXd::Zero(scale.size());
    for (Index k = 0; k < scale.size(); ++k) {
      if (!space.IsOnLattice(k)) continue;
      step[k] = (space.OnLattice(k, centre[k] + scale[k] * start[k], 0) - centre[k]) / scale[k];
    }
    QuadraticModel rest = model;
    rest.gradient += model.hessian * step;
    step += MinimiseInBox(rest, lower, upper);
    if (lowest.size() > 0 && !(model.At(step) < model.At(lowest))) continue;
    if (is_allowed(step)) lowest = step;
  }
  return lowest;
}

}  // namespace QuenloftSearch
