// SPDX-License-Identifier: MIT
//
// The widths of vectors for which selection_kernels_body.h is compiled, and the choice
// among them.

#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "solver/lanes_allowed.h"
#include "solver/selection_kernels.h"

namespace QuenloftSolver {

// Once for each kind of processor, with its number of lanes and what the compilers'
// vector types have no expression for.
#define QUENLOFT_TARGET
namespace baseline {
inline constexpr std::size_t kLanes = 4;
using Floats = float __attribute__((vector_size(4 * kLanes)));
using Ints = std::int32_t __attribute__((vector_size(4 * kLanes)));
using Doubles = double __attribute__((vector_size(4 * kLanes)));
using HalfInts = std::int32_t __attribute__((vector_size(2 * kLanes)));

inline std::uint32_t LanesReaching(const Floats& a, const Floats& b) {
#if defined(__x86_64__)
  return static_cast<std::uint32_t>(_mm_movemask_ps(_mm_cmpge_ps(a, b)));
#else
  std::uint32_t bits = 0;
  for (std::size_t j = 0; j < kLanes; ++j) bits |= std::uint32_t{a[j] >= b[j]} << j;
  return bits;
#endif
}
inline std::uint32_t LanesReaching(const Ints& a, const Ints& b) {
#if defined(__x86_64__)
  return 0xf ^ static_cast<std::uint32_t>(_mm_movemask_ps(reinterpret_cast<__m128>(b > a)));
#else
  std::uint32_t bits = 0;
  for (std::size_t j = 0; j < kLanes; ++j) bits |= std::uint32_t{a[j] >= b[j]} << j;
  return bits;
#endif
}
// Of 16-bit halves: the sum of the two products in each lane.
inline Ints PairProducts(const Ints& a, const Ints& b) {
#if defined(__x86_64__)
  return reinterpret_cast<Ints>(
      _mm_madd_epi16(reinterpret_cast<__m128i>(a), reinterpret_cast<__m128i>(b)));
#else
  return ((a << 16) >> 16) * ((b << 16) >> 16) + (a >> 16) * (b >> 16);
#endif
}
inline Ints AddPairProducts(const Ints& sum, const Ints& a, const Ints& b) {
  return sum + PairProducts(a, b);
}
inline Doubles SquareRoots(const Doubles& a) {
#if defined(__x86_64__)
  return _mm_sqrt_pd(a);
#else
  return Doubles{std::sqrt(a[0]), std::sqrt(a[1])};
#endif
}
// To the nearest whole numbers.
inline HalfInts Rounded(const Doubles& a) {
  return HalfInts{static_cast<std::int32_t>(std::lrint(a[0])),
                  static_cast<std::int32_t>(std::lrint(a[1]))};
}
// Coordinates k and k + 1 of so many points as there are lanes.
inline void LoadTwo(const double* const* points, std::size_t k, Doubles& first, Doubles& second) {
  first = Doubles{points[0][k], points[1][k]};
  second = Doubles{points[0][k + 1], points[1][k + 1]};
}
inline float LargestLane(const Floats& a) {
  const float low = a[0] > a[1] ? a[0] : a[1];
  const float high = a[2] > a[3] ? a[2] : a[3];
  return low > high ? low : high;
}
inline double LargestLane(const Doubles& a) { return a[0] > a[1] ? a[0] : a[1]; }
inline void AppendLanes(std::uint32_t lanes, std::uint32_t first, std::uint32_t* out) {
  for (; lanes != 0; lanes &= lanes - 1) {
    *out++ = first + static_cast<std::uint32_t>(__builtin_ctz(lanes));
  }
}
#include "solver/impl/selection_kernels_body.h"
}  // namespace baseline
#undef QUENLOFT_TARGET

#if defined(__x86_64__)
#define QUENLOFT_TARGET [[gnu::target("avx2,popcnt")]]
namespace avx2 {
inline constexpr std::size_t kLanes = 8;
using Floats = float __attribute__((vector_size(4 * kLanes)));
using Ints = std::int32_t __attribute__((vector_size(4 * kLanes)));
using Doubles = double __attribute__((vector_size(4 * kLanes)));
using HalfInts = std::int32_t __attribute__((vector_size(2 * kLanes)));

QUENLOFT_TARGET inline std::uint32_t LanesReaching(const Floats& a, const Floats& b) {
  return static_cast<std::uint32_t>(_mm256_movemask_ps(_mm256_cmp_ps(a, b, _CMP_GE_OQ)));
}
QUENLOFT_TARGET inline std::uint32_t LanesReaching(const Ints& a, const Ints& b) {
  return 0xff ^ static_cast<std::uint32_t>(_mm256_movemask_ps(reinterpret_cast<__m256>(b > a)));
}
QUENLOFT_TARGET inline Ints PairProducts(const Ints& a, const Ints& b) {
  return reinterpret_cast<Ints>(
      _mm256_madd_epi16(reinterpret_cast<__m256i>(a), reinterpret_cast<__m256i>(b)));
}
QUENLOFT_TARGET inline Ints AddPairProducts(const Ints& sum, const Ints& a, const Ints& b) {
  return sum + PairProducts(a, b);
}
QUENLOFT_TARGET inline Doubles SquareRoots(const Doubles& a) { return _mm256_sqrt_pd(a); }
QUENLOFT_TARGET inline HalfInts Rounded(const Doubles& a) {
  return reinterpret_cast<HalfInts>(_mm256_cvtpd_epi32(a));
}
QUENLOFT_TARGET [[gnu::always_inline]] inline __m256d TwoOfTwo(const double* first,
                                                               const double* second) {
  return _mm256_insertf128_pd(_mm256_castpd128_pd256(_mm_loadu_pd(first)), _mm_loadu_pd(second), 1);
}
QUENLOFT_TARGET [[gnu::always_inline]] inline void LoadTwo(const double* const* points,
                                                           std::size_t k, Doubles& first,
                                                           Doubles& second) {
  const __m256d even = TwoOfTwo(points[0] + k, points[2] + k);
  const __m256d odd = TwoOfTwo(points[1] + k, points[3] + k);
  first = _mm256_unpacklo_pd(even, odd);
  second = _mm256_unpackhi_pd(even, odd);
}
QUENLOFT_TARGET [[gnu::always_inline]] inline float LargestLane(const Floats& a) {
  __m128 half = _mm_max_ps(_mm256_castps256_ps128(a), _mm256_extractf128_ps(a, 1));
  half = _mm_max_ps(half, _mm_movehl_ps(half, half));
  return _mm_cvtss_f32(_mm_max_ss(half, _mm_movehdup_ps(half)));
}
QUENLOFT_TARGET [[gnu::always_inline]] inline double LargestLane(const Doubles& a) {
  const __m128d half = _mm_max_pd(_mm256_castpd256_pd128(a), _mm256_extractf128_pd(a, 1));
  return _mm_cvtsd_f64(_mm_max_sd(half, _mm_unpackhi_pd(half, half)));
}
using baseline::AppendLanes;
#include "solver/impl/selection_kernels_body.h"
}  // namespace avx2
#undef QUENLOFT_TARGET

#define QUENLOFT_TARGET [[gnu::target("avx512f,avx512bw,avx512dq,avx512vl,avx512vnni,popcnt")]]
namespace avx512 {
inline constexpr std::size_t kLanes = 16;
using Floats = float __attribute__((vector_size(4 * kLanes)));
using Ints = std::int32_t __attribute__((vector_size(4 * kLanes)));
using Doubles = double __attribute__((vector_size(4 * kLanes)));
using HalfInts = std::int32_t __attribute__((vector_size(2 * kLanes)));

QUENLOFT_TARGET inline std::uint32_t LanesReaching(const Floats& a, const Floats& b) {
  return _mm512_cmp_ps_mask(a, b, _CMP_GE_OQ);
}
QUENLOFT_TARGET inline std::uint32_t LanesReaching(const Ints& a, const Ints& b) {
  return _mm512_cmpge_epi32_mask(reinterpret_cast<__m512i>(a), reinterpret_cast<__m512i>(b));
}
QUENLOFT_TARGET inline Ints PairProducts(const Ints& a, const Ints& b) {
  return reinterpret_cast<Ints>(
      _mm512_madd_epi16(reinterpret_cast<__m512i>(a), reinterpret_cast<__m512i>(b)));
}
// In one instruction, which the first processors with vectors of this width lack.
QUENLOFT_TARGET inline Ints AddPairProducts(const Ints& sum, const Ints& a, const Ints& b) {
  return reinterpret_cast<Ints>(_mm512_dpwssd_epi32(
      reinterpret_cast<__m512i>(sum), reinterpret_cast<__m512i>(a), reinterpret_cast<__m512i>(b)));
}
// The masked forms, with every lane set: g++ 12 warns of its own header's unmasked ones.
QUENLOFT_TARGET inline Doubles SquareRoots(const Doubles& a) {
  return _mm512_maskz_sqrt_pd(0xff, a);
}
QUENLOFT_TARGET inline HalfInts Rounded(const Doubles& a) {
  return reinterpret_cast<HalfInts>(_mm512_maskz_cvtpd_epi32(0xff, a));
}
QUENLOFT_TARGET [[gnu::always_inline]] inline void LoadTwo(const double* const* points,
                                                           std::size_t k, Doubles& first,
                                                           Doubles& second) {
  __m256d low_first, low_second, high_first, high_second;
  avx2::LoadTwo(points, k, low_first, low_second);
  avx2::LoadTwo(points + 4, k, high_first, high_second);
  first = _mm512_maskz_insertf64x4(0xff, _mm512_castpd256_pd512(low_first), high_first, 1);
  second = _mm512_maskz_insertf64x4(0xff, _mm512_castpd256_pd512(low_second), high_second, 1);
}
QUENLOFT_TARGET inline float LargestLane(const Floats& a) {
  const auto* const halves = reinterpret_cast<const __m256*>(&a);
  return avx2::LargestLane(_mm256_max_ps(halves[0], halves[1]));
}
QUENLOFT_TARGET inline double LargestLane(const Doubles& a) {
  const auto* const halves = reinterpret_cast<const __m256d*>(&a);
  return avx2::LargestLane(_mm256_max_pd(halves[0], halves[1]));
}
QUENLOFT_TARGET inline void AppendLanes(std::uint32_t lanes, std::uint32_t first,
                                        std::uint32_t* out) {
  const __m512i numbers =
      _mm512_add_epi32(_mm512_set1_epi32(static_cast<int>(first)),
                       _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15));
  _mm512_storeu_si512(out, _mm512_maskz_compress_epi32(static_cast<__mmask16>(lanes), numbers));
}
#include "solver/impl/selection_kernels_body.h"
}  // namespace avx512
#undef QUENLOFT_TARGET
#endif

template <int N>
const SelectionKernels<N>* SelectionKernels<N>::Fastest() {
#if defined(__x86_64__)
  const int lanes = lanes_allowed;
  if (lanes >= 16 && __builtin_cpu_supports("popcnt") && __builtin_cpu_supports("avx512f") &&
      __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512dq") &&
      __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vnni")) {
    return &avx512::kKernels<N>;
  }
  if (lanes >= 8 && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("popcnt"))
    return &avx2::kKernels<N>;
#endif
  return &baseline::kKernels<N>;
}

}  // namespace QuenloftSolver
