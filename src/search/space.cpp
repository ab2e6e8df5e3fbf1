// SPDX-License-Identifier: MIT

#include "search/space.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

namespace QuenloftSearch {

namespace {

constexpr std::uint64_t kUncountable = std::numeric_limits<std::uint64_t>::max();

// How far off its lattice a value may be by rounding, in steps.
constexpr double kStepTolerance = 1e-9;

std::uint64_t Product(std::uint64_t a, std::uint64_t b) {
  return b != 0 && a > kUncountable / b ? kUncountable : a * b;
}

bool HasEvenLattice(const Variable& variable) {
  return variable.count > 0 && !variable.is_logarithmic;
}

// A weighted mean and not a sum of steps: 0.3 of 0, 0.1, ... 1 is 0.3.
double ValueAt(const Variable& variable, double position) {
  const auto last = static_cast<double>(variable.count - 1);
  if (variable.is_integer) {
    return variable.lower + position * std::nearbyint((variable.upper - variable.lower) / last);
  }
  return ((last - position) * variable.lower + position * variable.upper) / last;
}

double PositionOf(const Variable& variable, double value) {
  const auto last = static_cast<double>(variable.count - 1);
  return std::clamp(
      std::nearbyint((value - variable.lower) / (variable.upper - variable.lower) * last), 0.0,
      last);
}

// The engine's bounds of a variable.
std::pair<double, double> SideOf(const Variable& variable) {
  if (HasEvenLattice(variable)) return {0.0, 1.0};
  const double half = variable.count > 0 ? 0.5 : 0.0;
  if (!variable.is_logarithmic) return {variable.lower, variable.upper};
  return {std::log(variable.lower - half), std::log(variable.upper + half)};
}

}  // namespace

std::size_t PointKeyHash::operator()(const PointKey& key) const {
  // FNV-1a over words, with a final mix: coordinates of a lattice differ in few bits.
  std::uint64_t hash = 14695981039346656037u ^ key.combination;
  for (const double coordinate : key.x) {
    const double positive_zero = coordinate + 0.0;
    std::uint64_t bits;
    std::memcpy(&bits, &positive_zero, sizeof bits);
    hash = (hash ^ bits ^ (bits >> 32)) * 1099511628211u;
  }
  return hash ^ (hash >> 29);
}

Space::Space(const Problem& problem)
    : variables_(problem.variables), category_sizes_(problem.category_sizes) {
  for (const std::int32_t size : category_sizes_) {
    combination_count_ *= static_cast<std::uint32_t>(size);
  }
  point_count_ = combination_count_;
  for (std::size_t k = 0; k < variables_.size(); ++k) {
    if (variables_[k].IsFixed()) continue;
    searched_.push_back(k);
    has_lattice_ = has_lattice_ || variables_[k].count > 0;
    point_count_ = Product(point_count_, variables_[k].count);
  }
}

PointKey Space::PointAt(std::uint64_t number) const {
  PointKey key{{}, static_cast<std::uint32_t>(number % combination_count_)};
  number /= combination_count_;
  for (const Variable& variable : variables_) {
    if (variable.IsFixed()) {
      key.x.push_back(variable.lower);
    } else {
      key.x.push_back(ValueAt(variable, static_cast<double>(number % variable.count)));
      number /= variable.count;
    }
  }
  return key;
}

std::vector<double> Space::EngineBounds() const {
  std::vector<double> bounds;
  for (const std::size_t k : searched_) {
    const auto [lower, upper] = SideOf(variables_[k]);
    bounds.push_back(lower);
    bounds.push_back(upper);
  }
  return bounds;
}

std::vector<double> Space::Decode(const double* engine) const {
  std::vector<double> x(variables_.size());
  for (std::size_t k = 0; k < x.size(); ++k) {
    const Variable& variable = variables_[k];
    if (variable.IsFixed()) {
      x[k] = variable.lower;
      continue;
    }
    const double coordinate = *engine++;
    if (HasEvenLattice(variable)) {
      const auto count = static_cast<double>(variable.count);
      x[k] = ValueAt(variable, std::clamp(std::floor(coordinate * count), 0.0, count - 1.0));
      continue;
    }
    // exp(log(b)) may miss b by a rounding error, and so may (b - a) + a.
    x[k] = std::clamp(variable.is_logarithmic ? std::exp(coordinate) : coordinate, variable.lower,
                      variable.upper);
    if (variable.count > 0) x[k] = std::nearbyint(x[k]);
  }
  return x;
}

std::vector<double> Space::Encode(const std::vector<double>& x) const {
  std::vector<double> unit;
  for (const std::size_t k : searched_) {
    const Variable& variable = variables_[k];
    if (HasEvenLattice(variable)) {
      unit.push_back((PositionOf(variable, x[k]) + 0.5) / static_cast<double>(variable.count));
      continue;
    }
    const auto [lower, upper] = SideOf(variable);
    const double coordinate = variable.is_logarithmic ? std::log(x[k]) : x[k];
    unit.push_back(std::clamp((coordinate - lower) / (upper - lower), 0.0, 1.0));
  }
  return unit;
}

double Space::OnLattice(std::size_t coordinate, double unit, int steps) const {
  const Variable& variable = variables_[searched_[coordinate]];
  if (HasEvenLattice(variable)) {
    const auto count = static_cast<double>(variable.count);
    return (std::clamp(std::floor(unit * count) + steps, 0.0, count - 1.0) + 0.5) / count;
  }
  const auto [lower, upper] = SideOf(variable);
  const double whole = std::nearbyint(std::exp(lower + unit * (upper - lower))) + steps;
  return (std::log(std::clamp(whole, variable.lower, variable.upper)) - lower) / (upper - lower);
}

bool Space::Contains(const std::vector<double>& x) const {
  if (x.size() != variables_.size()) return false;
  for (std::size_t k = 0; k < x.size(); ++k) {
    const Variable& variable = variables_[k];
    if (!(variable.lower <= x[k] && x[k] <= variable.upper)) return false;
    if (variable.IsFixed() || variable.count == 0) continue;
    const double off = ValueAt(variable, PositionOf(variable, x[k])) - x[k];
    const double step = (variable.upper - variable.lower) / static_cast<double>(variable.count - 1);
    if (std::abs(off) > kStepTolerance * step) return false;
  }
  return true;
}

void Space::Snap(std::vector<double>& x) const {
  for (const std::size_t k : searched_) {
    const Variable& variable = variables_[k];
    if (variable.count > 0) x[k] = ValueAt(variable, PositionOf(variable, x[k]));
  }
}

std::uint32_t Space::CombinationOf(const std::vector<std::int32_t>& categories) const {
  if (categories.size() != category_sizes_.size()) {
    throw std::invalid_argument("a point must have one value for each categorical variable");
  }
  std::uint32_t combination = 0;
  std::uint32_t weight = 1;
  for (std::size_t k = 0; k < categories.size(); ++k) {
    if (categories[k] < 0 || categories[k] >= category_sizes_[k]) {
      throw std::invalid_argument("a categorical variable has no such value");
    }
    combination += weight * static_cast<std::uint32_t>(categories[k]);
    weight *= static_cast<std::uint32_t>(category_sizes_[k]);
  }
  return combination;
}

}  // namespace QuenloftSearch
