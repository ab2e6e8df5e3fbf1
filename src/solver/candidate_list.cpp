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

// Bit j of the result tells whether the j-th of kScanned positions is one of the `count` sought.
using PositionScan = std::uint32_t (*)(const std::uint32_t* positions, const std::uint32_t* sought,
                                       std::size_t count);

std::uint32_t Scan(const std::uint32_t* positions, const std::uint32_t* sought, std::size_t count) {
  std::uint32_t equal[kScanned] = {};
  for (std::size_t i = 0; i < count; ++i) {
    for (std::size_t j = 0; j < kScanned; ++j) equal[j] |= positions[j] == sought[i] ? 1 : 0;
  }
  std::uint32_t bits = 0;
  for (std::size_t j = 0; j < kScanned; ++j) bits |= equal[j] << j;
  return bits;
}

#if defined(__x86_64__)
// Compilers do not find the packing: in two dimensions a search takes a fifth longer with the
// loops above. Still wider vectors would do no better where they take two passes.
[[gnu::target("avx2")]] std::uint32_t ScanWide(const std::uint32_t* positions,
                                               const std::uint32_t* sought, std::size_t count) {
  const auto* const blocks = reinterpret_cast<const __m256i*>(positions);
  __m256i block[4];
  __m256i equal[4];
  for (int v = 0; v < 4; ++v) {
    block[v] = _mm256_loadu_si256(blocks + v);
    equal[v] = _mm256_setzero_si256();
  }
  for (std::size_t i = 0; i < count; ++i) {
    const __m256i position = _mm256_set1_epi32(static_cast<std::int32_t>(sought[i]));
    for (int v = 0; v < 4; ++v) {
      equal[v] = _mm256_or_si256(equal[v], _mm256_cmpeq_epi32(block[v], position));
    }
  }
  // A byte each. Packing takes four at a time from the lower and the upper halves in turn.
  const __m256i bytes = _mm256_packs_epi16(_mm256_packs_epi32(equal[0], equal[1]),
                                           _mm256_packs_epi32(equal[2], equal[3]));
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
  RemoveStale();
  // Equal keys in the order of offers.
  std::sort(staged_.begin(), staged_.end(), [](const Staged& a, const Staged& b) {
    return a.candidate.key != b.candidate.key ? a.candidate.key < b.candidate.key
                                              : a.number < b.number;
  });
  // What the list has no room for.
  if (staged_.size() > kListCapacity) {
    staged_.erase(staged_.begin(), staged_.end() - static_cast<std::ptrdiff_t>(kListCapacity));
  }
  PlaceAmong(Keys(), size_, std::less_equal<>());
  InsertStaged();
  staged_.clear();
}

// Moves each stretch between two of them once.
void CandidateList::RemoveStale() {
  if (stale_count_ == 0) return;
  const std::uint32_t* const places = stale_.front().places;
  std::size_t out = places[0];
  for (std::size_t s = 0; s < stale_count_; ++s) {
    const std::size_t from = places[s] + std::size_t{1};
    const std::size_t end = s + 1 < stale_count_ ? places[s + 1] : size_;
    MoveEntries(from, out, end - from);
    out += end - from;
  }
  size_ = out;
}

// Each behind equal keys, which are older; moves each stretch between two of them once.
void CandidateList::InsertStaged() {
  const std::size_t total = size_ + staged_.size();
  MakeRoom(total);
  std::size_t end = size_;
  for (std::size_t rest = staged_.size(); rest > 0; --rest) {
    const Staged& staged = staged_[rest - 1];
    MoveEntries(staged.place, staged.place + rest, end - staged.place);
    Write(staged.place + rest - 1, staged.candidate);
    end = staged.place;
  }
  const std::size_t surplus = total - std::min(total, kListCapacity);
  begin_ += surplus;
  size_ = total - surplus;
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
  std::uint32_t* const places = stale_.front().places;
  const std::vector<std::uint32_t> marked(places, places + stale_count_);
  stale_count_ = 0;
  for (std::uint32_t i = 0; i < size_; ++i) {
    if (Keys()[i] == kUnset || std::binary_search(marked.begin(), marked.end(), i)) {
      places[stale_count_++] = i;
    }
  }
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

void CandidateList::Insert(std::size_t place, const Candidate& candidate) {
  MakeRoom(size_ + 1);
  MoveEntries(place, place + 1, size_ - place);
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
