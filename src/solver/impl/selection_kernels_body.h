// SPDX-License-Identifier: MIT
//
// The vector loops of neighbour selection. No include guard: selection_kernels_impl.h
// includes it once for each kind of processor, in a namespace of its own that defines
// the number of lanes, kLanes, vectors of so many floats or half as many doubles, and
// the operations that the compilers' vector types lack, with QUENLOFT_TARGET naming the
// instructions to use. (Inlining one body into a function for each target would not
// do: the compiler splits wide vectors before it inlines.)

using HalfFloats = float __attribute__((vector_size(2 * kLanes)));
using HalfInts = std::int32_t __attribute__((vector_size(2 * kLanes)));
inline constexpr std::size_t kDoubleLanes = kLanes / 2;

// Vectors of `lanes` of which a block has kBlock / lanes: where the rows of vector `v`
// stand, in blocks of `row_count` rows of kBlock.
QUENLOFT_TARGET [[gnu::always_inline]] inline std::size_t VectorOffset(std::size_t v,
                                                                       std::size_t row_count,
                                                                       std::size_t lanes) {
  return v * lanes / kBlock * row_count * kBlock + v * lanes % kBlock;
}

template <typename Vector, typename Scalar>
QUENLOFT_TARGET [[gnu::always_inline]] inline Vector& At(Scalar* first) {
  return *reinterpret_cast<Vector*>(first);
}

template <int N>
QUENLOFT_TARGET std::size_t FindNear(const NearTask<N>& task) {
  constexpr std::size_t kPairs = CandidateColumns<N>::kPairs;
  Ints origin[kPairs];
  for (std::size_t k = 0; k < kPairs; ++k) origin[k] = Ints{} + task.origin[k];
  const std::int32_t* const blocks = task.blocks;
  std::uint32_t* near = task.near;
  const Ints least_product = Ints{} + task.least_product;
  const std::size_t vectors = task.block_count * (kBlock / kLanes);
  for (std::size_t v = 0; v < vectors; ++v) {
    const std::int32_t* rows = blocks + VectorOffset(v, kPairs + 1, kLanes);
    Ints product = At<const Ints>(rows + kPairs * kBlock);
    for (std::size_t k = 0; k < kPairs; ++k) {
      product += PairProducts(At<const Ints>(rows + k * kBlock), origin[k]);
    }
    const std::uint32_t lanes = LanesReaching(product, least_product);
    AppendLanes(lanes, static_cast<std::uint32_t>(v * kLanes), near);
    near += __builtin_popcount(lanes);
  }
  return static_cast<std::size_t>(near - task.near);
}

// To the nearest whole number, of what lies in [-kUnit, kUnit].
QUENLOFT_TARGET [[gnu::always_inline]] inline HalfInts Rounded(const Doubles& a) {
  return __builtin_convertvector(a + (kUnit + 0.5), HalfInts) - kUnit;
}

template <int N>
QUENLOFT_TARGET MeasureResult Measure(const MeasureTask<N>& task) {
  Doubles place{};
  for (std::size_t j = 0; j < kDoubleLanes; ++j) place[j] = static_cast<double>(j);
  const std::size_t vectors = task.block_count * (kBlock / kDoubleLanes);
  Doubles smallest = Doubles{} + kUnset;
  for (std::size_t v = 0; v < vectors; ++v) {
    const double* difference = task.difference + VectorOffset(v, N, kDoubleLanes);
    Doubles square{};
    for (std::size_t k = 0; k < N; ++k) {
      const Doubles d = At<const Doubles>(difference + k * kBlock);
      square += d * d;
    }
    const Doubles root = SquareRoots(square);
    const auto is_trial = place + static_cast<double>(v * kDoubleLanes) >= 2.0 * N;
    const auto is_kept = is_trial & (root != 0.0) & (root <= Doubles{} + task.radius);
    const Doubles distance = is_kept ? root : Doubles{} + kUnset;
    At<Doubles>(task.distance + v * kDoubleLanes) = distance;
    smallest = distance < smallest ? distance : smallest;
  }
  double least = kUnset;
  for (std::size_t j = 0; j < kDoubleLanes; ++j) {
    least = smallest[j] < least ? smallest[j] : least;
  }
  MeasureResult result{kNoRecord, true};
  if (least != kUnset) {
    result.nearest_trial = 2 * N;
    while (task.distance[result.nearest_trial] != least) ++result.nearest_trial;
  }
  for (std::size_t face = 0; face < 2 * N; ++face) {
    const double distance = task.face_distance[face];
    task.distance[face] = distance;
    least = distance < least ? distance : least;
  }
  result.is_trusted = !(least < kLeastDistance);

  const Doubles unit = Doubles{} + (result.is_trusted ? static_cast<double>(kUnit) : 0.0);
  const double least_of_unit = least / kUnit;
  const HalfFloats doubt_of_one = HalfFloats{} + 2.0f * static_cast<float>(Tolerance<N>());
  const HalfFloats least_weight = HalfFloats{} + kLeastWeight;
  for (std::size_t v = 0; v < vectors; ++v) {
    const std::size_t first = v * kDoubleLanes;
    const Doubles distance = At<const Doubles>(task.distance + first);
    const auto is_kept = distance != kUnset;
    const Doubles inverse = is_kept ? unit / distance : Doubles{};
    const auto is_trial = place + static_cast<double>(first) >= 2.0 * N;
    const Doubles weight_of_inverse =
        is_trial ? Doubles{} + least_of_unit : Doubles{} + 0.5 * least_of_unit;
    const HalfFloats weight = __builtin_convertvector(inverse * weight_of_inverse, HalfFloats);
    const HalfInts kept = __builtin_convertvector(is_kept, HalfInts);
    const HalfInts is_lost = weight < least_weight;
    At<HalfFloats>(task.weight + first) = kept ? (is_lost ? least_weight : weight) : HalfFloats{};
    At<HalfFloats>(task.doubt + first) = is_lost ? HalfFloats{} + kAllDoubt : doubt_of_one * weight;
    At<HalfInts>(task.max_cosine + first) = kept ? HalfInts{} : HalfInts{} + kGone;
    const double* difference = task.difference + VectorOffset(v, N, kDoubleLanes);
    std::int32_t* pairs = task.unit + VectorOffset(v, (N + 1) / 2, kDoubleLanes);
    for (std::size_t k = 0; k < N; k += 2) {
      const HalfInts low = Rounded(At<const Doubles>(difference + k * kBlock) * inverse);
      HalfInts pair = low & 0xffff;
      if (k + 1 < N) {
        pair |= Rounded(At<const Doubles>(difference + (k + 1) * kBlock) * inverse) << 16;
      }
      At<HalfInts>(pairs + k / 2 * kBlock) = pair;
    }
  }
  return result;
}

// Brings the records up to date with the directions chosen since, and finds the largest
// lower bound. One direction, as most often, stays in registers. (What marks the chosen ones
// as gone is a comparison: a vector loaded right after one of its lanes was stored would
// wait for the store.)
template <int N>
QUENLOFT_TARGET [[gnu::always_inline]] inline float Update(const ChoiceTask<N>& task) {
  constexpr std::size_t kPairs = (N + 1) / 2;
  const std::uint32_t* chosen = task.chosen + task.applied_count;
  const int count = task.chosen_count - task.applied_count;
  const auto direction_of = [&task](std::size_t record) {
    return task.unit + record / kBlock * kPairs * kBlock + record % kBlock;
  };
  const std::int32_t* first = direction_of(chosen[0]);
  Ints direction[kPairs];
  for (std::size_t k = 0; k < kPairs; ++k) direction[k] = Ints{} + first[k * kBlock];

  Ints place{};
  for (std::size_t j = 0; j < kLanes; ++j) place[j] = static_cast<std::int32_t>(j);
  const Ints one = Ints{} + (kCosineOfOne + Tolerance<N>());
  Floats threshold = Floats{} - kAllDoubt;
  const std::size_t vectors = task.block_count * (kBlock / kLanes);
  for (std::size_t v = 0; v < vectors; ++v) {
    const std::int32_t* unit = task.unit + VectorOffset(v, kPairs, kLanes);
    Ints cosine = PairProducts(At<const Ints>(unit), direction[0]);
    for (std::size_t k = 1; k < kPairs; ++k) {
      cosine += PairProducts(At<const Ints>(unit + k * kBlock), direction[k]);
    }
    Ints& max_cosine = At<Ints>(task.max_cosine + v * kLanes);
    Ints largest = cosine > max_cosine ? cosine : max_cosine;
    largest = place == static_cast<std::int32_t>(chosen[0]) ? Ints{} + kGone : largest;
    for (int i = 1; i < count; ++i) {
      const std::int32_t* other = direction_of(chosen[i]);
      cosine = PairProducts(At<const Ints>(unit), Ints{} + other[0]);
      for (std::size_t k = 1; k < kPairs; ++k) {
        cosine += PairProducts(At<const Ints>(unit + k * kBlock), Ints{} + other[k * kBlock]);
      }
      largest = cosine > largest ? cosine : largest;
      largest = place == static_cast<std::int32_t>(chosen[i]) ? Ints{} + kGone : largest;
    }
    max_cosine = largest;
    place += static_cast<std::int32_t>(kLanes);
    const Floats room = __builtin_convertvector(one - largest, Floats);
    const Floats upper = room * At<const Floats>(task.weight + v * kLanes);
    At<Floats>(task.upper + v * kLanes) = upper;
    const Floats lower = upper - At<const Floats>(task.doubt + v * kLanes);
    threshold = lower > threshold ? lower : threshold;
  }
  return LargestLane(threshold);
}

// The first record whose direction is surely free, or kNoRecord.
template <int N>
QUENLOFT_TARGET [[gnu::always_inline]] inline std::size_t FindFree(const ChoiceTask<N>& task) {
  for (std::size_t record = 0; record < task.block_count * kBlock; ++record) {
    if (task.max_cosine[record] < task.free_below) return record;
  }
  return kNoRecord;
}

template <int N>
QUENLOFT_TARGET Pause Choose(ChoiceTask<N>& task) {
  while (task.chosen_count < 3 * N) {
    const float threshold = Update(task);
    task.applied_count = task.chosen_count;
    task.threshold = threshold;

    if (!(task.max_cosine[task.free_record] < task.free_below)) {
      const std::size_t free_record = FindFree(task);
      if (free_record == kNoRecord) return Pause::kFewAreFree;
      task.free_record = static_cast<std::uint32_t>(free_record);
    }

    const Floats reached = Floats{} + threshold;
    std::size_t contender = 0;
    int contender_count = 0;
    for (std::size_t first = 0; first < task.block_count * kBlock; first += kLanes) {
      const std::uint32_t lanes = LanesReaching(At<const Floats>(task.upper + first), reached);
      contender_count += __builtin_popcount(lanes);
      contender = lanes != 0 ? first + static_cast<std::size_t>(__builtin_ctz(lanes)) : contender;
    }
    if (contender_count != 1 || !(threshold > 0.0f)) return Pause::kAmbiguous;
    task.chosen[task.chosen_count++] = static_cast<std::uint32_t>(contender);
  }
  return Pause::kFull;
}

QUENLOFT_TARGET inline std::size_t FindContenders(const ContenderTask& task) {
  std::uint32_t* contenders = task.contenders;
  const Floats reached = Floats{} + task.threshold;
  for (std::size_t first = 0; first < task.block_count * kBlock; first += kLanes) {
    const std::uint32_t lanes = LanesReaching(At<const Floats>(task.upper + first), reached);
    if (lanes == 0) continue;
    AppendLanes(lanes, static_cast<std::uint32_t>(first), contenders);
    contenders += __builtin_popcount(lanes);
  }
  return static_cast<std::size_t>(contenders - task.contenders);
}

template <int N>
QUENLOFT_TARGET void RaiseCosines(const CosineTask<N>& task) {
  const auto end = static_cast<std::size_t>(task.chosen_count);
  const std::size_t begin = static_cast<std::size_t>(task.from) / kDoubleLanes * kDoubleLanes;
  for (std::size_t i = 0; i < task.record_count; ++i) {
    const std::size_t record = task.records[i];
    const double* difference = task.difference + record / kBlock * N * kBlock + record % kBlock;
    const double distance = task.distance[record];
    Doubles largest = Doubles{} + task.largest[i];
    for (std::size_t first = begin; first < end; first += kDoubleLanes) {
      Doubles dot{};
      for (std::size_t k = 0; k < N; ++k) {
        dot += At<const Doubles>(task.chosen_difference + k * task.kRow + first) *
               difference[k * kBlock];
      }
      const Doubles cosine = dot / (At<const Doubles>(task.chosen_distance + first) * distance);
      largest = cosine > largest ? cosine : largest;
    }
    task.largest[i] = LargestLane(largest);
  }
}

template <int N>
inline constexpr SelectionKernels<N> kKernels = {FindNear<N>, Measure<N>, Choose<N>, FindContenders,
                                                 RaiseCosines<N>};
