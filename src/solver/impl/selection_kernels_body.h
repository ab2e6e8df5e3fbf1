// SPDX-License-Identifier: MIT
//
// The vector loops of neighbour selection. No include guard: selection_kernels.h
// includes it once for each kind of processor, in a namespace of its own that names
// the number of lanes, kLanes, and the way to turn a mask into bits, with
// QUENLOFT_TARGET naming the instructions to use. (Inlining one body into a function
// for each target would not do: the compiler splits wide vectors before it inlines.)

using Floats = float __attribute__((vector_size(4 * kLanes)));
using Masks = std::int32_t __attribute__((vector_size(4 * kLanes)));
using Doubles = double __attribute__((vector_size(4 * kLanes)));
using WideMasks = std::int64_t __attribute__((vector_size(4 * kLanes)));
inline constexpr std::size_t kDoubleLanes = kLanes / 2;

// Vectors of kLanes of which a block of candidates has kBlock / kLanes: where the rows
// of vector `v` stand, in a block of `row_count` rows of kBlock.
QUENLOFT_TARGET [[gnu::always_inline]] inline std::size_t VectorOffset(std::size_t v,
                                                                       std::size_t row_count,
                                                                       std::size_t lanes) {
  return v * lanes / kBlock * row_count * kBlock + v * lanes % kBlock;
}

// Appends to `out` the numbers first + j of the lanes j that are set; returns how many.
QUENLOFT_TARGET [[gnu::always_inline]] inline std::size_t AppendLanes(const Masks& is_set,
                                                                      std::uint32_t first,
                                                                      std::uint32_t* out) {
  std::size_t count = 0;
  for (std::uint32_t lanes = LaneBits(&is_set); lanes != 0; lanes &= lanes - 1) {
    out[count++] = first + static_cast<std::uint32_t>(__builtin_ctz(lanes));
  }
  return count;
}

QUENLOFT_TARGET [[gnu::always_inline]] inline float LargestLane(const Floats& lanes) {
  float values[kLanes];
  std::memcpy(values, &lanes, sizeof(values));
  for (std::size_t half = kLanes / 2; half > 0; half /= 2) {
    for (std::size_t j = 0; j < half; ++j) {
      values[j] = values[j] > values[j + half] ? values[j] : values[j + half];
    }
  }
  return values[0];
}

template <int N>
QUENLOFT_TARGET std::size_t FindNear(const NearTask<N>& task) {
  std::size_t count = 0;
  const std::size_t vectors = task.block_count * (kBlock / kLanes);
  for (std::size_t v = 0; v < vectors; ++v) {
    const float* rows = task.blocks + VectorOffset(v, N + 1, kLanes);
    Floats product = *reinterpret_cast<const Floats*>(rows) * task.origin[0];
    for (std::size_t k = 1; k < N; ++k) {
      product += *reinterpret_cast<const Floats*>(rows + k * kBlock) * task.origin[k];
    }
    const Floats half_square = *reinterpret_cast<const Floats*>(rows + N * kBlock);
    // False for the NaN that fills the last block up.
    count += AppendLanes(product - half_square >= Floats{} + task.least_product,
                         static_cast<std::uint32_t>(v * kLanes), task.near + count);
  }
  return count;
}

// Returns the least distance, kUnset if none is kept.
template <int N>
QUENLOFT_TARGET double FindDirections(const DirectionTask<N>& task) {
  Doubles least = Doubles{} + kUnset;
  const std::size_t vectors = task.block_count * (kBlock / kDoubleLanes);
  for (std::size_t v = 0; v < vectors; ++v) {
    const std::size_t offset = VectorOffset(v, N, kDoubleLanes);
    const double* difference = task.difference + offset;
    float* unit = task.unit + offset;
    Doubles square{};
    for (std::size_t k = 0; k < N; ++k) {
      const auto d = *reinterpret_cast<const Doubles*>(difference + k * kBlock);
      square += d * d;
    }
    Doubles root;
    for (std::size_t j = 0; j < kDoubleLanes; ++j) root[j] = std::sqrt(square[j]);
    const WideMasks is_kept = (root != 0.0) & (root <= Doubles{} + task.radius);
    const Doubles distance = is_kept ? root : Doubles{} + kUnset;
    *reinterpret_cast<Doubles*>(task.distance + v * kDoubleLanes) = distance;
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
  Masks first_vector{};
  const std::size_t trial_vectors = task.block_count * (kBlock / kLanes);
  const std::size_t vectors = trial_vectors + BlocksFor(2 * N) * (kBlock / kLanes);
  for (std::size_t v = 0; v < vectors; ++v) {
    Floats cosine{};
    if (v < trial_vectors) {
      const float* unit = task.unit + VectorOffset(v, N, kLanes);
      for (std::size_t k = 0; k < N; ++k) {
        cosine += *reinterpret_cast<const Floats*>(unit + k * kBlock) * task.chosen[k];
      }
    } else {
      cosine = *reinterpret_cast<const Floats*>(task.face_cosine + (v - trial_vectors) * kLanes);
    }
    auto& max_cosine = *reinterpret_cast<Floats*>(task.max_cosine + v * kLanes);
    const Floats weight = *reinterpret_cast<const Floats*>(task.weight + v * kLanes);
    const Floats largest = cosine > max_cosine ? cosine : max_cosine;
    max_cosine = largest;
    least = largest < least ? largest : least;
    const Floats room = 1.0f - largest;
    const Floats lower = (room - tolerance) * weight;
    const Floats upper = (room + tolerance) * weight + kUnderflow;
    *reinterpret_cast<Floats*>(task.upper + v * kLanes) = upper;
    threshold = lower > threshold ? lower : threshold;
    const Masks is_first = upper > first;
    const Floats loser = is_first ? first : upper;
    second = loser > second ? loser : second;
    first = is_first ? upper : first;
    first_vector = is_first ? Masks{} + static_cast<std::int32_t>(v) : first_vector;
  }

  UpdateResult result;
  result.least_cosine = -LargestLane(-least);
  result.threshold = LargestLane(threshold);
  const Masks reaches = first >= Floats{} + result.threshold;
  const Masks second_reaches = second >= Floats{} + result.threshold;
  const std::uint32_t reaching = LaneBits(&reaches);
  const int lane = __builtin_ctz(reaching | 1u << kLanes) % static_cast<int>(kLanes);
  result.is_single = (reaching & (reaching - 1)) == 0 && LaneBits(&second_reaches) == 0;
  result.contender =
      static_cast<std::size_t>(first_vector[lane]) * kLanes + static_cast<std::size_t>(lane);
  return result;
}

template <int N>
QUENLOFT_TARGET std::size_t FindContenders(const ContenderTask<N>& task) {
  std::size_t count = 0;
  const std::size_t vectors = task.block_count * (kBlock / kLanes);
  for (std::size_t v = 0; v < vectors; ++v) {
    const Floats upper = *reinterpret_cast<const Floats*>(task.upper + v * kLanes);
    count += AppendLanes(upper >= Floats{} + task.threshold, static_cast<std::uint32_t>(v * kLanes),
                         task.contenders + count);
  }
  return count;
}

template <int N>
QUENLOFT_TARGET void UpdateExact(const ExactTask<N>& task) {
  for (std::size_t first = 0; first < kBlock; first += kDoubleLanes) {
    const Doubles distance = *reinterpret_cast<const Doubles*>(task.distance + first);
    auto& max_cosine = *reinterpret_cast<Doubles*>(task.max_cosine + first);
    Doubles largest = max_cosine;
    for (int c = task.from; c < task.to; ++c) {
      const double* direction = task.directions + static_cast<std::size_t>(c) * N;
      Doubles dot{};
      for (std::size_t k = 0; k < N; ++k) {
        dot +=
            *reinterpret_cast<const Doubles*>(task.difference + k * kBlock + first) * direction[k];
      }
      const Doubles cosine = dot / (distance * task.distances[c]);
      largest = cosine > largest ? cosine : largest;
    }
    max_cosine = largest;
  }
}

template <int N>
inline constexpr SelectionKernels<N> kKernels = {FindNear<N>, FindDirections<N>, Update<N>,
                                                 FindContenders<N>, UpdateExact<N>};
