// SPDX-License-Identifier: MIT
//
// Generation and evaluation of the GKLS functions.

#include "testfunctions/gkls_function.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <stdexcept>

#include "testfunctions/lagged_fibonacci.h"

namespace QuenloftTestFunctions {

namespace {

// The tolerance of every comparison of the generator.
constexpr double kPrecision = 1e-10;
// The value outside the box, and where searches for a minimum start.
constexpr double kMaxValue = 1e100;
constexpr double kParaboloidMinimum = 0.0;
constexpr double kPi = 3.141592653589793;
// Share of the ball's largest possible radius that a local minimizer gets, so
// that balls which touch do not overlap after rounding.
constexpr double kRadiusWeight = 0.99;
constexpr std::int32_t kMinDimension = 2;
// A point's coordinates are taken from one block of random numbers.
constexpr std::int32_t kMaxDimension = LaggedFibonacciSource::kBlockLength - 1;
constexpr std::uint32_t kMinMinima = 2;
constexpr std::uint32_t kMaxFunctionNumber = 100;

constexpr std::uint32_t kVertex = 0;
constexpr std::uint32_t kGlobal = 1;
constexpr std::uint32_t kFirstLocal = 2;

}  // namespace

// The random numbers in the order in which the classes use them: one after the
// other, except that some steps start with a fresh block.
class GklsFunction::RandomBlocks {
 public:
  explicit RandomBlocks(std::uint32_t seed) : source(seed) {}

  void StartBlock() {
    source.lagged_fibonacci_fill(random_block);
    random_position = 0;
  }

  double Next() {
    const double number = random_block[random_position];
    if (++random_position == random_block.size()) StartBlock();
    return number;
  }

 private:
  LaggedFibonacciSource source;
  LaggedFibonacciSource::Block random_block{};
  std::size_t random_position = 0;
};

GklsFunction::GklsFunction(std::int32_t dimension, std::uint32_t minima_count,
                           double global_distance, double global_radius,
                           std::uint32_t function_number)
    : function_number(function_number),
      dimension(dimension),
      minima_count(minima_count),
      global_distance(global_distance),
      global_radius(global_radius) {
  GKLS_domain_alloc();
  if (GKLS_parameters_check() != kOk) throw std::runtime_error("GKLS_parameters_check failed.");
  if (GKLS_arg_generate(function_number) != kOk) {
    throw std::runtime_error("GKLS_arg_generate failed.");
  }
}

void GklsFunction::GKLS_domain_alloc() {
  const char* const message = "GKLS_domain_alloc failed.";
  if (dimension < kMinDimension || dimension > kMaxDimension) throw std::runtime_error(message);
  try {
    left.assign(dimension, -1.0);
    right.assign(dimension, 1.0);
  } catch (const std::bad_alloc&) {
    throw std::runtime_error(message);
  }
}

// Each rule states what must hold, so that NaN breaks it.
GklsFunction::Status GklsFunction::GKLS_parameters_check() const {
  if (dimension < kMinDimension || dimension > kMaxDimension) return kBadDimension;
  if (minima_count < kMinMinima) return kTooFewMinima;
  if (left.empty() || right.empty()) return kBadBox;
  double shortest_side = right[0] - left[0];
  for (std::int32_t i = 0; i < dimension; ++i) {
    if (!(left[i] < right[i] - kPrecision)) return kBadBox;
    shortest_side = std::min(shortest_side, right[i] - left[i]);
  }
  if (!(global_value < kParaboloidMinimum - kPrecision)) return kBadGlobalValue;
  if (!(global_distance < 0.5 * shortest_side - kPrecision && global_distance > kPrecision)) {
    return kBadGlobalDistance;
  }
  if (!(global_radius < 0.5 * global_distance + kPrecision && global_radius > kPrecision)) {
    return kBadGlobalRadius;
  }
  return kOk;
}

GklsFunction::Status GklsFunction::GKLS_arg_generate(std::uint32_t number) {
  if (number < 1 || number > kMaxFunctionNumber) return kBadFunctionNumber;
  if (const Status status = GKLS_parameters_check(); status != kOk) return status;
  if (const Status status = AllocateMinima(); status != kOk) return status;

  // One seed for each function of each class, in 32 bits with wrap-around.
  const std::uint32_t seed =
      (static_cast<std::uint32_t>(dimension) * 10000u + minima_count) * 100u + number - 101u;
  RandomBlocks random(seed);

  random.StartBlock();
  double* const vertex = Row(kVertex);
  for (std::int32_t i = 0; i < dimension; ++i) {
    vertex[i] = left[i] + random.Next() * (right[i] - left[i]);
  }
  minimum_values[kVertex] = kParaboloidMinimum;
  PlaceGlobalMinimizer(random);
  minimum_values[kGlobal] = global_value;
  // The classes set a number aside for the twice differentiable type of
  // function; drawing it keeps the stream in step.
  random.Next();

  do {
    DrawLocalMinimizers(random);
  } while (GKLS_separation_check() != kOk);
  if (const Status status = GKLS_basins_build(random); status != kOk) return status;
  generated = true;
  return kOk;
}

GklsFunction::Status GklsFunction::AllocateMinima() {
  const double count = minima_count;
  if (count * count * dimension > kMaxWork) return kNoMemory;
  try {
    minima.resize(static_cast<std::size_t>(minima_count) * dimension);
    minimum_values.resize(minima_count);
    radii.resize(minima_count);
    global_indices.resize(minima_count);
  } catch (const std::bad_alloc&) {
    return kNoMemory;
  }
  return kOk;
}

// Goes global_distance from the vertex in a direction drawn in generalised
// spherical coordinates: the i-th coordinate is cos(angle i) times the sines of
// the angles before it, the last one the product of all sines. A step that would
// leave the box is taken the other way, which cannot leave it too: the distance
// is less than half a side.
void GklsFunction::PlaceGlobalMinimizer(RandomBlocks& random) {
  const double* const vertex = Row(kVertex);
  double* const global = Row(kGlobal);
  const auto place = [&](std::int32_t i, double step) {
    global[i] = vertex[i] + step;
    if (global[i] > right[i] - kPrecision || global[i] < left[i] + kPrecision) {
      global[i] = vertex[i] - step;
    }
  };

  random.StartBlock();
  const std::int32_t last = dimension - 1;
  double angle = kPi * random.Next();
  place(0, global_distance * std::cos(angle));
  double sines = std::sin(angle);
  for (std::int32_t i = 1; i < last; ++i) {
    angle = 2.0 * kPi * random.Next();
    place(i, global_distance * std::cos(angle) * sines);
    sines *= std::sin(angle);
  }
  place(last, global_distance * sines);
}

// Uniform in the box, outside twice the global minimizer's ball. Ends, because a
// ball of radius below 1 leaves at least a fifth of the box free.
void GklsFunction::DrawLocalMinimizers(RandomBlocks& random) {
  for (std::uint32_t row = kFirstLocal; row < minima_count; ++row) {
    double* const point = Row(row);
    do {
      random.StartBlock();
      for (std::int32_t j = 0; j < dimension; ++j) {
        point[j] = left[j] + random.Next() * (right[j] - left[j]);
      }
    } while (2.0 * global_radius - GKLS_distance(point, Row(kGlobal)) > kPrecision);
  }
}

GklsFunction::Status GklsFunction::GKLS_separation_check() const {
  for (std::uint32_t i = kFirstLocal; i < minima_count; ++i) {
    if (GKLS_distance(Minimizer(i), Minimizer(kVertex)) < kPrecision) return kMinimizerAtVertex;
  }
  if (minima_count > kFirstLocal) {
    for (std::uint32_t i = kGlobal; i < minima_count; ++i) {
      for (std::uint32_t j = i + 1; j < minima_count; ++j) {
        if (GKLS_distance(Minimizer(i), Minimizer(j)) < kPrecision) return kMinimizersCoincide;
      }
    }
  }
  return kOk;
}

GklsFunction::Status GklsFunction::GKLS_basins_build(RandomBlocks& random) {
  // Half the way to the nearest other minimizer: balls that cannot overlap.
  for (std::uint32_t i = 0; i < minima_count; ++i) {
    double nearest = kMaxValue;
    for (std::uint32_t j = 0; j < minima_count; ++j) {
      if (j != i) nearest = std::min(nearest, GKLS_distance(Row(i), Row(j)));
    }
    radii[i] = 0.5 * nearest;
  }
  // The global minimizer has the radius asked for; the others make room.
  radii[kGlobal] = global_radius;
  for (std::uint32_t i = kFirstLocal; i < minima_count; ++i) {
    const double room = GKLS_distance(Row(kGlobal), Row(i)) - global_radius - kPrecision;
    if (radii[i] > room) radii[i] = room;
  }
  // They grow, in order, until they touch another ball.
  for (std::uint32_t i = 0; i < minima_count; ++i) {
    if (i == kGlobal) continue;
    double room = kMaxValue;
    for (std::uint32_t j = 0; j < minima_count; ++j) {
      if (j != i) room = std::min(room, GKLS_distance(Row(i), Row(j)) - radii[j]);
    }
    if (room > radii[i] + kPrecision) radii[i] = room;
  }
  for (std::uint32_t i = 0; i < minima_count; ++i) {
    if (i != kGlobal) radii[i] *= kRadiusWeight;
  }

  // A local minimum lies at a random depth below the lowest value that the
  // paraboloid takes on its sphere, but never below the global minimum.
  for (std::uint32_t i = kFirstLocal; i < minima_count; ++i) {
    const double gap = radii[i] - GKLS_distance(Row(kVertex), Row(i));
    const double lowest = gap * gap + kParaboloidMinimum;
    const double share = random.Next();
    const double peak = std::min(share * (lowest - global_value), (share + 1.0) * radii[i]);
    minimum_values[i] = lowest - peak;
  }

  global_count = 0;
  for (std::uint32_t i = 0; i < minima_count; ++i) {
    const bool is_global = minimum_values[i] >= global_value - kPrecision &&
                           minimum_values[i] <= global_value + kPrecision;
    if (is_global) {
      global_indices[global_count++] = i;
    } else {
      global_indices[minima_count - 1 - (i - global_count)] = i;
    }
  }
  return global_count == 0 ? kNoGlobalMinimizer : kOk;
}

double GklsFunction::GKLS_distance(const double* a, const double* b) const {
  double sum = 0.0;
  for (std::int32_t k = 0; k < dimension; ++k) sum += (a[k] - b[k]) * (a[k] - b[k]);
  return std::sqrt(sum);
}

// The grouping of the cubic decides the last bits and is part of the classes'
// definition here.
double GklsFunction::GKLS_d_value(const double* point) const {
  if (!generated) return kMaxValue;
  for (std::int32_t i = 0; i < dimension; ++i) {
    if (point[i] < left[i] - kPrecision || point[i] > right[i] + kPrecision) return kMaxValue;
  }

  const double* const vertex = Minimizer(kVertex);
  std::uint32_t row = kGlobal;
  while (row < minima_count && GKLS_distance(Minimizer(row), point) > radii[row]) ++row;
  if (row == minima_count) {
    const double distance = GKLS_distance(vertex, point);
    return distance * distance + minimum_values[kVertex];
  }

  const double* const minimizer = Minimizer(row);
  const double n = GKLS_distance(minimizer, point);
  if (n < kPrecision) return minimum_values[row];
  const double rho = radii[row];
  const double to_vertex = GKLS_distance(vertex, minimizer);
  const double A = to_vertex * to_vertex + minimum_values[kVertex] - minimum_values[row];
  double s = 0.0;
  for (std::int32_t j = 0; j < dimension; ++j) {
    s += (point[j] - minimizer[j]) * (vertex[j] - minimizer[j]);
  }
  return (((2.0 / rho) / rho) * s / n - ((A + A) / rho) / rho / rho) * n * n * n +
         (1.0 - (s * 4.0) / n / rho + (A * 3.0) / rho / rho) * n * n + minimum_values[row];
}

}  // namespace QuenloftTestFunctions
