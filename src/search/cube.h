// SPDX-License-Identifier: MIT
//
// The cube of a trust region, as far as it lies in the unit box.

#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "search/linear_algebra.h"

namespace QuenloftSearch {

// Steps s lead from `centre` to centre + scale * s, each coordinate by itself; those in the
// cube are from `lower` <= 0 to `upper` >= 0. `centre` must outlive it.
struct Cube {
  Cube(const double* centre_point, Eigen::VectorXd units)
      : centre(centre_point, units.size()),
        scale(std::move(units)),
        lower(-centre.cwiseQuotient(scale).cwiseMin(1.0)),
        upper((1.0 - centre.array()).matrix().cwiseQuotient(scale).cwiseMin(1.0)) {}

  std::vector<double> PointAt(const Eigen::VectorXd& step) const {
    std::vector<double> point(static_cast<std::size_t>(step.size()));
    for (Eigen::Index k = 0; k < step.size(); ++k) {
      point[static_cast<std::size_t>(k)] = std::clamp(centre[k] + scale[k] * step[k], 0.0, 1.0);
    }
    return point;
  }

  Eigen::Map<const Eigen::VectorXd> centre;
  Eigen::VectorXd scale;
  Eigen::VectorXd lower;
  Eigen::VectorXd upper;
};

}  // namespace QuenloftSearch
