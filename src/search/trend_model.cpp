// SPDX-License-Identifier: MIT

#include "search/trend_model.h"

#include <algorithm>
#include <cmath>

#include "search/cube.h"
#include "search/lattice_step.h"
#include "search/quadratic_model.h"

namespace QuenloftSearch {

using Eigen::Index;
using Eigen::MatrixXd;
using Eigen::VectorXd;

namespace {
// The widest radius is half the box; each of the others is half the one before.
constexpr double kWidest = 0.5;
constexpr std::uint32_t kScales = 5;
// Trials of a model lie within kReach radii of the best one, and no two nearer than a radius
// over kApart.
constexpr double kReach = 2.0;
constexpr double kApart = 12.0;
// A model has that many times as many trials as coefficients at least: with fewer it would
// follow the ripples.
constexpr double kTrialsPerCoefficient = 1.5;
}  // namespace

std::optional<LocalPoint> TrendModel::Propose(const TrialLog& log) {
  if (!due_at_ || log.Size() < *due_at_) return std::nullopt;
  due_at_.reset();
  const std::uint32_t read = log.Size() - (batch_ - 1);
  std::uint32_t best = 0;
  for (std::uint32_t t = 1; t < read; ++t) {
    if (log.IsBetter(t, best)) best = t;
  }
  for (std::uint32_t attempt = 0; attempt < kScales; ++attempt) {
    const double radius = std::ldexp(kWidest, -static_cast<int>(scale_));
    scale_ = (scale_ + 1) % kScales;
    if (auto point = ProposeAt(log, read, best, radius)) {
      proposed_ = *point;
      return point;
    }
  }
  return std::nullopt;
}

// A model of the first `read` trials.
std::optional<LocalPoint> TrendModel::ProposeAt(const TrialLog& log, std::uint32_t read,
                                                std::uint32_t best, double radius) {
  const double* centre = log.Point(best);
  const double apart = radius / kApart;
  const double reach = radius * kReach;
  std::vector<std::pair<double, std::uint32_t>> near;
  for (std::uint32_t t = 0; t < read; ++t) {
    if (log.Combination(t) == log.Combination(best) &&
        log.Value(t).index == log.Value(best).index &&
        log.SquaredDistance(t, centre) <= reach * reach) {
      near.emplace_back(log.Value(t).value, t);
    }
  }
  // Of trials close together the lowest, which is the one that a funnel's bottom shows in.
  std::sort(near.begin(), near.end());
  const std::size_t most = 4 * dimension_ + 100;
  std::vector<std::uint32_t> chosen;
  for (const auto& [value, t] : near) {
    if (chosen.size() == most) break;
    const double* point = log.Point(t);
    if (std::all_of(chosen.begin(), chosen.end(), [&](std::uint32_t other) {
          return log.SquaredDistance(other, point) >= apart * apart;
        })) {
      chosen.push_back(t);
    }
  }
  const std::size_t coefficients = (dimension_ + 1) * (dimension_ + 2) / 2;
  if (static_cast<double>(chosen.size()) <
      kTrialsPerCoefficient * static_cast<double>(coefficients)) {
    return std::nullopt;
  }
  const auto n = static_cast<Index>(dimension_);
  const auto m = static_cast<Index>(chosen.size());
  MatrixXd offsets(n, m);
  VectorXd differences(m);
  for (Index i = 0; i < m; ++i) {
    const std::uint32_t t = chosen[static_cast<std::size_t>(i)];
    for (Index k = 0; k < n; ++k) offsets(k, i) = (log.Point(t)[k] - centre[k]) / radius;
    differences[i] = log.Value(t).value - log.Value(best).value;
  }
  const QuadraticModel model =
      FitQuadratic(offsets, differences, MatrixXd::Zero(n, n), 0.0, Constant::kFree);
  // What is no bowl is no funnel.
  if (Eigen::LLT<MatrixXd>(model.hessian).info() != Eigen::Success) return std::nullopt;
  const Cube cube(centre, VectorXd::Constant(n, radius));
  VectorXd step = MinimiseInBox(model, cube.lower, cube.upper);
  const auto point_at = [&](const VectorXd& s) {
    return LocalPoint{cube.PointAt(s), log.Combination(best)};
  };
  const auto is_new = [&](const VectorXd& s) { return IsNew(log, point_at(s), apart); };
  if (lattice_) {
    step = LowestStep(*lattice_, centre, cube.scale, model, {step}, cube.lower, cube.upper, is_new);
    if (step.size() == 0) return std::nullopt;
  } else if (!is_new(step)) {
    return std::nullopt;
  }
  expected_ = log.Value(best).value + model.At(step);
  return point_at(step);
}

bool TrendModel::IsNew(const TrialLog& log, const LocalPoint& point, double apart) const {
  if (log.Nearest(point.coordinates.data(), point.combination).second < apart) return false;
  const auto n = static_cast<Index>(dimension_);
  const Eigen::Map<const VectorXd> at(point.coordinates.data(), n);
  return std::none_of(discarded_.begin(), discarded_.end(), [&](const LocalPoint& other) {
    return other.combination == point.combination &&
           (Eigen::Map<const VectorXd>(other.coordinates.data(), n) - at).norm() < apart;
  });
}

}  // namespace QuenloftSearch
