// SPDX-License-Identifier: MIT
//
// The vector loops of neighbour selection. No include guard: selection_kernels_impl.h
// includes it once for each kind of processor, in a namespace of its own that defines
// the number of lanes, kLanes, vectors of so many floats or integers, of half as many doubles
// or integers, and the operations that the compilers' vector types lack, with
// QUENLOFT_TARGET naming the instructions to use. (Inlining one body into a function for each
// target would not do: the compiler splits wide vectors before it inlines.)

using HalfFloats = float __attribute__((vector_size(2 * kLanes)));
inline constexpr std::size_t kDoubleLanes = kLanes / 2;

template <typename Vector, typename Scalar>
QUENLOFT_TARGET [[gnu::always_inline]] inline Vector& At(Scalar* first) {
  return *reinterpret_cast<Vector*>(first);
}

template <int N>
QUENLOFT_TARGET std::size_t FindNear(const NearTask<N>& task) {
  constexpr std::size_t kPairs = GridPoint<N>::kPairs;
  Ints origin[kPairs];
  for (std::size_t k = 0; k < kPairs; ++k) origin[k] = Ints{} + task.origin[k];
  const std::int32_t* const blocks = task.blocks;
  std::uint32_t* near = task.near;
  const Ints least_product = Ints{} + task.least_product;
  const std::size_t vectors = task.block_count * (kBlock / kLanes);
  for (std::size_t v = 0; v < vectors; ++v) {
    const std::int32_t* rows = blocks + OffsetOf(v * kLanes, kPairs + 1);
    Ints product = At<const Ints>(rows + kPairs * kBlock);
    for (std::size_t k = 0; k < kPairs; ++k) {
      product = AddPairProducts(product, At<const Ints>(rows + k * kBlock), origin[k]);
    }
    const std::uint32_t lanes = LanesReaching(product, least_product);
    AppendLanes(lanes, static_cast<std::uint32_t>(v * kLanes), near);
    near += __builtin_popcount(lanes);
  }
  return static_cast<std::size_t>(near - task.near);
}

// Coordinate k of so many points as there are lanes, and the next one if there is one.
template <int N>
QUENLOFT_TARGET [[gnu::always_inline]] inline void LoadCoordinates(const double* const* points,
                                                                   std::size_t k, Doubles& first,
                                                                   Doubles& second) {
  if constexpr (N == 1) {
    for (std::size_t j = 0; j < kDoubleLanes; ++j) first[j] = points[j][0];
  } else if (k + 1 < N) {
    LoadTwo(points, k, first, second);
  } else {
    LoadTwo(points, k - 1, second, first);
  }
}

// Faces stand in vectors of their own, but for one that trials may share. What depends on
// no other record is given of them.
//
// The plain way copies each point's differences into the rows, number by number, before the
// sums over them: 1,120 stores a table at N = 8. Here points are turned into rows in
// registers, two coordinates at a time, and the sums take them from there; they are the
// same sums. A search at N = 8 took 6 % less (AMD EPYC, g++ 12).
template <int N>
QUENLOFT_TARGET MeasureResult Measure(const MeasureTask<N>& task) {
  constexpr std::size_t kFaceVectors = 2 * N / kDoubleLanes;
  constexpr bool kIsOneShared = 2 * N % kDoubleLanes != 0;
  const std::size_t vectors = task.block_count * (kBlock / kDoubleLanes);
  Doubles record{};
  for (std::size_t j = 0; j < kDoubleLanes; ++j) {
    record[j] = static_cast<double>(kFaceVectors * kDoubleLanes + j);
  }
  const auto is_trial = record >= 2.0 * N;  // in the shared vector

  Doubles origin[N];
  for (std::size_t k = 0; k < N; ++k) origin[k] = Doubles{} + task.origin[k];
  const Doubles radius = Doubles{} + task.radius;
  Doubles smallest = Doubles{} + kUnset;
  Doubles nearest{};
  for (std::size_t v = kFaceVectors; v < vectors; ++v) {
    const bool is_shared = kIsOneShared && v == kFaceVectors;
    double* difference = task.difference + OffsetOf(v * kDoubleLanes, N);
    Doubles square{};
    for (std::size_t k = 0; k < N; k += 2) {
      Doubles d{};
      Doubles next{};
      LoadCoordinates<N>(task.points + v * kDoubleLanes, k, d, next);
      d -= origin[k];
      square += d * d;
      Doubles* row = &At<Doubles>(difference + k * kBlock);
      *row = is_shared ? (is_trial ? d : *row) : d;
      if (k + 1 == N) break;
      next -= origin[k + 1];
      square += next * next;
      row = &At<Doubles>(difference + (k + 1) * kBlock);
      *row = is_shared ? (is_trial ? next : *row) : next;
    }
    const Doubles root = SquareRoots(square);
    const auto is_kept = (root != 0.0) & (root <= radius);
    const Doubles distance = (is_shared ? is_kept & is_trial : is_kept) ? root : Doubles{} + kUnset;
    Doubles* out = &At<Doubles>(task.distance + v * kDoubleLanes);
    *out = is_shared ? (is_trial ? distance : *out) : distance;
    nearest = distance < smallest ? record : nearest;
    smallest = distance < smallest ? distance : smallest;
    record += static_cast<double>(kDoubleLanes);
  }
  MeasureResult result{kNoRecord, true};
  const double least_of_trials = -LargestLane(-smallest);
  if (least_of_trials != kUnset) {
    const Doubles place = smallest == least_of_trials ? nearest : Doubles{} + kUnset;
    result.nearest_trial = static_cast<std::size_t>(-LargestLane(-place));
  }
  const double least = least_of_trials < task.nearest_face ? least_of_trials : task.nearest_face;
  result.is_trusted = !(least < kLeastDistance);

  const Doubles unit = Doubles{} + (result.is_trusted ? static_cast<double>(kUnit) : 0.0);
  const Doubles of_trial = Doubles{} + least / kUnit;
  const Doubles of_face = 0.5 * of_trial;
  const HalfFloats doubt_of_one = HalfFloats{} + 2.0f * static_cast<float>(Tolerance<N>());
  const HalfFloats least_weight = HalfFloats{} + kLeastWeight;
  for (std::size_t v = 0; v < vectors; ++v) {
    const std::size_t first = v * kDoubleLanes;
    const Doubles distance = At<const Doubles>(task.distance + first);
    const auto is_kept = distance != kUnset;
    const Doubles inverse = is_kept ? unit / distance : Doubles{};
    Doubles weight_of_inverse = v < kFaceVectors ? of_face : of_trial;
    if (kIsOneShared && v == kFaceVectors) weight_of_inverse = is_trial ? of_trial : of_face;
    const HalfFloats weight = __builtin_convertvector(inverse * weight_of_inverse, HalfFloats);
    const HalfInts is_lost = weight < least_weight;
    At<HalfFloats>(task.weight + first) = is_lost ? least_weight : weight;
    At<HalfFloats>(task.doubt + first) = is_lost ? HalfFloats{} + kAllDoubt : doubt_of_one * weight;
    const Doubles max_cosine = is_kept ? Doubles{} : Doubles{} + static_cast<double>(kGone);
    At<HalfInts>(task.max_cosine + first) = __builtin_convertvector(max_cosine, HalfInts);
    if (v < kFaceVectors) continue;
    const double* difference = task.difference + OffsetOf(v * kDoubleLanes, N);
    std::int32_t* pairs = task.unit + OffsetOf(v * kDoubleLanes, GridPoint<N>::kPairs);
    for (std::size_t k = 0; k < N; k += 2) {
      HalfInts pair = Rounded(At<const Doubles>(difference + k * kBlock) * inverse) & 0xffff;
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
  constexpr std::size_t kPairs = GridPoint<N>::kPairs;
  const std::uint32_t* chosen = task.chosen + task.applied_count;
  const int count = task.chosen_count - task.applied_count;
  const auto direction_of = [&task](std::size_t record) {
    return task.unit + OffsetOf(record, kPairs);
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
    const std::int32_t* unit = task.unit + OffsetOf(v * kLanes, kPairs);
    Ints cosine = PairProducts(At<const Ints>(unit), direction[0]);
    for (std::size_t k = 1; k < kPairs; ++k) {
      cosine = AddPairProducts(cosine, At<const Ints>(unit + k * kBlock), direction[k]);
    }
    Ints& max_cosine = At<Ints>(task.max_cosine + v * kLanes);
    Ints largest = cosine > max_cosine ? cosine : max_cosine;
    largest = place == static_cast<std::int32_t>(chosen[0]) ? Ints{} + kGone : largest;
    for (int i = 1; i < count; ++i) {
      const std::int32_t* other = direction_of(chosen[i]);
      cosine = PairProducts(At<const Ints>(unit), Ints{} + other[0]);
      for (std::size_t k = 1; k < kPairs; ++k) {
        cosine =
            AddPairProducts(cosine, At<const Ints>(unit + k * kBlock), Ints{} + other[k * kBlock]);
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

// The records whose upper bound reaches the threshold, trials before faces.
template <int N>
QUENLOFT_TARGET [[gnu::always_inline]] inline std::size_t FindContenders(
    const ChoiceTask<N>& choice, std::uint32_t* contenders) {
  constexpr std::size_t kFaces = 2 * N;
  constexpr std::uint32_t kFaceLanes = (1u << kFaces % kLanes) - 1;  // of the first mixed vector
  const Floats reached = Floats{} + choice.threshold;
  std::uint32_t* end = contenders;
  std::uint32_t allowed = ~kFaceLanes;
  for (std::size_t first = kFaces - kFaces % kLanes; first < choice.block_count * kBlock;
       first += kLanes) {
    const std::uint32_t lanes =
        LanesReaching(At<const Floats>(choice.upper + first), reached) & allowed;
    AppendLanes(lanes, static_cast<std::uint32_t>(first), end);
    end += __builtin_popcount(lanes);
    allowed = ~0u;
  }
  for (std::size_t first = 0; first < kFaces; first += kLanes) {
    std::uint32_t lanes = LanesReaching(At<const Floats>(choice.upper + first), reached);
    if (first + kLanes > kFaces) lanes &= kFaceLanes;
    AppendLanes(lanes, static_cast<std::uint32_t>(first), end);
    end += __builtin_popcount(lanes);
  }
  if (!(choice.threshold > 0.0f)) {  // reached by those that are out, too
    std::uint32_t* kept = contenders;
    for (const std::uint32_t* record = contenders; record != end; ++record) {
      if (choice.max_cosine[*record] != kGone) *kept++ = *record;
    }
    end = kept;
  }
  return static_cast<std::size_t>(end - contenders);
}

// Of a record: kUnset when it is out.
template <int N>
QUENLOFT_TARGET [[gnu::always_inline]] inline double Score(std::size_t record, double distance,
                                                           double cosine) {
  const double score = distance / (1.0 - cosine) * (record < 2 * N ? 2.0 : 1.0);
  return cosine < 1.0 ? score : kUnset;
}

// Whether choosing contender `b`, too, leaves contender `i` the score that they share.
template <int N>
QUENLOFT_TARGET inline bool KeepsScore(ContenderTask<N>& task, std::size_t i, std::size_t b,
                                       double score) {
  const double* row[2];
  const std::size_t places[2] = {i, b};
  for (std::size_t j = 0; j < 2; ++j) {
    const std::size_t record = task.contenders[places[j]];
    row[j] = task.difference + OffsetOf(record, N);
    std::uint32_t& support = task.support[places[j]];
    if (N < 16 || support != 0) continue;
    for (std::size_t k = 0; k < N; ++k) {
      support |= static_cast<std::uint32_t>(row[j][k * kBlock] != 0.0) << k;
    }
  }
  // Without a coordinate in common the cosine is 0, or no number.
  if (N >= 16 && (task.support[i] & task.support[b]) == 0) return true;
  double dot = 0.0;
  for (std::size_t k = 0; k < N; ++k) dot += row[0][k * kBlock] * row[1][k * kBlock];
  const std::size_t record = task.contenders[i];
  const double distance = task.distance[record];
  const double cosine = dot / (task.distance[task.contenders[b]] * distance);
  ++task.cosine_count;
  if (!(cosine > task.cosine[i])) return true;
  task.cosine[i] = cosine;
  return Score<N>(record, distance, cosine) == score;
}

// Of kLanes chosen records from number `first` on: which may have the largest cosine with a
// record.
template <int N>
QUENLOFT_TARGET [[gnu::always_inline]] inline std::uint32_t CloseLanes(const ChoiceTask<N>& choice,
                                                                       const ContenderTask<N>& task,
                                                                       std::size_t record,
                                                                       std::size_t first) {
  constexpr std::size_t kPairs = GridPoint<N>::kPairs;
  const std::int32_t* unit = choice.unit + OffsetOf(record, kPairs);
  const std::int32_t* chosen = task.chosen_unit + first;
  Ints cosine = PairProducts(At<const Ints>(chosen), Ints{} + unit[0]);
  for (std::size_t k = 1; k < kPairs; ++k) {
    cosine =
        AddPairProducts(cosine, At<const Ints>(chosen + k * task.kRow), Ints{} + unit[k * kBlock]);
  }
  const std::int32_t least =
      task.is_trusted ? choice.max_cosine[record] - 2 * Tolerance<N>() : INT32_MIN;
  return LanesReaching(cosine, Ints{} + least);
}

// Chooses, among the records whose bounds reach the threshold, the one of the smallest
// score; of equal ones the first, a trial before a face. Then goes on with those that tie
// with it: no score ever falls, so the first whose own is still the same after a choice is
// the next. False if nothing is left to choose.
//
// The plain way computes the cosine of each that ties with each newly chosen one, one after
// the other, as a choice decides which cosines the next needs. Instead a choice is compared
// with all that still tie at once, by rounded cosines: surely below the largest cosine
// before, it leaves the score; surely above, it raises it; between, the exact cosine tells.
template <int N>
QUENLOFT_TARGET bool ChooseContenders(ChoiceTask<N>& choice, ContenderTask<N>& task) {
  constexpr std::size_t kPairs = GridPoint<N>::kPairs;
  constexpr std::size_t kWindow = ContenderTask<N>::kWindow;
  constexpr std::size_t kRow = ContenderTask<N>::kRow;
  // In many dimensions exact cosines are dear, and rounded ones tell which few are needed.
  constexpr bool kIsFiltered = N >= 12;
  constexpr std::uint32_t kHalfOfLanes = (1u << kDoubleLanes) - 1;
  for (; task.exact_count < choice.chosen_count; ++task.exact_count) {
    const auto place = static_cast<std::size_t>(task.exact_count);
    const std::size_t record = choice.chosen[place];
    const double* chosen = task.difference + OffsetOf(record, N);
    for (std::size_t k = 0; k < N; ++k) {
      double* row = task.chosen_difference + k * kRow + place;
      if (place % kBlock == 0) {
        for (std::size_t j = 0; j < kBlock; ++j) row[j] = 0.0;
      }
      *row = chosen[k * kBlock];
    }
    if constexpr (kIsFiltered) {
      const std::int32_t* unit = choice.unit + OffsetOf(record, kPairs);
      for (std::size_t k = 0; k < kPairs; ++k) {
        std::int32_t* row = task.chosen_unit + k * kRow + place;
        if (place % kBlock == 0) {
          for (std::size_t j = 0; j < kBlock; ++j) row[j] = 0;
        }
        *row = unit[k * kBlock];
      }
    }
    task.chosen_distance[place] = task.distance[record];
  }

  const std::size_t count = FindContenders<N>(choice, task.contenders);
  const std::size_t window = count < kWindow ? count : kWindow;
  for (std::size_t i = 0; i < window; ++i) {
    const std::size_t record = task.contenders[i];
    const std::int32_t* unit = choice.unit + OffsetOf(record, kPairs);
    for (std::size_t k = 0; k < kPairs; ++k) task.unit[k * kWindow + i] = unit[k * kBlock];
    task.max_cosine[i] = choice.max_cosine[record];
    task.support[i] = 0;
  }

  double smallest = kUnset;
  std::size_t best = kNoRecord;
  std::uint64_t ties = 0;  // a bit for each of the window that has the smallest score
  const auto chosen_count = static_cast<std::size_t>(choice.chosen_count);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t record = task.contenders[i];
    const double* difference = task.difference + OffsetOf(record, N);
    const double distance = task.distance[record];
    std::uint32_t close = 0;
    Doubles largest{};
    for (std::size_t first = 0; first < chosen_count; first += kDoubleLanes) {
      if constexpr (kIsFiltered) {
        if (first % kLanes == 0) close = CloseLanes<N>(choice, task, record, first);
        const std::uint32_t lanes = close >> first % kLanes;
        if ((lanes & kHalfOfLanes) == 0) continue;
      }
      Doubles dot{};
      for (std::size_t k = 0; k < N; ++k) {
        dot +=
            At<const Doubles>(task.chosen_difference + k * kRow + first) * difference[k * kBlock];
      }
      const Doubles cosine = dot / (At<const Doubles>(task.chosen_distance + first) * distance);
      largest = cosine > largest ? cosine : largest;
    }
    const double cosine = LargestLane(largest);
    const double score = Score<N>(record, distance, cosine);
    if (i < kWindow) task.cosine[i] = cosine;
    const std::uint64_t bit = i < kWindow ? std::uint64_t{1} << i : 0;
    ties = score < smallest ? bit : ties | (score == smallest ? bit : 0);
    best = score < smallest ? i : best;
    smallest = score < smallest ? score : smallest;
  }
  task.cosine_count += count * chosen_count;
  if (best == kNoRecord) return false;
  choice.chosen[choice.chosen_count++] = task.contenders[best];
  if (best >= kWindow) return true;

  constexpr std::uint32_t kAllLanes = (1u << kLanes) - 1;
  constexpr std::int32_t kDoubt = 2 * Tolerance<N>();
  const Ints least_doubtful = Ints{} + (task.is_trusted ? -kDoubt : INT32_MIN);
  const Ints least_raised = Ints{} + (task.is_trusted ? 2 * kDoubt : INT32_MAX);
  for (ties &= ties - 1; ties != 0; ties &= ties - 1) {
    if (choice.chosen_count == 3 * N) break;
    Ints direction[kPairs];
    for (std::size_t k = 0; k < kPairs; ++k) {
      direction[k] = Ints{} + task.unit[k * kWindow + best];
    }
    std::uint64_t kept = 0;
    std::uint64_t raised = 0;
    for (std::size_t first = 0; first < window; first += kLanes) {
      Ints cosine = PairProducts(At<const Ints>(task.unit + first), direction[0]);
      for (std::size_t k = 1; k < kPairs; ++k) {
        cosine =
            AddPairProducts(cosine, At<const Ints>(task.unit + k * kWindow + first), direction[k]);
      }
      const Ints rise = cosine - At<const Ints>(task.max_cosine + first);
      kept |= std::uint64_t{LanesReaching(rise, least_doubtful) ^ kAllLanes} << first;
      raised |= std::uint64_t{LanesReaching(rise, least_raised)} << first;
    }
    for (std::uint64_t open = ties & ~(kept | raised); open != 0; open &= open - 1) {
      const auto i = static_cast<std::size_t>(__builtin_ctzll(open));
      if (KeepsScore<N>(task, i, best, smallest)) kept |= std::uint64_t{1} << i;
    }
    ties &= kept;
    if (ties == 0) break;
    best = static_cast<std::size_t>(__builtin_ctzll(ties));
    // Its own direction must be free, or it takes a look at all that remain.
    if (task.cosine[best] > task.spread_cosine) break;
    choice.chosen[choice.chosen_count++] = task.contenders[best];
  }
  return true;
}

template <int N>
inline constexpr SelectionKernels<N> kKernels = {FindNear<N>, Measure<N>, Choose<N>,
                                                 ChooseContenders<N>};
