// SPDX-License-Identifier: MIT
//
// The vector loops of neighbour selection: what they are given, and what it means. They
// are compiled for several widths of vectors (impl/selection_kernels_impl.h), of which the
// processor's is taken at run time; all give the same bits.

#pragma once

#include <cstddef>
#include <cstdint>

#include "solver/aligned.h"
#include "solver/candidate_columns.h"
#include "solver/constants.h"

namespace QuenloftSolver {

// In place of the number of a record.
inline constexpr std::size_t kNoRecord = SIZE_MAX;

// Components of unit directions are rounded to multiples of 1 / kUnit, and cosines are
// sums of products of the multiples: exact, in units of 1 / kUnit^2. Two products of the
// largest multiples, and by Cauchy and Schwarz every sum of a cosine, fit 32 bits.
inline constexpr std::int32_t kUnit = 32767;
inline constexpr std::int32_t kCosineOfOne = kUnit * kUnit;

// In place of the largest cosine of a record that is out: above any cosine.
inline constexpr std::int32_t kGone = INT32_MAX;

// What a rounded cosine is off at most. Each multiple is off by 1/2, so with the directions
// a and b the sum is off by (|a|_1 + |b|_1) kUnit / 2 + N / 4, where |a|_1 <= sqrt(N). The
// rest is for the rounding, in single precision, of what is made of it.
template <int N>
constexpr std::int32_t Tolerance() {
  constexpr std::int32_t root = RootAbove(10000 * N);  // of 100 sqrt(N)
  return kUnit / 100 * (root + 1) + N + 2000;
}

// Weights are kept from below so that no product of theirs is lost to underflow; of one
// that had to be raised, and of all where products of distances may be lost, the bounds
// tell nothing.
inline constexpr float kLeastWeight = 1e-25f;
inline constexpr double kLeastDistance = 1e-140;
inline constexpr float kAllDoubt = 1e30f;

// Which candidates p lie within a radius r of the origin o on the grid: those for which
// p . o - |p|^2 / 2 >= (|o|^2 - r^2) / 2.
template <int N>
struct NearTask {
  const std::int32_t* blocks;  // see CandidateColumns::GridBlocks
  std::size_t block_count;
  const std::int32_t* origin;  // pairs
  std::int32_t least_product;  // above kNearNothing
  std::uint32_t* near;         // out: numbers of candidates, ascending; kBlock more are spoiled
};

// Differences, distances, unit directions and weights. Of the first 2N records, which are
// the faces, differences, distances and unit directions are given.
template <int N>
struct MeasureTask {
  std::size_t block_count;
  const double* origin;
  double radius;
  double nearest_face;          // its distance
  const double* const* points;  // for each record, though not looked at for faces
  double* difference;           // out: in a block, a row of kBlock doubles a coordinate
  double* distance;             // out: kUnset for trials beyond the radius or at distance 0
  std::int32_t* unit;           // out: in a block, a row of kBlock pairs for two coordinates
  std::int32_t* max_cosine;     // out: 0, or kGone where not kept
  float* weight;                // out: least / distance, half of it for faces
  float* doubt;                 // out: what twice the tolerance makes of the weight
};

struct MeasureResult {
  std::size_t nearest_trial;  // the first of the nearest, or kNoRecord
  bool is_trusted;            // whether distances are large enough for bounds to hold
};

// Choosing on, from the records chosen last, as long as the bounds tell the next.
//
// With room = 1 - largest cosine, a record's score is the inverse of its weight times
// its room, but for a factor common to all; (room + tolerance) * weight, and that less
// the record's doubt, bound the inverse score.
template <int N>
struct ChoiceTask {
  std::size_t block_count;
  std::int32_t free_below;  // a largest cosine below this is one of a free direction
  const std::int32_t* unit;
  std::int32_t* max_cosine;
  const float* weight;
  float* upper;  // out: upper bounds of the inverse scores
  const float* doubt;
  std::uint32_t* chosen;
  int chosen_count;
  int applied_count;          // of the chosen ones, those that the rest is up to date with
  std::uint32_t free_record;  // one whose direction was free when last looked at
  float threshold;            // out: the largest lower bound
};

// Why the choosing stopped.
enum class Pause {
  kFull,        // a table's worth is chosen
  kAmbiguous,   // the records whose upper bound reaches the threshold must be compared
  kFewAreFree,  // the same, if there is a free direction at all
};

// Choosing among the records whose upper bounds reach the threshold, in double precision.
template <int N>
struct ContenderTask {
  // Chosen differences stand in a row a coordinate, filled up to a whole block with zeros.
  static constexpr std::size_t kRow = BlocksFor(3 * N) * kBlock;
  // So many contenders are looked at again when one of them is chosen: one bit each.
  static constexpr std::size_t kWindow = 64;

  const double* difference;  // of all records, as in MeasureTask
  const double* distance;
  double spread_cosine;
  bool is_trusted;
  std::uint64_t cosine_count;  // asked for; from N = 12 on, rounded ones spare most
  std::uint32_t* contenders;   // scratch, of kBlock more than there are records

  // Of the chosen records, as far as they were asked for.
  int exact_count;
  alignas(kCacheLine) double chosen_difference[N * kRow];
  alignas(kCacheLine) double chosen_distance[kRow];
  alignas(kCacheLine) std::int32_t chosen_unit[GridPoint<N>::kPairs * kRow];

  // Scratch: of the first contenders.
  alignas(kCacheLine) std::int32_t unit[GridPoint<N>::kPairs * kWindow];
  alignas(kCacheLine) std::int32_t max_cosine[kWindow];
  double cosine[kWindow];
  std::uint32_t support[kWindow];  // a bit for each coordinate that is not 0; or 0 if unknown
};

template <int N>
struct SelectionKernels {
  std::size_t (*find_near)(const NearTask<N>&);
  MeasureResult (*measure)(const MeasureTask<N>&);
  Pause (*choose)(ChoiceTask<N>&);
  bool (*choose_contenders)(ChoiceTask<N>&, ContenderTask<N>&);

  // For the widest vectors that the processor has and `lanes_allowed` admits.
  static const SelectionKernels* Fastest();
};

}  // namespace QuenloftSolver
