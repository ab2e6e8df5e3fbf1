// SPDX-License-Identifier: MIT

#include "search/guess.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "search/linear_algebra.h"
#include "solver/neighbour.h"

namespace QuenloftSearch {

using QuenloftSolver::Neighbour;
using QuenloftSolver::SolverBase;
using QuenloftSolver::TestValue;

namespace {

// Share of the weight of all trials that holds each slope of the plane at 0: without effect
// where they determine it.
constexpr double kRidge = 1e-2;

// Keeps a trial at the very point from an infinite weight.
constexpr double kLeastSquare = 1e-24;

// Positions of the ends and their neighbours, rising.
std::vector<std::uint32_t> TrialsAround(const SolverBase& solver, std::int32_t anchor,
                                        std::int32_t partner) {
  std::vector<std::uint32_t> positions;
  for (const std::int32_t end : {anchor, partner}) {
    if (end < 0) continue;
    positions.push_back(static_cast<std::uint32_t>(end));
    const Neighbour* neighbours = solver.GetTest(positions.back())->Neighbours();
    for (std::uint32_t k = 0; k < solver.TripleDimension(); ++k) {
      const std::int32_t test = neighbours[k].test;
      if (test == QuenloftSolver::kNone) break;
      if (!QuenloftSolver::IsFace(test)) positions.push_back(static_cast<std::uint32_t>(test));
    }
  }
  std::sort(positions.begin(), positions.end());
  positions.erase(std::unique(positions.begin(), positions.end()), positions.end());
  return positions;
}

}  // namespace

TestValue GuessByPlane(const SolverBase& solver, const Unknown& unknown) {
  if (solver.TestCount() == 0) return {0, 0.0};
  const std::uint32_t dimension = solver.Dimension();
  const auto square_distance = [&](std::uint32_t position) {
    const double* coordinates = solver.GetTest(position)->Coordinate();
    double square = 0.0;
    for (std::uint32_t k = 0; k < dimension; ++k) {
      const double difference = coordinates[k] - unknown.point[k];
      square += difference * difference;
    }
    return square + kLeastSquare;
  };
  const auto anchor =
      unknown.anchor >= 0
          ? unknown.anchor
          : static_cast<std::int32_t>(solver.Nearest(unknown.point, unknown.combination));
  std::vector<std::uint32_t> trials = TrialsAround(solver, anchor, unknown.partner);
  const auto nearest = std::min_element(
      trials.begin(), trials.end(),
      [&](std::uint32_t a, std::uint32_t b) { return square_distance(a) < square_distance(b); });
  const std::int32_t index = solver.GetTest(*nearest)->GetValue().index;
  const double least_square = square_distance(*nearest);
  trials.erase(
      std::remove_if(trials.begin(), trials.end(),
                     [&](std::uint32_t p) { return solver.GetTest(p)->GetValue().index != index; }),
      trials.end());

  // The normal equations of the plane, its value at the point first.
  const auto size = static_cast<Eigen::Index>(dimension) + 1;
  Eigen::MatrixXd matrix = Eigen::MatrixXd::Zero(size, size);
  Eigen::VectorXd right = Eigen::VectorXd::Zero(size);
  Eigen::VectorXd row(size);
  row[0] = 1.0;
  double lowest = std::numeric_limits<double>::infinity();
  double highest = -lowest;
  for (const std::uint32_t position : trials) {
    const SolverBase::TestBase& trial = *solver.GetTest(position);
    const double value = trial.GetValue().value;
    lowest = std::min(lowest, value);
    highest = std::max(highest, value);
    const double ratio = least_square / square_distance(position);
    const double weight = ratio * ratio;
    for (std::uint32_t k = 0; k < dimension; ++k) {
      row[k + 1] = trial.Coordinate()[k] - unknown.point[k];
    }
    matrix += weight * row * row.transpose();
    right += weight * value * row;
  }
  // Slopes are per unit of a typical distance.
  const double typical = matrix.diagonal().tail(size - 1).sum();
  for (Eigen::Index k = 1; k < size; ++k) matrix(k, k) += kRidge * typical;
  const double value = matrix.llt().solve(right)[0];
  return {index, value > lowest ? std::min(value, highest) : lowest};
}

}  // namespace QuenloftSearch
