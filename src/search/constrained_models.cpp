// SPDX-License-Identifier: MIT

#include "search/constrained_models.h"

#include <algorithm>
#include <cmath>

#include "search/cube.h"
#include "search/quadratic_model.h"

namespace QuenloftSearch {

using Eigen::Index;
using Eigen::MatrixXd;
using Eigen::VectorXd;

namespace {

constexpr double kFirstRadius = 0.1;
constexpr double kLeastRadius = 1e-7;
// A new region begins at least this far from those left.
constexpr double kApart = 0.1;
// The most that a violation weighs beside the target, both in units of what their models vary
// by in the region. What it takes is of the order of 1 unless constraints are nearly parallel.
constexpr double kMostWeight = 100.0;

}  // namespace

struct ConstrainedModels::Model {
  QuadraticModel quadratic;  // of the value divided by `scale`; the constant included
  double scale = 0.0;        // 0 where too little is known
};

double ConstrainedModels::Merit(const std::vector<double>& scales, const double* functions) const {
  const std::size_t target = function_count_ - 1;
  double merit = 0.0;
  if (scales[target] > 0.0 && std::isfinite(functions[target])) {
    merit = functions[target] / scales[target];
  }
  for (std::size_t i = 0; i < target; ++i) {
    if (scales[i] > 0.0 && functions[i] > 0.0) {
      merit += region_->weights[i] * (functions[i] / scales[i]);
    }
  }
  return merit;
}

// At the trial of least violation, then least target, away from the regions left. Violations
// are measured in the constraint's largest value so far.
bool ConstrainedModels::Begin(const TrialLog& log) {
  const std::size_t target = function_count_ - 1;
  std::vector<double> largest(target, 0.0);
  for (std::uint32_t t = 0; t < log.Size(); ++t) {
    for (std::size_t i = 0; i < target; ++i) {
      const double value = std::abs(log.Functions(t)[i]);
      if (std::isfinite(value)) largest[i] = std::max(largest[i], value);
    }
  }
  std::optional<std::uint32_t> best;
  double least = 0.0;
  for (std::uint32_t t = 0; t < log.Size(); ++t) {
    bool is_apart = true;
    for (const std::uint32_t centre : exhausted_) {
      is_apart = is_apart && (log.Combination(centre) != log.Combination(t) ||
                              log.SquaredDistance(t, log.Point(centre)) > kApart * kApart);
    }
    if (!is_apart) continue;
    double violation = 0.0;
    for (std::size_t i = 0; i < target; ++i) {
      const double value = log.Functions(t)[i];
      if (value > 0.0) violation += value / largest[i];
      if (std::isnan(value) && static_cast<std::int32_t>(i) >= log.Value(t).index) violation += 1.0;
    }
    if (!best || violation < least ||
        (violation == least && log.Value(t).value < log.Value(*best).value)) {
      best = t;
      least = violation;
    }
  }
  if (!best) return false;
  BeginAt(*best, kFirstRadius);
  exhausted_.push_back(*best);
  region_->root = *best;
  return true;
}

void ConstrainedModels::BeginAt(std::uint32_t centre, double radius) {
  const std::uint32_t root = region_ ? region_->root : centre;
  region_ = Region{};
  region_->centre = centre;
  region_->begun_at = centre;
  region_->root = root;
  region_->radius = radius;
  region_->hessians.assign(function_count_, MatrixXd::Zero(dimension_, dimension_));
  region_->weights.assign(function_count_, 1.0);
  region_->margins.assign(function_count_, 0.0);
}

std::optional<LocalPoint> ConstrainedModels::Propose(const TrialLog& log) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    if (!region_ && !Begin(log)) return std::nullopt;
    if (log.Size() < region_->free_at) return std::nullopt;
    if (auto point = ProposeIn(log)) {
      region_->free_at = log.Size() + batch_;
      return point;
    }
    // What a region gained by its trials since it was begun, or begun anew, may lead further.
    if (region_ && region_->centre != region_->begun_at) {
      BeginAt(region_->centre, kFirstRadius / 2.0);
    } else if (region_) {
      exhausted_.push_back(region_->centre);
      region_.reset();
    }
  }
  return std::nullopt;
}

// Fits each function to the nearest trials at which it is known. `offsets` are those of the
// nearest trials whatever is known of them.
void ConstrainedModels::FitAll(const TrialLog& log, std::vector<Model>& models,
                               MatrixXd& offsets) const {
  const Region& region = *region_;
  const auto n = static_cast<Index>(dimension_);
  const std::size_t parameters = (dimension_ + 1) * (dimension_ + 2) / 2;
  const std::size_t most = std::min<std::size_t>(parameters + parameters / 4, 4 * dimension_ + 40);
  const double* centre = log.Point(region.centre);
  std::vector<std::pair<double, std::uint32_t>> near;
  for (std::uint32_t t = 0; t < log.Size(); ++t) {
    if (log.Combination(t) != log.Combination(region.centre)) continue;
    near.emplace_back(log.SquaredDistance(t, centre), t);
  }
  std::sort(near.begin(), near.end());
  const auto offsets_of = [&](const std::vector<std::uint32_t>& trials) {
    MatrixXd found(n, static_cast<Index>(trials.size()));
    for (std::size_t i = 0; i < trials.size(); ++i) {
      const double* point = log.Point(trials[i]);
      for (Index k = 0; k < n; ++k) {
        found(k, static_cast<Index>(i)) = (point[k] - centre[k]) / region.radius;
      }
    }
    return found;
  };
  std::vector<std::uint32_t> trials;
  for (const auto& [distance, t] : near) {
    if (trials.size() < most && t != region.centre) trials.push_back(t);
  }
  offsets = offsets_of(trials);
  models.assign(function_count_, Model{});
  // Functions that are known at the same trials share the decompositions.
  std::vector<std::uint32_t> fitted;
  Constant fitted_constant = Constant::kZero;
  std::optional<QuadraticFit> fit;
  for (std::size_t i = 0; i < function_count_; ++i) {
    trials.clear();
    const double at_centre = log.Functions(region.centre)[i];
    for (const auto& [distance, t] : near) {
      if (trials.size() < most && std::isfinite(log.Functions(t)[i])) trials.push_back(t);
    }
    const bool is_known = std::isfinite(at_centre);
    if (is_known) trials.erase(std::find(trials.begin(), trials.end(), region.centre));
    if (trials.size() < dimension_ + 1) continue;
    const double base = is_known ? at_centre : log.Functions(trials[0])[i];
    VectorXd differences(static_cast<Index>(trials.size()));
    for (std::size_t j = 0; j < trials.size(); ++j) {
      differences[static_cast<Index>(j)] = log.Functions(trials[j])[i] - base;
    }
    const Constant constant = is_known ? Constant::kZero : Constant::kFree;
    if (!fit || constant != fitted_constant || trials != fitted) {
      fitted = trials;
      fitted_constant = constant;
      fit.emplace(offsets_of(trials), 1e-10, constant);
    }
    Model& model = models[i];
    model.quadratic = fit->Fit(differences, region.hessians[i] * (region.radius * region.radius));
    model.quadratic.constant += base;
    model.scale =
        model.quadratic.gradient.cwiseAbs().sum() + 0.5 * model.quadratic.hessian.cwiseAbs().sum();
    if (!(model.scale > 0.0)) {
      model.scale = 0.0;
      continue;
    }
    model.quadratic.constant /= model.scale;
    model.quadratic.gradient /= model.scale;
    model.quadratic.hessian /= model.scale;
  }
}

namespace {

// Minimises `target` plus kMostWeight times the violations of `constraints` over the box:
// augmented Lagrangian (Hestenes 1969, Powell 1969), its multipliers at most that weight, its
// inner problem by steps to the minimum of a quadratic in the box. Writes the multipliers. So
// these stay bounded, and the step the best there is, where the constraints cannot be satisfied.
VectorXd MinimiseConstrained(const QuadraticModel& target,
                             const std::vector<QuadraticModel>& constraints, const VectorXd& lower,
                             const VectorXd& upper, std::vector<double>& multipliers) {
  const Index n = lower.size();
  multipliers.assign(constraints.size(), 0.0);
  VectorXd s = VectorXd::Zero(n);
  double penalty = 10.0;
  double change_before = 1e300;
  for (int outer = 0; outer < 25; ++outer) {
    const auto lagrangian = [&](const VectorXd& at) {
      double value = target.At(at);
      for (std::size_t i = 0; i < constraints.size(); ++i) {
        const double c = constraints[i].At(at);
        // The p from 0 to kMostWeight at which what follows is greatest.
        const double pull = std::clamp(multipliers[i] + penalty * c, 0.0, kMostWeight);
        value += pull * c - (pull - multipliers[i]) * (pull - multipliers[i]) / (2.0 * penalty);
      }
      return value;
    };
    for (int inner = 0; inner < 20; ++inner) {
      QuadraticModel local;
      local.gradient = target.gradient + target.hessian * s;
      local.hessian = target.hessian;
      for (std::size_t i = 0; i < constraints.size(); ++i) {
        const double wanted = multipliers[i] + penalty * constraints[i].At(s);
        if (wanted <= 0.0) continue;
        const double pull = std::min(wanted, kMostWeight);
        const VectorXd slope = constraints[i].gradient + constraints[i].hessian * s;
        local.gradient += pull * slope;
        local.hessian += pull * constraints[i].hessian;
        if (wanted < kMostWeight) local.hessian += penalty * (slope * slope.transpose());
      }
      const VectorXd step = MinimiseInBox(local, lower - s, upper - s);
      const double before = lagrangian(s);
      double length = 1.0;
      double gain = 0.0;
      while (length > 1e-4) {
        gain = before - lagrangian(s + length * step);
        if (gain > 0.0) break;
        length *= 0.5;
      }
      if (!(gain > 0.0)) break;
      s += length * step;
      if (gain <= 1e-13 * (1.0 + std::abs(before))) break;
    }
    double change = 0.0;
    for (std::size_t i = 0; i < constraints.size(); ++i) {
      const double value = constraints[i].At(s);
      const double next = std::clamp(multipliers[i] + penalty * value, 0.0, kMostWeight);
      change = std::max(change, std::abs(next - multipliers[i]) / penalty);
      multipliers[i] = next;
    }
    if (change <= 1e-9 && outer > 2) break;
    if (change > 0.25 * change_before) penalty = std::min(penalty * 10.0, 1e7);
    change_before = change;
  }
  return s.cwiseMax(lower).cwiseMin(upper);
}

}  // namespace

std::optional<LocalPoint> ConstrainedModels::ProposeIn(const TrialLog& log) {
  const auto n = static_cast<Index>(dimension_);
  const std::size_t target = function_count_ - 1;
  for (int attempt = 0; attempt < 60; ++attempt) {
    Region& region = *region_;
    if (region.radius < kLeastRadius) return std::nullopt;
    std::vector<Model> models;
    MatrixXd offsets;
    FitAll(log, models, offsets);
    const double* centre = log.Point(region.centre);
    const Cube cube(centre, VectorXd::Constant(n, region.radius));
    QuadraticModel objective{0.0, VectorXd::Zero(n), MatrixXd::Zero(n, n)};
    if (models[target].scale > 0.0) objective = models[target].quadratic;
    std::vector<QuadraticModel> constraints;
    std::vector<std::size_t> numbers;
    for (std::size_t i = 0; i < target; ++i) {
      if (models[i].scale == 0.0) continue;
      constraints.push_back(models[i].quadratic);
      const double margin = region.margins[i] * (region.radius * region.radius);
      constraints.back().constant += margin / models[i].scale + 1e-7;
      numbers.push_back(i);
    }
    std::vector<double> multipliers;
    VectorXd step =
        MinimiseConstrained(objective, constraints, cube.lower, cube.upper, multipliers);
    Pending pending{};
    pending.scales.resize(function_count_);
    pending.values.resize(function_count_);
    for (std::size_t j = 0; j < numbers.size(); ++j) {
      double& weight = region.weights[numbers[j]];
      weight = std::max({1.0, 0.5 * weight, 2.0 * multipliers[j]});
    }
    if (region.is_failed) {
      const VectorXd missing = MissingDirection(offsets, cube.lower, cube.upper);
      if (missing.size() == 0) {
        region.radius *= 0.5;
        region.is_failed = false;
        continue;
      }
      step = missing;
      pending.is_geometry = true;
    }
    region.is_failed = false;
    for (std::size_t i = 0; i < function_count_; ++i) {
      pending.scales[i] = models[i].scale;
      pending.values[i] =
          models[i].scale == 0.0 ? 0.0 : models[i].quadratic.At(step) * models[i].scale;
    }
    // What is not known at the centre is as modelled.
    pending.at_centre.assign(log.Functions(region.centre),
                             log.Functions(region.centre) + function_count_);
    for (std::size_t i = 0; i < function_count_; ++i) {
      if (std::isfinite(pending.at_centre[i])) continue;
      pending.at_centre[i] = models[i].quadratic.constant * models[i].scale;
    }
    const double merit = Merit(pending.scales, pending.at_centre.data());
    // The weights may have shown that another trial nearby is the better centre.
    std::uint32_t better = region.centre;
    double least = merit;
    for (std::uint32_t t = 0; t < log.Size(); ++t) {
      if (log.Combination(t) != log.Combination(region.centre)) continue;
      if (log.SquaredDistance(t, centre) > region.radius * region.radius) continue;
      bool is_known = true;
      for (std::size_t i = 0; i < function_count_; ++i) {
        if (models[i].scale > 0.0 && !std::isfinite(log.Functions(t)[i])) is_known = false;
      }
      if (!is_known) continue;
      const double other = Merit(pending.scales, log.Functions(t));
      if (other < least - 1e-12 * std::abs(least)) {
        least = other;
        better = t;
      }
    }
    if (better != region.centre) {
      // Among trials that another region has left it would only repeat that one.
      if (region.begun_at == region.centre && better != region.root &&
          std::find(exhausted_.begin(), exhausted_.end(), better) != exhausted_.end()) {
        region_.reset();
        return std::nullopt;
      }
      if (region.begun_at == region.centre) region.begun_at = better;
      region.centre = better;
      continue;
    }
    pending.predicted = merit - Merit(pending.scales, pending.values.data());
    pending.length = step.cwiseAbs().maxCoeff();
    pending.expected = pending.values[target];
    if (!pending.is_geometry && !(pending.predicted > 1e-9 && pending.length > 1e-4)) {
      // All that is left to gain may be what the margins keep.
      if (*std::max_element(region.margins.begin(), region.margins.end()) > 0.0) {
        std::fill(region.margins.begin(), region.margins.end(), 0.0);
        continue;
      }
      region.radius *= std::clamp(4.0 * pending.length, 0.1, 0.25);
      continue;
    }
    const LocalPoint point{cube.PointAt(step), log.Combination(region.centre)};
    const double distance = log.Nearest(point.coordinates.data(), point.combination).second;
    if (!(distance > 1e-4 * region.radius)) {
      region.radius *= 0.5;
      continue;
    }
    for (std::size_t i = 0; i < function_count_; ++i) {
      if (models[i].scale == 0.0) continue;
      region.hessians[i] =
          models[i].quadratic.hessian * (models[i].scale / (region.radius * region.radius));
    }
    pending_ = pending;
    return point;
  }
  return std::nullopt;
}

void ConstrainedModels::Accept(const TrialLog& log) {
  Region& region = *region_;
  const std::uint32_t trial = log.Size() - 1;
  const double square = region.radius * region.radius;
  std::vector<double> values(log.Functions(trial), log.Functions(trial) + function_count_);
  for (std::size_t i = 0; i < function_count_; ++i) {
    if (pending_->scales[i] == 0.0) continue;
    if (std::isfinite(values[i])) {
      if (pending_->is_geometry) continue;
      region.margins[i] = 0.5 * std::abs(values[i] - pending_->values[i]) / square;
    } else {
      values[i] = pending_->values[i];
    }
  }
  double gain =
      Merit(pending_->scales, pending_->at_centre.data()) - Merit(pending_->scales, values.data());
  // A constraint without a model stands where the models end: the engine's order decides.
  const auto first = static_cast<std::size_t>(log.Value(trial).index);
  if (pending_->scales[first] == 0.0 && first + 1 < function_count_) {
    gain = log.IsBetter(trial, region.centre) ? pending_->predicted : -1.0;
  }
  const double ratio = gain / pending_->predicted;
  if (!pending_->is_geometry) {
    if (ratio < 0.1) {
      region.is_failed = true;
    } else if (ratio > 0.5 && pending_->length > 0.99) {
      region.radius = std::min(2.0 * region.radius, 0.5);
    }
  }
  if (gain > 0.0) region.centre = trial;
  pending_.reset();
}

void ConstrainedModels::Discard() {
  region_->radius *= 0.5;
  pending_.reset();
}

}  // namespace QuenloftSearch
