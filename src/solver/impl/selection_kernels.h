// SPDX-License-Identifier: MIT
//
// The vector loops of neighbour selection: what they are given, and the choice among
// the widths of vectors for which selection_kernels_body.h is compiled, at run time.
// All widths give the same bits.

#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "solver/candidate_columns.h"
#include "solver/constants.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace QuenloftSolver {

// In place of the largest cosine of a record that is out: above any tolerance.
inline constexpr float kGone = 4.0f;

// What a rounded cosine, or 1 minus it, is off at most, with the rounding of the
// weight that multiplies it: N products and sums of rounded unit components, each off
// by 2^-24 at most of a sum that Cauchy and Schwarz keep below 1, and a few more.
template <int N>
inline constexpr float kTolerance = static_cast<float>((N + 12) * 1.2e-7);

// Products of weights may fall below the smallest normal float: upper bounds are
// raised by so much.
inline constexpr float kUnderflow = 1e-37f;

// Which candidates p may lie within a radius r of the origin o: those for which
// p . o - |p|^2 / 2 >= (|o|^2 - r^2) / 2, in single precision with a margin.
template <int N>
struct NearTask {
  const float* blocks;  // see CandidateColumns::RoundedBlocks
  std::size_t block_count;
  const float* origin;
  float least_product;
  std::uint32_t* near;  // out: numbers of candidates, ascending
};

// Distances and unit directions from differences.
template <int N>
struct DirectionTask {
  std::size_t block_count;
  double radius;
  const double* difference;  // in a block, a row of kBlock doubles a coordinate
  double* distance;          // out: kUnset beyond the radius, and at distance 0
  float* unit;               // out: in a block, a row of kBlock floats a coordinate
};

// Bringing all records up to date with a direction just chosen.
template <int N>
struct UpdateTask {
  std::size_t block_count;  // of trials
  const float* unit;
  float* max_cosine;  // in and out, also of the faces that follow the trials
  const float* weight;
  const float* face_cosine;  // of the faces with the chosen direction
  const float* chosen;       // N unit components
  float* upper;              // out: upper bounds of the inverse scores
};

// With room = 1 - largest cosine, a record's score is its weight's inverse over its
// room; (room - tolerance) * weight and (room + tolerance) * weight bound the inverse
// score. A record is a contender when its upper bound reaches every lower bound.
struct UpdateResult {
  float least_cosine;     // of the records that remain
  float threshold;        // the largest lower bound
  std::size_t contender;  // a record with the largest upper bound
  bool is_single;         // whether it is the only contender
};

// Which records have an upper bound that reaches the threshold; the bound of those
// that are out is 0, below any positive threshold.
template <int N>
struct ContenderTask {
  std::size_t block_count;  // faces included
  const float* upper;
  float threshold;
  std::uint32_t* contenders;  // out: numbers of records, ascending
};

// Bringing a block of trials up to date in double precision, with the chosen directions
// from number `from` to before `to`.
template <int N>
struct ExactTask {
  const double* difference;  // a row of kBlock doubles a coordinate
  const double* distance;
  double* max_cosine;        // in and out
  const double* directions;  // N doubles a chosen direction, of any length:
  const double* distances;   // these
  int from;
  int to;
};

template <int N>
struct SelectionKernels {
  std::size_t (*find_near)(const NearTask<N>&);
  double (*find_directions)(const DirectionTask<N>&);
  UpdateResult (*update)(const UpdateTask<N>&);
  std::size_t (*find_contenders)(const ContenderTask<N>&);
  void (*update_exact)(const ExactTask<N>&);

  static const SelectionKernels* Fastest();
};

// Once for each kind of processor, with its number of lanes and its way to turn a mask
// into bits.
#define QUENLOFT_TARGET
namespace baseline {
inline constexpr std::size_t kLanes = 4;
inline std::uint32_t LaneBits(const void* mask) {
#if defined(__x86_64__)
  return static_cast<std::uint32_t>(_mm_movemask_ps(*static_cast<const __m128*>(mask)));
#else
  std::int32_t lanes[kLanes];
  std::memcpy(lanes, mask, sizeof(lanes));
  std::uint32_t bits = 0;
  for (std::size_t j = 0; j < kLanes; ++j) bits |= static_cast<std::uint32_t>(lanes[j] & 1) << j;
  return bits;
#endif
}
#include "solver/impl/selection_kernels_body.h"
}  // namespace baseline
#undef QUENLOFT_TARGET

#if defined(__x86_64__)
#define QUENLOFT_TARGET [[gnu::target("avx2")]]
namespace avx2 {
inline constexpr std::size_t kLanes = 8;
QUENLOFT_TARGET inline std::uint32_t LaneBits(const void* mask) {
  return static_cast<std::uint32_t>(_mm256_movemask_ps(*static_cast<const __m256*>(mask)));
}
#include "solver/impl/selection_kernels_body.h"
}  // namespace avx2
#undef QUENLOFT_TARGET

#define QUENLOFT_TARGET [[gnu::target("avx512f,avx512bw,avx512dq,avx512vl")]]
namespace avx512 {
inline constexpr std::size_t kLanes = 16;
QUENLOFT_TARGET inline std::uint32_t LaneBits(const void* mask) {
  return _mm512_movepi32_mask(*static_cast<const __m512i*>(mask));
}
#include "solver/impl/selection_kernels_body.h"
}  // namespace avx512
#undef QUENLOFT_TARGET
#endif

template <int N>
const SelectionKernels<N>* SelectionKernels<N>::Fastest() {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl")) {
    return &avx512::kKernels<N>;
  }
  if (__builtin_cpu_supports("avx2")) return &avx2::kKernels<N>;
#endif
  return &baseline::kKernels<N>;
}

}  // namespace QuenloftSolver
