// SPDX-License-Identifier: MIT
//
// The bounded list of the best segments of one class, from which a step takes the
// segment to split. A step offers some hundred entries and takes one.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "solver/constants.h"
#include "solver/scratch.h"

namespace QuenloftSolver {

// A segment to split, as the table of one of its ends describes it.
struct Candidate {
  double key;              // the larger, the more promising
  std::uint32_t position;  // the trial whose table holds the entry
  std::int32_t test;       // the entry's `test`
};

// Positions that the search for stale candidates looks at together.
inline constexpr std::size_t kScanned = 32;

// How far an update reaches: over every trial, or over those just rebuilt.
enum class UpdateMode { kFull, kIncremental };

// Invariants (marked candidates stay listed until Commit):
//   (1) Size() <= kListCapacity, and keys ascend, so the best candidate is last.
//   (2) Among equal keys the one offered later stands nearer the end.
//   (3) No candidate stands twice.
// Cost: Offer O(log size) to find and one move of the better entries; TakeBest
// O(1); MarkStale one pass over positions; Stage O(1); Commit O(log size) for each staged
// candidate and two moves of what stands above the least change.
// Memory: storage is allocated by Reserve or the first offer of a full update, and never
// again. MarkStale and Stage change nothing but the update under way, so where memory runs
// out it may be begun anew. Commit, and any Offer once there is storage, allocate nothing.
// Threads: none.
class CandidateList {
 public:
  // What a list allocates at least once it was offered something.
  static constexpr std::size_t LeastBytes() { return sizeof(Storage) + sizeof(Stale); }

  std::size_t Size() const { return size_; }
  bool IsEmpty() const { return size_ == 0; }
  // Whether anything was ever offered.
  bool IsUsed() const { return is_used_; }
  // 0 is the least promising candidate.
  Candidate operator[](std::size_t i) const { return {Keys()[i], Positions()[i], Tests()[i]}; }
  double BestKey() const { return Keys()[size_ - 1]; }
  double LeastKey() const { return Keys()[0]; }

  // Lists a candidate unless it is listed already, or every listed key is better
  // and the list is full or the update incremental: an incremental update adds
  // nothing below the least promising entry, so that an emptied list asks for a
  // full update instead of living on leftovers.
  void Offer(const Candidate& candidate, UpdateMode mode);

  // Allocates what a list takes.
  void Reserve();

  // The list must not be empty.
  Candidate TakeBest();

  void Clear();

  // An incremental update in one go: MarkStale, then Stage for every segment of the
  // rebuilt trials, then Commit. The plain way removes what is stale, which moves the
  // list once, and inserts offers one by one, each of which moves what is better: half
  // of all instructions of a step at N = 2. But most segments of a rebuilt table come
  // back as they were. So Commit lets a stale candidate stand that was staged with the
  // same key, and moves what stands between real changes once for those that go and once for
  // those that come.
  // The outcome is that of one offer after the other: a full list loses its least
  // entries whatever the order, and of equal keys only those stand that the offers bring
  // back in the order in which they stand, behind all that was not stale and before all
  // that is new; others go, and come as if they were new. At N = 2 that saves an eighth
  // of a step against writing the list anew, which was far cheaper than the plain way.
  //
  // Marks the candidates of the `count` trials at `rebuilt`, and those whose key says
  // that it must be computed anew.
  void MarkStale(const std::uint32_t* rebuilt, std::size_t count);
  // How many candidates stay whatever is offered.
  std::size_t StayingCount() const { return size_ - stale_count_; }

  // Offers a candidate of a marked trial, to take effect by Commit. The least entry that
  // was not marked is the least that an offer must reach.
  void Stage(const Candidate& candidate) {
    is_offered_ = true;
    if (!(candidate.key >= floor_)) return;
    staged_.push_back({candidate, static_cast<std::uint32_t>(staged_.size()), 0});
  }
  void Commit();
  // The same where candidates of other trials than the marked ones were staged, too: these
  // may be listed.
  void CommitInTurn();

  // How many candidates have the least key.
  std::size_t LeastCount() const;
  // Takes the candidates with the least key off a full list, in an update of every trial where
  // what comes is known to push them out before any of them is offered again.
  void ForgetLeast();

  // Whether some listed key may be kUnset or NaN, so that every update must mark them.
  bool HasUnorderedKeys() const { return has_unordered_keys_; }

 private:
  // Entries stand in a window of the storage with room on either side, so that what
  // stands above the least ones need not move when these fall out.
  static constexpr std::size_t kRoom = 2 * kListCapacity;
  // Columns: the search for a place reads keys alone, the one for stale entries positions.
  struct Storage {
    double keys[kRoom];
    std::uint32_t positions[kRoom + kScanned];
    std::int32_t tests[kRoom];
  };
  enum class Fate : std::uint8_t { kMayStay, kStays, kGoes };
  // In ascending order of places, so of keys.
  struct Stale {
    std::uint32_t places[kListCapacity + kScanned];
    double keys[kListCapacity];
    Fate fates[kListCapacity];
  };
  struct Staged {
    Candidate candidate;
    std::uint32_t number;  // in the order of offers
    std::uint32_t place;   // of the entry before which it comes
  };
  const double* Keys() const { return storage_.front().keys + begin_; }
  const std::uint32_t* Positions() const { return storage_.front().positions + begin_; }
  const std::int32_t* Tests() const { return storage_.front().tests + begin_; }

  void ForgetUpdate();
  void FindStale(const std::uint32_t* rebuilt, std::size_t count);
  void MarkUnsetKeys();
  void JudgeStale();
  void LetStand();
  template <typename ComesBefore>
  void PlaceAmong(const double* keys, std::size_t count, ComesBefore comes_before);
  void CommitPlaced();
  void RemoveStale();
  void InsertStaged();
  void Insert(std::size_t place, const Candidate& candidate);
  void MakeRoom(std::size_t end);
  void MoveEntries(std::size_t from, std::size_t to, std::size_t count);
  void Write(std::size_t place, const Candidate& candidate);

  std::size_t begin_ = 0;
  std::size_t size_ = 0;
  bool is_used_ = false;
  bool has_unordered_keys_ = false;
  std::vector<Storage> storage_;  // one, once there is any

  // The update under way.
  bool is_offered_ = false;            // anything
  Scratch<std::vector<Stale>> stale_;  // likewise
  std::size_t stale_count_ = 0;
  double floor_ = std::numeric_limits<double>::quiet_NaN();  // nothing reaches it
  std::vector<Staged> staged_;
};

}  // namespace QuenloftSolver
