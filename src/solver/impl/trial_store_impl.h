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
void TrialStore<N>::ForgetCheckpoint() {
  for (const Remembered& remembered : remembered_) {
    is_remembered_.ClearAround(remembered.position);
  }
  remembered_.clear();
  has_checkpoint_ = false;
}

}  // namespace QuenloftSolver
