// SPDX-License-Identifier: MIT
//
// The vector loops of neighbour selection. No include guard: selection_kernels_impl.h
// includes it once for each kind of processor, in a namespace of its own, with
// QUENLOFT_TARGET naming the instructions to use. (Inlining one body into a function
// for each target would not do: the compiler splits wide vectors before it inlines.)

// Appends to `out` the numbers first + j of the lanes j that are set; returns how many.
QUENLOFT_TARGET [[gnu::always_inline]] inline std::size_t AppendLanes(const Masks& is_set,
                                                                      std::uint32_t first,
                                                                      std::uint32_t* out) {
  std::size_t count = 0;
  for (std::uint32_t lanes = LaneBits(is_set); lanes != 0; lanes &= lanes - 1) {
    out[count++] = first + static_cast<std::uint32_t>(__builtin_ctz(lanes));
  }
  return count;
}

template <int N>
QUENLOFT_TARGET std::size_t FindNear(const NearTask<N>& task) {
  std::size_t count = 0;
  for (std::size_t b = 0; b < task.block_count; ++b) {
    const auto* block = reinterpret_cast<const Floats*>(task.blocks + b * (N + 1) * kBlock);
    Floats product = block[0] * task.origin[0];
    for (int k = 1; k < N; ++k) product += block[k] * task.origin[k];
    // False for the NaN that fills the last block up.
    count += AppendLanes(product - block[N] >= Floats{} + task.least_product,
                         static_cast<std::uint32_t>(b * kBlock), task.near + count);
  }
  return count;
}

QUENLOFT_TARGET [[gnu::always_inline]] inline float LargestLane(const Floats& lanes) {
  using Eight = float __attribute__((vector_size(32)));
  using Four = float __attribute__((vector_size(16)));
  Eight eight[2];
  std::memcpy(eight, &lanes, sizeof(eight));
  eight[0] = eight[0] > eight[1] ? eight[0] : eight[1];
  Four four[2];
  std::memcpy(four, &eight[0], sizeof(four));
  four[0] = four[0] > four[1] ? four[0] : four[1];
  const float a = four[0][0] > four[0][1] ? four[0][0] : four[0][1];
  const float b = four[0][2] > four[0][3] ? four[0][2] : four[0][3];
  return a > b ? a : b;
}

// Returns the least distance, kUnset if none is kept.
template <int N>
QUENLOFT_TARGET double FindDirections(const DirectionTask<N>& task) {
  Doubles least = Doubles{} + kUnset;
  for (std::size_t half = 0; half < 2 * task.block_count; ++half) {
    const std::size_t in_block = half % 2 * kDoubleLanes;
    const double* difference = task.difference + half / 2 * N * kBlock + in_block;
    float* unit = task.unit + half / 2 * N * kBlock + in_block;
    Doubles square{};
    for (std::size_t k = 0; k < N; ++k) {
      const auto d = *reinterpret_cast<const Doubles*>(difference + k * kBlock);
      square += d * d;
    }
    Doubles root;
    for (std::size_t j = 0; j < kDoubleLanes; ++j) root[j] = std::sqrt(square[j]);
    const WideMasks is_kept = (root != 0.0) & (root <= Doubles{} + task.radius);
    const Doubles distance = is_kept ? root : Doubles{} + kUnset;
    *reinterpret_cast<Doubles*>(task.distance + half * kDoubleLanes) = distance;
    least = distance < least ? distance : least;
    const Doubles inverse = 1.0 / distance;
    for (std::size_t k = 0; k < N; ++k) {
      const auto d = *reinterpret_cast<const Doubles*>(difference + k * kBlock);
      const Doubles component = d * inverse;
      for (std::size_t j = 0; j < kDoubleLanes; ++j) {
        unit[k * kBlock + j] = static_cast<float>(component[j]);
      }
    }
  }
  double result = kUnset;
  for (std::size_t j = 0; j < kDoubleLanes; ++j) result = least[j] < result ? least[j] : result;
  return result;
}

template <int N>
QUENLOFT_TARGET UpdateResult Update(const UpdateTask<N>& task) {
  const Floats tolerance = Floats{} + kTolerance<N>;
  Floats least = Floats{} + kGone;
  Floats threshold = Floats{} - 1e30f;
  Floats first = threshold;
  Floats second = threshold;
  Masks first_block{};
  const std::size_t block_count = task.block_count + BlocksFor(2 * N);
  for (std::size_t b = 0; b < block_count; ++b) {
    Floats cosine{};
    if (b < task.block_count) {
      const auto* unit = reinterpret_cast<const Floats*>(task.unit + b * N * kBlock);
      for (int k = 0; k < N; ++k) cosine += unit[k] * task.chosen[k];
    } else {
      cosine = *reinterpret_cast<const Floats*>(task.face_cosine + (b - task.block_count) * kBlock);
    }
    auto& max_cosine = *reinterpret_cast<Floats*>(task.max_cosine + b * kBlock);
    const Floats weight = *reinterpret_cast<const Floats*>(task.weight + b * kBlock);
    const Floats largest = cosine > max_cosine ? cosine : max_cosine;
    max_cosine = largest;
    least = largest < least ? largest : least;
    const Floats room = 1.0f - largest;
    const Floats lower = (room - tolerance) * weight;
    const Floats upper = (room + tolerance) * weight + kUnderflow;
    *reinterpret_cast<Floats*>(task.upper + b * kBlock) = upper;
    threshold = lower > threshold ? lower : threshold;
    const Masks is_first = upper > first;
    const Floats loser = is_first ? first : upper;
    second = loser > second ? loser : second;
    first = is_first ? upper : first;
    first_block = is_first ? Masks{} + static_cast<std::int32_t>(b) : first_block;
  }

  UpdateResult result;
  result.least_cosine = -LargestLane(-least);
  result.threshold = LargestLane(threshold);
  const std::uint32_t reaching = LaneBits(first >= Floats{} + result.threshold);
  const std::uint32_t reaching_second = LaneBits(second >= Floats{} + result.threshold);
  const int lane = __builtin_ctz(reaching | 1u << kBlock) % static_cast<int>(kBlock);
  result.is_single = (reaching & (reaching - 1)) == 0 && reaching_second == 0;
  result.contender =
      static_cast<std::size_t>(first_block[lane]) * kBlock + static_cast<std::size_t>(lane);
  return result;
}

template <int N>
QUENLOFT_TARGET std::size_t FindContenders(const ContenderTask<N>& task) {
  std::size_t count = 0;
  for (std::size_t b = 0; b < task.block_count; ++b) {
    const Floats upper = *reinterpret_cast<const Floats*>(task.upper + b * kBlock);
    count += AppendLanes(upper >= Floats{} + task.threshold, static_cast<std::uint32_t>(b * kBlock),
                         task.contenders + count);
  }
  return count;
}

template <int N>
inline constexpr SelectionKernels<N> kKernels = {FindNear<N>, FindDirections<N>, Update<N>,
                                                 FindContenders<N>};
