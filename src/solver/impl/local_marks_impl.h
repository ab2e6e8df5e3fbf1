// SPDX-License-Identifier: MIT
//
// Who is a local minimum after tables were rebuilt.

#pragma once

#include <cstddef>
#include <cstdint>

#include "solver/refresh.h"

namespace QuenloftSolver {

// Clears bits left over from marks that were taken, on the way.
template <int N>
void Refresh<N>::ListLocalCandidates(const std::vector<std::uint32_t>& candidates) {
  local_candidates_.clear();
  for (const std::uint32_t position : candidates) {
    if (!store_->MayBeLocal(position)) continue;
    const std::uint32_t flags = (*store_)[position].flags.load(std::memory_order_relaxed);
    if (flags & SolverBase::TestBase::kLocal) {
      local_candidates_.push_back(position);
    } else {
      store_->ForgetLocal(position);
    }
  }
}

// A rebuilt trial that is lowest within its radius is a local minimum, until a
// rebuilt trial after it in the list is lower and sees it; the same takes the mark
// from a listed trial that was not rebuilt. The outcome is that of handling one
// trial after the other in list order.
template <int N>
void Refresh<N>::ResolveLocalMarks() {
  for (const std::uint32_t position : local_candidates_) {
    for (const RebuiltTable& rebuilt : rebuilt_) {
      if (TakesMark((*store_)[rebuilt.position], rebuilt.radius_before, (*store_)[position])) {
        ChangeFlags(store_->Change(position), {0, SolverBase::TestBase::kLocal});
        break;
      }
    }
  }
  for (std::size_t i = 0; i < rebuilt_.size(); ++i) {
    bool is_local = rebuilt_[i].is_lowest;
    for (std::size_t later = i + 1; is_local && later < rebuilt_.size(); ++later) {
      is_local = !TakesMark((*store_)[rebuilt_[later].position], rebuilt_[later].radius_before,
                            (*store_)[rebuilt_[i].position]);
    }
    if (is_local) store_->SetLocal(rebuilt_[i].position);
  }
}

}  // namespace QuenloftSolver
