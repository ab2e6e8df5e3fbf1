// SPDX-License-Identifier: MIT
//
// The trials of a search, and what is kept of each of them.

#pragma once

#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "solver/aligned.h"
#include "solver/reserve.h"
#include "solver/trial.h"
#include "solver/trial_bits.h"

namespace QuenloftSolver {

// Trials in the order in which they were made; a trial's position never changes. Beside
// them, in columns: the rows of the flood, its marks, and a bit that tells who may be marked
// as a local minimum.
//
// Invariants:
//   (1) Every column is at least as long as the store.
//   (2) Of a trial with the flag kLocal the bit MayBeLocal is set.
// All that is ever changed of a trial is had from Change and ChangeRow, which remember
// beforehand what it was while a checkpoint stands.
//
// Cost: Append O(N); Change O(1), O(N) for the first change since a checkpoint; Rollback
// in proportion to what was changed.
// Threads: any number may read and, while no checkpoint stands, change trials of their own.
template <int N>
class TrialStore {
 public:
  using Coordinates = std::array<double, N>;

  // Reserves room for kReservedTrials, or as much as can be had: appending then moves no
  // trial in a run of ordinary length.
  void Reserve();
  std::uint32_t Size() const { return static_cast<std::uint32_t>(trials_.size()); }
  // The bytes of a cache that would hold all trials.
  std::size_t Bytes() const { return trials_.size() * sizeof(Test<N>); }

  // Makes room for one trial more; Append must find some. Where memory runs out the store is
  // as before.
  void ReserveNext();
  // Adds a trial without a neighbourhood.
  void Append(const Coordinates& point, std::uint32_t combination, const TestValue& value,
              std::uint32_t flags);

  const Test<N>& operator[](std::uint32_t position) const {
    assert(position < Size());
    return trials_[position];
  }
  const FloodRow<N>& Row(std::uint32_t position) const {
    assert(position < Size());
    return rows_[position];
  }

  // Asks for all that is kept of a trial's table.
  void PrefetchTable(std::uint32_t position) const {
    FetchLines(&trials_[position], sizeof(Test<N>));
    FetchLines(&rows_[position], sizeof(FloodRow<N>));
  }

  // To change anything of a trial and its row.
  Test<N>& Change(std::uint32_t position) {
    assert(position < Size());
    if (has_checkpoint_) Remember(position);
    return trials_[position];
  }
  FloodRow<N>& ChangeRow(std::uint32_t position) {
    if (has_checkpoint_) Remember(position);
    return rows_[position];
  }

  // The number of the last flood that met the trial. It is no part of what a checkpoint
  // remembers: a flood has a new number.
  std::uint32_t& MetBy(std::uint32_t position) {
    if constexpr (kMarksStandInRows<N>) {
      return rows_[position].met_by;
    } else {
      return marks_[position].met_by;
    }
  }

  bool MayBeLocal(std::uint32_t position) const { return may_be_local_[position]; }
  void SetLocal(std::uint32_t position) {
    ChangeFlags(Change(position), {SolverBase::TestBase::kLocal, 0});
    may_be_local_.Set(position);
  }
  // Clears the bit, of a trial without the flag.
  void ForgetLocal(std::uint32_t position) { may_be_local_.Clear(position); }

  // Remembers the store as it is, in place of an earlier checkpoint.
  void Checkpoint();
  // Makes it what it was at the checkpoint, which then stands no more. Allocates nothing.
  void Rollback();
  void ForgetCheckpoint();
  bool HasCheckpoint() const { return has_checkpoint_; }

 private:
  struct Remembered {
    std::uint32_t position;
    Test<N> trial;
    FloodRow<N> row;
  };

  void Remember(std::uint32_t position);

  std::vector<Test<N>> trials_;
  std::vector<FloodRow<N>> rows_;
  std::vector<FloodMark> marks_;  // unless the rows have them
  TrialBits may_be_local_;

  bool has_checkpoint_ = false;
  std::uint32_t size_before_ = 0;  // at the checkpoint
  TrialBits is_remembered_;        // of those before it
  std::vector<Remembered> remembered_;
};

}  // namespace QuenloftSolver
