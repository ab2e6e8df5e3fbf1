// SPDX-License-Identifier: MIT
//
// Distances from one point to blocks of candidates, with the widest vectors that
// the processor has. Every path does the same operations in the same order on each
// candidate, so all give the same bits.

#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>

#include "solver/candidate_columns.h"
#include "solver/constants.h"

namespace QuenloftSolver {

template <int N>
struct MeasureTask {
  const double* blocks;  // as in CandidateColumns
  std::size_t block_count;
  const double* origin;  // N coordinates
  double radius;
  double* distance;       // out: kBlock a block; kUnset beyond the radius, and at distance 0
  double* block_minimum;  // out: one a block
};

template <int N>
[[gnu::always_inline]] inline void MeasureBody(const MeasureTask<N>& task) {
  double origin[N];
  std::copy_n(task.origin, N, origin);
  // sqrt is monotonic, so a square above this one has a root above the radius; the
  // margin covers the rounding of both. Most blocks need no root at all.
  const double largest_square = task.radius * task.radius * (1.0 + 1e-15);
  for (std::size_t b = 0; b < task.block_count; ++b) {
    const double* block = task.blocks + b * N * kBlock;
    double* distance = task.distance + b * kBlock;
    double square[kBlock];
    int near = 0;
#pragma omp simd reduction(+ : near)
    for (std::size_t j = 0; j < kBlock; ++j) {
      double sum = 0.0;
      for (int k = 0; k < N; ++k) {
        const double difference = block[static_cast<std::size_t>(k) * kBlock + j] - origin[k];
        sum += difference * difference;
      }
      square[j] = sum;
      near += sum <= largest_square ? 1 : 0;
    }
    double minimum = kUnset;
    if (near == 0) {
      std::fill_n(distance, kBlock, kUnset);
    } else {
#pragma omp simd reduction(min : minimum)
      for (std::size_t j = 0; j < kBlock; ++j) {
        const double root = std::sqrt(square[j]);
        const double kept = ((root != 0.0) & (root <= task.radius)) ? root : kUnset;
        distance[j] = kept;
        minimum = kept < minimum ? kept : minimum;
      }
    }
    task.block_minimum[b] = minimum;
  }
}

template <int N>
void MeasureBaseline(const MeasureTask<N>& task) {
  MeasureBody(task);
}

#if defined(__x86_64__)
template <int N>
[[gnu::target("avx2")]] void MeasureAvx2(const MeasureTask<N>& task) {
  MeasureBody(task);
}

// clang++ knows no preferred width here; it chooses one itself.
#if defined(__clang__)
#define QUENLOFT_AVX512 "avx512f,avx512dq"
#else
#define QUENLOFT_AVX512 "avx512f,avx512dq,prefer-vector-width=512"
#endif
template <int N>
[[gnu::target(QUENLOFT_AVX512)]] void MeasureAvx512(const MeasureTask<N>& task) {
  MeasureBody(task);
}
#endif

template <int N>
using MeasureFunction = void (*)(const MeasureTask<N>&);

template <int N>
MeasureFunction<N> FastestMeasure() {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq")) {
    return MeasureAvx512<N>;
  }
  if (__builtin_cpu_supports("avx2")) return MeasureAvx2<N>;
#endif
  return MeasureBaseline<N>;
}

}  // namespace QuenloftSolver
