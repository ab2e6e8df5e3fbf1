// SPDX-License-Identifier: MIT

#pragma once

#include <new>

#include "solver/trial_store.h"

namespace QuenloftSolver {

template <int N>
void TrialStore<N>::Reserve() {
  for (std::size_t room = kReservedTrials; room > trials_.capacity(); room /= 2) {
    try {
      trials_.reserve(room);
      rows_.reserve(room);
      if (!kMarksStandInRows<N>) marks_.reserve(room);
      may_be_local_.Reserve(room);
      break;
    } catch (const std::bad_alloc&) {
    }
  }
}

// Columns that are too long do no harm.
template <int N>
void TrialStore<N>::ReserveNext() {
  const std::size_t count = Size() + std::size_t{1};
  rows_.resize(count);
  if (!kMarksStandInRows<N>) marks_.resize(count);
  may_be_local_.Resize(count);
  ReserveOneMore(trials_);
}

template <int N>
void TrialStore<N>::Append(const Coordinates& point, std::uint32_t combination,
                           const TestValue& value, std::uint32_t flags) {
  const std::uint32_t position = Size();
  assert(position < rows_.size() && position < trials_.capacity());
  Test<N>& trial = trials_.emplace_back();
  trial.coordinate = point;
  trial.grid_point = GridPoint<N>(point);
  trial.combination = combination;
  trial.value = value;
  trial.flags.store(flags, std::memory_order_relaxed);
  rows_[position].neighbours.fill(position);
  rows_[position].coordinate = point;
}

template <int N>
void TrialStore<N>::Checkpoint() {
  ForgetCheckpoint();
  is_remembered_.Resize(Size());
  size_before_ = Size();
  has_checkpoint_ = true;
}

// Keys last, in the reverse order: of a trial whose keys were remembered before it was itself
// they are the older ones.
template <int N>
void TrialStore<N>::Rollback() {
  assert(has_checkpoint_);
  for (const Remembered& remembered : remembered_) {
    trials_[remembered.position] = remembered.trial;
    // The bit may have been cleared since.
    const std::uint32_t flags = remembered.trial.flags.load(std::memory_order_relaxed);
    if (flags & SolverBase::TestBase::kLocal) may_be_local_.Set(remembered.position);
    const std::uint32_t met_by = MetBy(remembered.position);
    rows_[remembered.position] = remembered.row;
    MetBy(remembered.position) = met_by;
  }
  for (std::size_t i = remembered_keys_.size(); i-- > 0;) {
    const RememberedKeys& remembered = remembered_keys_[i];
    for (std::size_t k = 0; k < 3 * N; ++k) {
      Neighbour& segment = trials_[remembered.position].neighbours[k];
      segment.global_characteristic = remembered.keys[k][0];
      segment.local_characteristic = remembered.keys[k][1];
    }
  }
  for (std::uint32_t position = size_before_; position < Size(); ++position) {
    may_be_local_.Clear(position);
  }
  trials_.erase(trials_.begin() + size_before_, trials_.end());
  rows_.resize(size_before_);
  if (!kMarksStandInRows<N>) marks_.resize(size_before_);
  ForgetCheckpoint();
}

template <int N>
void TrialStore<N>::Remember(std::uint32_t position) {
  if (position >= size_before_ || is_remembered_[position]) return;
  remembered_.push_back({position, trials_[position], rows_[position]});
  is_remembered_.Set(position);
}

template <int N>
void TrialStore<N>::RememberKeys(std::uint32_t position) {
  if (position >= size_before_ || is_remembered_[position]) return;
  RememberedKeys& remembered = remembered_keys_.emplace_back();
  remembered.position = position;
  for (std::size_t k = 0; k < 3 * N; ++k) {
    const Neighbour& segment = trials_[position].neighbours[k];
    remembered.keys[k] = {segment.global_characteristic, segment.local_characteristic};
  }
}

template <int N>
void TrialStore<N>::ForgetCheckpoint() {
  for (const Remembered& remembered : remembered_) {
    is_remembered_.ClearAround(remembered.position);
  }
  remembered_.clear();
  remembered_keys_.clear();
  has_checkpoint_ = false;
}

}  // namespace QuenloftSolver
