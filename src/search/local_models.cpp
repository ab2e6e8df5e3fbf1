// SPDX-License-Identifier: MIT

#include "search/local_models.h"

#include <algorithm>
#include <cmath>

#include "search/lattice_step.h"
#include "search/quadratic_model.h"

namespace QuenloftSearch {

using Eigen::Index;
using Eigen::MatrixXd;
using Eigen::VectorXd;
using QuenloftSolver::SolverBase;

namespace {
constexpr double kLeastRadius = 1e-9;
constexpr double kFirstRadius = 0.2;
// A direction is not missing where a trial of another index is nearer than this, in radii.
constexpr double kMissing = 0.1;
// A step leads to a trial when it ends nearer to one than this, in lengths of the step.
constexpr double kSame = 1e-3;
// A region is hopeless when this many times what its model can gain would not make it the
// best; twice as many while the model's minimum is at the edge of its cube.
constexpr double kHope = 10.0;
// A trial is of a region's basin when its value is above the minimum by at least this share of
// what the region's model says.
constexpr double kBasin = 0.25;
// Failures in a row after which a region takes turns off.
constexpr int kPatience = 8;
// A gain below this share of the values' spread is a fine one, after which a region waits for
// so many turns.
constexpr double kFine = 1e-7;
constexpr double kFinest = 1e-9;
constexpr std::uint64_t kFineTurns = 32;
// One in so many turns that no region claims goes to a hopeless one.
constexpr std::uint64_t kIdleTurns = 6;
}  // namespace

std::vector<std::uint32_t> LocalModels::NearestTrials(const TrialLog& log, std::uint32_t centre,
                                                      std::size_t count) {
  near_.clear();
  const double* point = log.Point(centre);
  const auto index = log.Value(centre).index;
  const auto combination = log.Combination(centre);
  for (std::uint32_t t = 0; t < log.Size(); ++t) {
    if (t == centre || log.Value(t).index != index || log.Combination(t) != combination) continue;
    near_.emplace_back(log.SquaredDistance(t, point), t);
  }
  count = std::min(count, near_.size());
  std::partial_sort(near_.begin(), near_.begin() + static_cast<std::ptrdiff_t>(count), near_.end());
  std::vector<std::uint32_t> nearest;
  for (std::size_t i = 0; i < count; ++i) nearest.push_back(near_[i].second);
  return nearest;
}

// A trial that is far lower than the model of an exhausted region says lies in another basin.
bool LocalModels::Covers(const TrialLog& log, const Region& region, std::uint32_t trial) const {
  const double* centre = log.Point(region.centre);
  const double reach = std::max(region.cover, region.radius);
  if (log.SquaredDistance(trial, centre) > reach * reach) return false;
  if (!region.is_exhausted || log.Value(trial).index != log.Value(region.centre).index) return true;
  VectorXd offset(static_cast<Index>(dimension_));
  for (std::uint32_t k = 0; k < dimension_; ++k) offset[k] = log.Point(trial)[k] - centre[k];
  const double rise = 0.5 * offset.dot(region.hessian * offset);
  return log.Value(trial).value - log.Value(region.centre).value >= kBasin * rise;
}

std::optional<std::size_t> LocalModels::SelectRegion(const TrialLog& log,
                                                     const SolverBase& solver) {
  // Candidates: trials marked local, and the centres of regions.
  std::optional<std::uint32_t> best;
  std::optional<std::size_t> best_region;
  const auto consider = [&](std::uint32_t t, std::optional<std::size_t> region) {
    if (!best || log.IsBetter(t, *best)) {
      best = t;
      best_region = region;
    }
  };
  for (std::size_t r = 0; r < regions_.size(); ++r) {
    const Region& region = regions_[r];
    if (!region.is_exhausted && !region.is_hopeless && region.rest_until <= turn_) {
      consider(region.centre, r);
    }
  }
  const auto n = dimension_;
  for (std::uint32_t t = 0; t < log.Size(); ++t) {
    const std::uint32_t position = log.EnginePosition(t);
    if (position == TrialLog::kNotInEngine) continue;
    if (best && !log.IsBetter(t, *best)) continue;
    if ((solver.GetTest(position)->flags.load(std::memory_order_relaxed) &
         SolverBase::TestBase::kLocal) == 0 &&
        position != solver.BestPosition()) {
      continue;
    }
    bool is_covered = false;
    for (const Region& region : regions_) {
      if (log.Combination(region.centre) != log.Combination(t)) continue;
      if (Covers(log, region, t)) {
        is_covered = true;
        break;
      }
    }
    if (!is_covered) consider(t, std::nullopt);
  }
  if (!best) return std::nullopt;
  // Its turn is the engine's. To give it to the next best region instead took no fewer trials
  // of eight workers, and their speed-up was 5.0 in place of 5.4 (benchmarks/search).
  if (best_region && log.Size() < regions_[*best_region].free_at) return std::nullopt;
  if (!best_region) {
    Region region;
    region.centre = *best;
    const auto near = NearestTrials(log, *best, n);
    double distance =
        near.empty() ? 1.0 : std::sqrt(log.SquaredDistance(near.back(), log.Point(*best)));
    region.radius = std::min(kFirstRadius, distance);
    region.cover = 0.0;
    region.hessian = MatrixXd::Zero(n, n);
    best_region = regions_.size();
    regions_.push_back(region);
  }
  return best_region;
}

std::optional<LocalPoint> LocalModels::Propose(const TrialLog& log, const SolverBase& solver,
                                               std::uint32_t best) {
  ++turn_;
  while (const auto region = SelectRegion(log, solver)) {
    auto point = ProposeIn(log, *region, best);
    if (point) {
      regions_[*region].free_at = log.Size() + batch_;
      return point;
    }
  }
  return RefineHopeless(log);
}

// Turns left over refine other minima than the best one, now and then.
std::optional<LocalPoint> LocalModels::RefineHopeless(const TrialLog& log) {
  if (++idle_turns_ % kIdleTurns != 0) return std::nullopt;
  for (;;) {
    std::optional<std::size_t> lowest;
    for (std::size_t r = 0; r < regions_.size(); ++r) {
      if (!regions_[r].is_hopeless || regions_[r].is_exhausted || regions_[r].rest_until > turn_ ||
          log.Size() < regions_[r].free_at) {
        continue;
      }
      if (!lowest || log.IsBetter(regions_[r].centre, regions_[*lowest].centre)) lowest = r;
    }
    if (!lowest) return std::nullopt;
    Region& region = regions_[*lowest];
    auto point = ProposeIn(log, *lowest, region.centre);
    if (point) {
      region.free_at = log.Size() + batch_;
      return point;
    }
  }
}

namespace {

// From the best value to the median of the first trials of its index.
double ValueSpread(const TrialLog& log, std::uint32_t best) {
  std::vector<double> values;
  for (std::uint32_t t = 0; t < std::min(log.Size(), 2 * log.Dimension() + 1); ++t) {
    if (log.Value(t).index == log.Value(best).index) values.push_back(log.Value(t).value);
  }
  if (values.empty()) return 0.0;
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle - log.Value(best).value;
}

}  // namespace

// To a point of the lattices next to the centre's, the one where the model is lowest of those at
// which no trial is as near as a step of a lattice; empty when there is none.
VectorXd LocalModels::UntriedNeighbour(const TrialLog& log, const Region& region, const Cube& cube,
                                       const QuadraticModel& model,
                                       const std::vector<VectorXd>& offsets) const {
  const VectorXd& scale = cube.scale;
  const double reach = scale.maxCoeff();
  const VectorXd lower = -cube.centre.cwiseMin(reach).cwiseQuotient(scale);
  const VectorXd upper = (1.0 - cube.centre.array()).matrix().cwiseMin(reach).cwiseQuotient(scale);
  std::vector<VectorXd> starts;
  starts.reserve(offsets.size());
  for (const VectorXd& offset : offsets) starts.push_back(offset.cwiseQuotient(scale));
  const auto is_untried = [&](const VectorXd& step) {
    const std::vector<double> point = cube.PointAt(step);
    for (std::uint32_t t = 0; t < log.Size(); ++t) {
      if (log.Combination(t) == log.Combination(region.centre) &&
          log.SquaredDistance(t, point.data()) <= reach * reach &&
          IsSameOnLattices(*lattice_, log.Point(t), point.data(), scale.size())) {
        return false;
      }
    }
    return true;
  };
  return LowestStep(*lattice_, log.Point(region.centre), scale, model, starts, lower, upper,
                    is_untried);
}

// No point means that the region has become exhausted.
std::optional<LocalPoint> LocalModels::ProposeIn(const TrialLog& log, std::size_t number,
                                                 std::uint32_t best) {
  Region& region = regions_[number];
  const auto n = static_cast<Index>(dimension_);
  const double* centre = log.Point(region.centre);
  const double value = log.Value(region.centre).value;
  // Two may have come to the same minimum.
  for (const Region& other : regions_) {
    if (other.is_exhausted && log.Combination(other.centre) == log.Combination(region.centre) &&
        log.IsBetter(other.centre, region.centre) && Covers(log, other, region.centre)) {
      region.is_exhausted = true;
      return std::nullopt;
    }
  }
  const std::size_t parameters = (dimension_ + 1) * (dimension_ + 2) / 2;
  const auto near = NearestTrials(
      log, region.centre, std::min<std::size_t>(parameters + parameters / 4, 4 * dimension_ + 40));
  const auto m = static_cast<Index>(near.size());
  std::vector<VectorXd> neighbours;
  if (lattice_) neighbours = NeighbourOffsets(*lattice_, centre, n);
  for (int attempt = 0; attempt < 100; ++attempt) {
    const double radius = region.radius;
    if (radius < kLeastRadius) break;
    // The lengths that are a step's units: the radius, but at least one step of a lattice.
    VectorXd scale = VectorXd::Constant(n, radius);
    for (const VectorXd& offset : neighbours) scale = scale.cwiseMax(offset.cwiseAbs());
    const MatrixXd scales = scale * scale.transpose();
    MatrixXd offsets(n, m);
    VectorXd differences(m);
    for (Index i = 0; i < m; ++i) {
      const double* point = log.Point(near[static_cast<std::size_t>(i)]);
      for (Index k = 0; k < n; ++k) offsets(k, i) = (point[k] - centre[k]) / scale[k];
      differences[i] = log.Value(near[static_cast<std::size_t>(i)]).value - value;
    }
    const QuadraticModel model =
        FitQuadratic(offsets, differences, region.hessian.cwiseProduct(scales), 1e-10);
    const Cube cube(centre, scale);
    const VectorXd& lower = cube.lower;
    const VectorXd& upper = cube.upper;
    const auto point_at = [&](const VectorXd& s) {
      return LocalPoint{cube.PointAt(s), log.Combination(region.centre)};
    };
    VectorXd step;
    if (region.is_failed) {
      region.is_failed = false;
      // Within one step of a lattice there is nothing to miss.
      MatrixXd told(n, m + n);
      told << offsets, MatrixXd((scale.array() > radius).cast<double>().matrix().asDiagonal());
      step = MissingDirection(told, lower, upper);
      if (step.size() == 0) {
        region.radius *= region.shrink;
        continue;
      }
      if (model.At(step) > model.At(-step) && ((-step).array() >= lower.array()).all() &&
          ((-step).array() <= upper.array()).all()) {
        step = -step;
      }
      const LocalPoint point = point_at(step);
      const auto [nearest, distance] = log.Nearest(point.coordinates.data(), point.combination);
      // Where a trial violates another constraint the model cannot know it.
      if (log.Value(nearest).index != log.Value(region.centre).index &&
          distance < kMissing * radius) {
        region.radius *= region.shrink;
        continue;
      }
      pending_ = Pending{number, -model.At(step), 1.0, true};
      return point;
    }
    // Of all indices: what violates another constraint is a trial at that point, too.
    const auto is_new = [&](const VectorXd& s) {
      const LocalPoint point = point_at(s);
      const double distance = log.Nearest(point.coordinates.data(), point.combination).second;
      return !(distance < 1e-10 || distance < kSame * radius * s.cwiseAbs().maxCoeff());
    };
    step = MinimiseInBox(model, lower, upper);
    if (lattice_) {
      const VectorXd none = VectorXd::Zero(n);
      step = LowestStep(*lattice_, centre, scale, model, {step, none}, lower, upper, is_new);
      if (step.size() == 0) step = none;
    }
    const double predicted = -model.At(step);
    const double length = step.cwiseAbs().maxCoeff();
    const double share = predicted / ValueSpread(log, best);
    if (lattice_ && region.centre == best && !(share >= kFine)) {
      const VectorXd next = UntriedNeighbour(log, region, cube, model, neighbours);
      if (next.size() > 0) {
        pending_ = Pending{number, -model.At(next), 1.0, true};
        return point_at(next);
      }
    }
    const double resolution = 1e-15 * std::max(std::abs(value), 1e-300);
    if (!(predicted > resolution) || !(length * radius > 1e-10)) {
      // Nothing to gain here, unless nearer trials know better.
      region.radius *= 0.5;
      if (near.empty()) break;
      if (std::sqrt(log.SquaredDistance(near[std::min<std::size_t>(near.size(), dimension_) - 1],
                                        centre)) < radius ||
          predicted <= resolution) {
        break;
      }
      continue;
    }
    if (region.centre != best &&
        value - (length > 0.99 ? 2.0 : 1.0) * kHope * predicted > log.Value(best).value) {
      region.is_hopeless = true;
      return std::nullopt;
    }
    if (!is_new(step)) {
      region.radius *= 0.5;
      continue;
    }
    // Digits that hardly count have their price; minima other than the best one do without
    // the last of them.
    if (region.is_hopeless) {
      region.is_exhausted = share < kFinest;
    } else if (share < kFine) {
      region.rest_until = turn_ + kFineTurns;
    }
    region.hessian = model.hessian.cwiseQuotient(scales);
    pending_ = Pending{number, predicted, length, false};
    return point_at(step);
  }
  region.is_exhausted = true;
  region.cover = std::max(region.cover, region.radius);
  return std::nullopt;
}

bool LocalModels::Accept(const TrialLog& log) {
  Region& region = regions_[pending_->region];
  const std::uint32_t trial = log.Size() - 1;
  const double gain = log.Value(trial).index < log.Value(region.centre).index
                          ? -1.0
                          : log.Value(region.centre).value - log.Value(trial).value;
  const double ratio = gain / pending_->predicted;
  if (!pending_->is_geometry) region.failures = ratio < 0.25 ? region.failures + 1 : 0;
  const double error = std::abs(gain - pending_->predicted);
  if (region.failures == 1) region.first_error = error;
  // Of a smooth function the model's error falls with the radius: here it is noise.
  if (!pending_->is_geometry && region.failures >= kPatience && error > 0.25 * region.first_error) {
    region.rest_until = turn_ + (1ULL << std::min(region.failures - kPatience + 1, 40));
  }
  if (pending_->is_geometry) {
    if (ratio > 0.0) region.failures = 0;
  } else if (ratio < 0.25) {
    region.is_failed = true;
    region.shrink = 0.5 * std::max(pending_->length, 0.5);
  } else if (pending_->length > 0.99) {
    region.radius = std::min(2.0 * region.radius, 0.5);
  }
  if (log.IsBetter(trial, region.centre)) {
    const double moved = std::sqrt(log.SquaredDistance(trial, log.Point(region.centre)));
    // At another point of the lattices the model knows less.
    if (lattice_ &&
        !IsSameOnLattices(*lattice_, log.Point(trial), log.Point(region.centre), dimension_)) {
      region.radius = std::max(region.radius, std::min(moved, kFirstRadius));
    }
    region.centre = trial;
    region.cover = std::max(region.cover, std::min(moved, 0.1));
  }
  const bool has_misled = !pending_->is_geometry && !(gain > 0.0);
  pending_.reset();
  return has_misled;
}

std::vector<std::uint32_t> LocalModels::Centres() const {
  std::vector<std::uint32_t> trials;
  for (const Region& region : regions_) trials.push_back(region.centre);
  return trials;
}

void LocalModels::Discard() {
  regions_[pending_->region].radius *= 0.5;
  regions_[pending_->region].is_failed = false;
  pending_.reset();
}

void LocalModels::Notice(const TrialLog& log) {
  const std::uint32_t trial = log.Size() - 1;
  for (std::size_t r = 0; r < regions_.size(); ++r) {
    Region& region = regions_[r];
    if (pending_ && pending_->region == r) continue;  // Accept will tell
    if (log.Combination(trial) != log.Combination(region.centre)) continue;
    const double reach = std::max(region.radius, region.cover);
    const double square = log.SquaredDistance(trial, log.Point(region.centre));
    if (square <= reach * reach) region.is_hopeless = false;
    if (!pending_ && !region.is_exhausted && log.IsBetter(trial, region.centre) &&
        square <= region.radius * region.radius) {
      region.centre = trial;
    }
  }
}

}  // namespace QuenloftSearch
