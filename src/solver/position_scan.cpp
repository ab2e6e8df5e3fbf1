// SPDX-License-Identifier: MIT

#include "solver/position_scan.h"

#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "solver/lanes_allowed.h"

namespace QuenloftSolver {
namespace {

using Lanes = std::uint32_t __attribute__((vector_size(16)));
constexpr std::size_t kVectors = 4;
constexpr std::size_t kHalf = kVectors * sizeof(Lanes) / sizeof(std::uint32_t);

// Which lanes of kVectors vectors are set. All bits of a lane are alike.
std::uint32_t SetLanes(const Lanes* lanes) {
#if defined(__x86_64__)
  const auto* const v = reinterpret_cast<const __m128i*>(lanes);
  return static_cast<std::uint32_t>(
      _mm_movemask_epi8(_mm_packs_epi16(_mm_packs_epi32(v[0], v[1]), _mm_packs_epi32(v[2], v[3]))));
#else
  std::uint32_t bits = 0;
  for (std::size_t j = 0; j < kHalf; ++j) bits |= (lanes[j / 4][j % 4] & 1) << j;
  return bits;
#endif
}

std::uint32_t Scan(const std::uint32_t* positions, const std::uint32_t* sought, std::size_t count) {
  std::uint32_t bits = 0;
  for (std::size_t half = 0; half < kScanned; half += kHalf) {
    Lanes block[kVectors];
    for (std::size_t v = 0; v < kVectors; ++v) {
      std::memcpy(&block[v], positions + half + 4 * v, sizeof(Lanes));
    }
    Lanes equal[kVectors] = {};
    for (std::size_t i = 0; i < count; ++i) {
      const Lanes position = Lanes{} + sought[i];
      for (std::size_t v = 0; v < kVectors; ++v) {
        equal[v] |= reinterpret_cast<Lanes>(block[v] == position);
      }
    }
    bits |= SetLanes(equal) << half;
  }
  return bits;
}

#if defined(__x86_64__)
// Still wider vectors would do no better where they take two passes.
[[gnu::target("avx2")]] std::uint32_t ScanWide(const std::uint32_t* positions,
                                               const std::uint32_t* sought, std::size_t count) {
  const auto* const block = reinterpret_cast<const __m256i*>(positions);
  const __m256i a = _mm256_loadu_si256(block);
  const __m256i b = _mm256_loadu_si256(block + 1);
  const __m256i c = _mm256_loadu_si256(block + 2);
  const __m256i d = _mm256_loadu_si256(block + 3);
  __m256i equal_a = _mm256_setzero_si256();
  __m256i equal_b = equal_a;
  __m256i equal_c = equal_a;
  __m256i equal_d = equal_a;
  for (std::size_t i = 0; i < count; ++i) {
    const __m256i position = _mm256_set1_epi32(static_cast<std::int32_t>(sought[i]));
    equal_a = _mm256_or_si256(equal_a, _mm256_cmpeq_epi32(a, position));
    equal_b = _mm256_or_si256(equal_b, _mm256_cmpeq_epi32(b, position));
    equal_c = _mm256_or_si256(equal_c, _mm256_cmpeq_epi32(c, position));
    equal_d = _mm256_or_si256(equal_d, _mm256_cmpeq_epi32(d, position));
  }
  // A byte each. Packing takes four at a time from the lower and the upper halves in turn.
  const __m256i bytes = _mm256_packs_epi16(_mm256_packs_epi32(equal_a, equal_b),
                                           _mm256_packs_epi32(equal_c, equal_d));
  const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
  return static_cast<std::uint32_t>(
      _mm256_movemask_epi8(_mm256_permutevar8x32_epi32(bytes, order)));
}
#endif

}  // namespace

PositionScan FastestPositionScan() {
#if defined(__x86_64__)
  const bool is_wide = lanes_allowed >= 8 && __builtin_cpu_supports("avx2");
  if (is_wide) return ScanWide;
#endif
  return Scan;
}

}  // namespace QuenloftSolver
