// SPDX-License-Identifier: MIT

#include "solver/candidate_list.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>

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

// Bit j of the result tells whether the j-th of kScanned positions is one of the `count` sought.
using PositionScan = std::uint32_t (*)(const std::uint32_t* positions, const std::uint32_t* sought,
                                       std::size_t count);

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

PositionScan FastestPositionScan() {
#if defined(__x86_64__)
  const bool is_wide = lanes_allowed >= 8 && __builtin_cpu_supports("avx2");
  if (is_wide) return ScanWide;
#endif
  return Scan;
}

// A number that is all ones or zero.
std::size_t Mask(bool condition) { return std::size_t{0} - static_cast<std::size_t>(condition); }

}  // namespace

void CandidateList::Offer(const Candidate& candidate, UpdateMode mode) {
  is_used_ = true;
  const bool drops_below_front = mode == UpdateMode::kIncremental || size_ == kListCapacity;
  // The common case: most offers are worse than all that is listed. Beside a key that is NaN
  // only the search tells.
  if (drops_below_front && (size_ == 0 || (!has_unordered_keys_ && Keys()[0] > candidate.key))) {
    return;
  }
  Reserve();

  const double* const keys = Keys();
  auto place = static_cast<std::size_t>(std::lower_bound(keys, keys + size_, candidate.key) - keys);
  for (; place < size_ && keys[place] == candidate.key; ++place) {
    if (Positions()[place] == candidate.position && Tests()[place] == candidate.test) return;
  }
  if (place == 0 && drops_below_front) return;
  if (size_ == kListCapacity) {
    ++begin_;
    --size_;
    --place;
  }
  Insert(place, candidate);
}

Candidate CandidateList::TakeBest() {
  assert(size_ > 0);
  --size_;
  return (*this)[size_];
}

void CandidateList::Clear() {
  size_ = 0;
  ForgetUpdate();
}

void CandidateList::ForgetUpdate() {
  is_offered_ = false;
  staged_.clear();
  stale_count_ = 0;
  floor_ = std::numeric_limits<double>::quiet_NaN();  // nothing reaches it
}

void CandidateList::MarkStale(const std::uint32_t* rebuilt, std::size_t count) {
  ForgetUpdate();  // one that ran out of memory
  if (size_ == 0) return;
  stale_.resize(1);
  if (count > 0) FindStale(rebuilt, count);
  if (has_unordered_keys_) {
    // Too rare for more than the plain way.
    MarkUnsetKeys();
    floor_ = -std::numeric_limits<double>::infinity();
    return;
  }
  JudgeStale();
  if (stale_count_ == size_) return;
  std::size_t front = 0;
  while (front < stale_count_ && stale_.front().places[front] == front) ++front;
  floor_ = Keys()[front];
}

void CandidateList::Commit() {
  if (has_unordered_keys_) return CommitInTurn();
  is_used_ |= is_offered_;
  LetStand();
  std::size_t going_count = 0;
  for (std::size_t s = 0; s < stale_count_; ++s) {
    stale_.front().places[going_count] = stale_.front().places[s];
    going_count += stale_.front().fates[s] != Fate::kStays ? 1 : 0;
  }
  stale_count_ = going_count;
  if (going_count > 0 || !staged_.empty()) CommitPlaced();
  stale_count_ = 0;
}

void CandidateList::CommitInTurn() {
  is_used_ |= is_offered_;
  std::vector<Staged> offers;
  offers.swap(staged_);
  if (stale_count_ > 0) CommitPlaced();
  stale_count_ = 0;
  for (const Staged& offer : offers) Offer(offer.candidate, UpdateMode::kIncremental);
  offers.clear();
  staged_.swap(offers);
}

void CandidateList::CommitPlaced() {
  PlaceStaged();
  const Progress start = DropSurplus();
  MakeRoom(start.place + std::min(TotalCount(), kListCapacity));
  const std::size_t end = Rearrange(start);
  begin_ += start.place;
  size_ = end - start.place;
  staged_.clear();
}

std::size_t CandidateList::LeastCount() const {
  const double* const keys = Keys();
  return static_cast<std::size_t>(std::upper_bound(keys, keys + size_, keys[0]) - keys);
}

void CandidateList::ForgetLeast() {
  const std::size_t count = LeastCount();
  begin_ += count;
  size_ -= count;
}

// Passes over what leaves the list at its front: stale entries, and the least ones beyond
// the capacity, listed or staged. The window begins at the first that is left.
CandidateList::Progress CandidateList::DropSurplus() const {
  std::size_t surplus = TotalCount() - std::min(TotalCount(), kListCapacity);
  Progress at;
  for (;;) {
    const bool comes = at.coming < staged_.size() && staged_[at.coming].place <= at.place;
    if (!comes && at.going < stale_count_ && stale_.front().places[at.going] == at.place) {
      ++at.going;
      ++at.place;
    } else if (surplus > 0) {
      ++(comes ? at.coming : at.place);
      --surplus;
    } else {
      return at;
    }
  }
}

// Moves each stretch between places where something goes or comes once: those that move
// towards the front first, from the front on, then the others, from the end on. So each
// finds its new place free: stretches keep their order, hence none ends where one of the
// other kind still has to leave. Returns where the list then ends.
std::size_t CandidateList::Rearrange(const Progress& start) {
  std::size_t going = start.going;
  std::size_t coming = start.coming;
  std::size_t in = start.place;
  std::size_t out = start.place;
  std::size_t rising_count = 0;
  const auto pass_until = [&](std::size_t end) {
    assert(in <= end);
    const std::size_t count = end - in;
    if (out < in) {
      MoveEntries(in, out, count);
    } else if (out > in && count > 0) {
      stale_.front().rising[rising_count++] = {static_cast<std::uint32_t>(in),
                                               static_cast<std::uint32_t>(out),
                                               static_cast<std::uint32_t>(count)};
    }
    in += count;
    out += count;
  };
  while (going < stale_count_ || coming < staged_.size()) {
    const bool comes =
        coming < staged_.size() &&
        (going == stale_count_ || staged_[coming].place <= stale_.front().places[going]);
    if (comes) {
      pass_until(staged_[coming].place);
      staged_[coming++].place = static_cast<std::uint32_t>(out++);
    } else {
      pass_until(stale_.front().places[going++]);
      ++in;
    }
  }
  pass_until(size_);
  while (rising_count > 0) {
    const Stretch& rising = stale_.front().rising[--rising_count];
    MoveEntries(rising.from, rising.to, rising.count);
  }
  for (std::size_t s = start.coming; s < staged_.size(); ++s) {
    Write(staged_[s].place, staged_[s].candidate);
  }
  return out;
}

void CandidateList::Reserve() {
  if (!storage_.empty()) return;
  storage_.resize(1);
  begin_ = kRoom / 2;
}

// The last block may reach beyond the list.
void CandidateList::FindStale(const std::uint32_t* rebuilt, std::size_t count) {
  const PositionScan scan = FastestPositionScan();
  const std::uint32_t* const positions = Positions();
  std::uint32_t* const places = stale_.front().places;
  std::size_t found = 0;
  for (std::size_t i = 0; i < size_; i += kScanned) {
    for (std::uint32_t bits = scan(positions + i, rebuilt, count); bits != 0; bits &= bits - 1) {
      places[found++] = static_cast<std::uint32_t>(i + __builtin_ctz(bits));
    }
  }
  while (found > 0 && places[found - 1] >= size_) --found;
  stale_count_ = found;
}

void CandidateList::MarkUnsetKeys() {
  std::size_t stale = 0;
  std::size_t marked_count = 0;
  std::uint32_t marked[kListCapacity];
  for (std::uint32_t i = 0; i < size_; ++i) {
    const bool is_marked = stale < stale_count_ && stale_.front().places[stale] == i;
    stale += is_marked ? 1 : 0;
    if (is_marked || Keys()[i] == kUnset) marked[marked_count++] = i;
  }
  std::copy_n(marked, marked_count, stale_.front().places);
  stale_count_ = marked_count;
}

// What stands before an equal key that is not stale comes behind it when it comes back,
// so it cannot stay.
void CandidateList::JudgeStale() {
  const double* const keys = Keys();
  Stale& stale = stale_.front();
  for (std::size_t s = stale_count_; s-- > 0;) {
    const std::size_t place = stale.places[s];
    stale.keys[s] = keys[place];
    const bool ends_run = place + 1 == size_ || keys[place + 1] != keys[place];
    const bool may_stay = ends_run || (s + 1 < stale_count_ && stale.places[s + 1] == place + 1 &&
                                       stale.fates[s + 1] == Fate::kMayStay);
    stale.fates[s] = may_stay ? Fate::kMayStay : Fate::kGoes;
  }
}

// Takes off what is staged each candidate that stands among the stale ones that still may
// stay, and lets it stay there. Of equal keys, those before it can then stay no more, being
// late; and none can if it is new.
void CandidateList::LetStand() {
  if (staged_.empty() || stale_count_ == 0) return;
  Stale& stale = stale_.front();
  PlaceAmong(stale.keys, stale_count_, std::less<>());
  auto out = staged_.begin();
  for (Staged& staged : staged_) {
    const Candidate& candidate = staged.candidate;
    bool stays = false;
    for (std::size_t s = staged.place; !stays && s < stale_count_ && stale.keys[s] == candidate.key;
         ++s) {
      if (stale.fates[s] != Fate::kMayStay) continue;
      const std::size_t place = stale.places[s];
      stays = Positions()[place] == candidate.position && Tests()[place] == candidate.test;
      stale.fates[s] = stays ? Fate::kStays : Fate::kGoes;
    }
    *out = staged;
    out->place = 0;
    out += stays ? 0 : 1;
  }
  staged_.erase(out, staged_.end());
}

// Finds for all that is staged how many of ascending keys come before it, in searches side
// by side, because each waits for memory at each of its steps.
template <typename ComesBefore>
void CandidateList::PlaceAmong(const double* keys, std::size_t count, ComesBefore comes_before) {
  while (count > 0) {
    const std::size_t half = (count + 1) / 2;
    for (Staged& staged : staged_) {
      staged.place += static_cast<std::uint32_t>(
          half & Mask(comes_before(keys[staged.place + half - 1], staged.candidate.key)));
    }
    count -= half;
  }
}

// In ascending order of keys, equal ones in that of offers.
void CandidateList::SortStaged() {
  std::sort(staged_.begin(), staged_.end(), [](const Staged& a, const Staged& b) {
    return a.candidate.key != b.candidate.key ? a.candidate.key < b.candidate.key
                                              : a.number < b.number;
  });
}

// Behind equal keys, which are older.
void CandidateList::PlaceStaged() {
  SortStaged();
  PlaceAmong(Keys(), size_, std::less_equal<>());
}

// Moves the fewer, those below or those above.
void CandidateList::Insert(std::size_t place, const Candidate& candidate) {
  if (place < size_ / 2 && begin_ > 0) {
    --begin_;
    MoveEntries(1, 0, place);
  } else {
    MakeRoom(size_ + 1);
    MoveEntries(place, place + 1, size_ - place);
  }
  ++size_;
  Write(place, candidate);
}

// For entries before `end`: puts the window into the middle if it ends too late.
void CandidateList::MakeRoom(std::size_t end) {
  if (begin_ + end <= kRoom) return;
  const std::size_t distance = begin_ - (kRoom - end) / 2;
  begin_ -= distance;
  MoveEntries(distance, 0, size_);
}

void CandidateList::MoveEntries(std::size_t from, std::size_t to, std::size_t count) {
  const auto move = [&](auto* entries) {
    std::memmove(entries + begin_ + to, entries + begin_ + from, count * sizeof(*entries));
  };
  move(storage_.front().keys);
  move(storage_.front().positions);
  move(storage_.front().tests);
}

void CandidateList::Write(std::size_t place, const Candidate& candidate) {
  storage_.front().keys[begin_ + place] = candidate.key;
  storage_.front().positions[begin_ + place] = candidate.position;
  storage_.front().tests[begin_ + place] = candidate.test;
  if (candidate.key == kUnset || std::isnan(candidate.key)) has_unordered_keys_ = true;
}

}  // namespace QuenloftSolver
