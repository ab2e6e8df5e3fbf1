// SPDX-License-Identifier: MIT
//
// Steps of a trust region that keep integer and stepped variables on their lattices.

#pragma once

#include <functional>
#include <vector>

#include "search/linear_algebra.h"
#include "search/quadratic_model.h"
#include "search/space.h"

namespace QuenloftSearch {

// From a point of the unit box to those one step up or down one of its lattices.
std::vector<Eigen::VectorXd> NeighbourOffsets(const Space& space, const double* point,
                                              Eigen::Index dimension);

// Whether two points agree in the variables that are on lattices.
bool IsSameOnLattices(const Space& space, const double* a, const double* b, Eigen::Index dimension);

// Rounds the variables of each of `starts` that are on lattices (steps from `centre`, in units
// of `scale`) and minimises the model over the others in the box. Returns the lowest of these
// steps that `is_allowed`, empty where none is.
Eigen::VectorXd LowestStep(const Space& space, const double* centre, const Eigen::VectorXd& scale,
                           const QuadraticModel& model, const std::vector<Eigen::VectorXd>& starts,
                           Eigen::VectorXd lower, Eigen::VectorXd upper,
                           const std::function<bool(const Eigen::VectorXd&)>& is_allowed);

}  // namespace QuenloftSearch
