// SPDX-License-Identifier: MIT

#include "solver/candidates.h"

#include <algorithm>
#include <cassert>

#include "solver/errors.h"
#include "solver/list_demand.h"

namespace QuenloftSolver {

const double Candidates::kClassBytes = sizeof(Class) + sizeof(Bounds);

Candidates::Candidates(std::uint32_t function_count, std::uint32_t combination_count)
    : combination_count_(combination_count),
      classes_(std::size_t{function_count} * combination_count),
      bounds_(classes_.size()),
      positions_(combination_count > 1 ? combination_count : 0),
      best_keys_(function_count) {}

void Candidates::RaiseSlope(std::uint32_t c, double slope) {
  if (!(slope > classes_[c].slope)) return;
  classes_[c].slope = slope;
  classes_[c].slope_changed = true;
  slopes_changed_ = true;
  if (slope > max_slope_) max_slope_ = slope;
}

std::uint32_t Candidates::BestClass(StepKind kind, const Preference& preference) const {
  double best_ratio = -kUnbounded;
  std::uint32_t best = ClassCount();
  for (std::uint32_t c = 0; c < ClassCount(); ++c) {
    const CandidateList& list = List(kind, c);
    if (list.IsEmpty()) continue;
    double key = list.BestKey();
    if (c / combination_count_ == static_cast<std::uint32_t>(preference.index)) {
      key += classes_[c].slope * preference.slopes + preference.value;
    }
    const double ratio = key / UsableSlope(classes_[c].slope);
    if (ratio > best_ratio) {
      best_ratio = ratio;
      best = c;
    }
  }
  if (best == ClassCount()) throw SearchExhausted();
  return best;
}

void Candidates::Reserve(std::uint32_t combination) {
  if (combination_count_ == 1) return;
  ReserveOneMore(ranks_);
  ReserveOneMore(positions_[combination]);
}

void Candidates::Append(std::uint32_t position, std::uint32_t combination) {
  if (combination_count_ > 1) {
    std::vector<std::uint32_t>& positions = positions_[combination];
    ranks_.push_back(static_cast<std::uint32_t>(positions.size()));
    positions.push_back(position);
  }
  trial_count_ = position + 1;
}

// The trials from `position` on.
void Candidates::TakeBack(std::uint32_t position) {
  trial_count_ = position;
  if (combination_count_ == 1 || ranks_.size() <= position) return;
  ranks_.resize(position);
  for (std::vector<std::uint32_t>& positions : positions_) {
    while (!positions.empty() && positions.back() >= position) positions.pop_back();
  }
}

void Candidates::Begin(SegmentSource& source) {
  std::vector<std::uint32_t> all(trial_count_);
  for (std::uint32_t position = 0; position < trial_count_; ++position) all[position] = position;
  UpdateAll(all, source);
}

// All that is allocated is so before the lists change.
void Candidates::Update(const Disturbance& disturbance, SegmentSource& source) {
  if (stage_ != Stage::kFull) {
    MarkStale(disturbance);
    if (!ClearOutdatedLists()) return UpdateIncrementally(disturbance, source);
    for (Class& its : classes_) {
      for (CandidateList& list : its.list.of) list.Commit();
    }
  }
  UpdateAll(disturbance.rebuilt, source);
}

void Candidates::UpdateIncrementally(const Disturbance& disturbance, SegmentSource& source) {
  stage_ = Stage::kIncremental;
  for (std::size_t k = 0; k < disturbance.rescored.size(); ++k) {
    const std::uint32_t position = disturbance.rescored[k];
    source.Prefetch(Ahead(disturbance.rescored, k, 3));
    const std::size_t count = Rescore(position, source);
    for (std::size_t i = 0; i < count; ++i) {
      const ClassedSegment& segment = segments_[i];
      Class& its = classes_[segment.segment_class];
      for (const StepKind kind : kStepKinds) {
        its.list[kind].Stage({segment.key[kind], position, segment.test});
      }
    }
    work_.offers += 2 * count;
  }
  const bool are_all_new = disturbance.rescored.size() == disturbance.rebuilt.size();
  for (Class& its : classes_) {
    for (CandidateList& list : its.list.of) {
      if (are_all_new) {
        list.Commit();
      } else {
        list.CommitInTurn();
      }
    }
  }
  EndUpdate();
}

void Candidates::EndUpdate() {
  stage_ = Stage::kNone;
  if (slopes_changed_) {
    for (Class& its : classes_) its.slope_changed = false;
  }
  slopes_changed_ = false;
}

// Marks what the lists hold of the trials whose tables were rebuilt.
//
// The plain way looks every entry up in its trial's table, to see whether its
// characteristic still stands. But a characteristic is unset by a rebuild alone, and
// the next update sets it again, so an entry is stale exactly when its trial was
// rebuilt since (or its key happens to be the mark for unset). And rebuilt trials are of
// one combination, so the lists of others hold nothing stale; nor does a list whose
// least key none of the rebuilt trials reached before: more than half of all. (Where memory
// ran out what they reached before is known no more.)
void Candidates::MarkStale(const Disturbance& disturbance) {
  for (std::uint32_t c = 0; c < ClassCount(); ++c) {
    const bool may_be_stale = c % combination_count_ == disturbance.combination;
    for (const StepKind kind : kStepKinds) {
      CandidateList& list = classes_[c].list[kind];
      if (!may_be_stale && !list.HasUnorderedKeys()) continue;
      in_list_.clear();
      if (!list.IsEmpty()) {
        const double least = list.LeastKey();
        for (const std::uint32_t position : disturbance.rebuilt) {
          if (list.HasUnorderedKeys() || stage_ == Stage::kIncremental ||
              !(bounds_[c][kind][RankOf(position)] < least)) {
            in_list_.push_back(position);
          }
        }
      }
      if (!in_list_.empty()) work_.entries_visited += list.Size();
      list.MarkStale(in_list_.data(), in_list_.size());
    }
  }
}

// A global list is outdated as a whole when its class slope grew, which all its keys use. True
// when some list, global or local, held something once and has nothing left that is not stale:
// it asks for an update of every trial.
bool Candidates::ClearOutdatedLists() {
  bool some_ran_dry = false;
  for (Class& its : classes_) {
    if (its.slope_changed) its.list[StepKind::kGlobal].Clear();
    for (const CandidateList& list : its.list.of) {
      some_ran_dry |= list.IsUsed() && list.StayingCount() == 0;
    }
  }
  return some_ran_dry;
}

// Offers every segment that can leave a trace, to each list in the order of the store. Bounds
// of no trials but the given ones are out of date.
void Candidates::UpdateAll(const std::vector<std::uint32_t>& rebuilt, SegmentSource& source) {
  if (stage_ != Stage::kFull) {
    stage_ = Stage::kFull;
    filled_count_ = 0;
    ++work_.full_updates;
  }
  for (const std::uint32_t position : rebuilt) Rescore(position, source);
  for (; filled_count_ < 2 * ClassCount(); ++filled_count_) {
    FillList(filled_count_ / 2, kStepKinds[filled_count_ % 2], source);
  }
  EndUpdate();
}

void Candidates::FillList(std::uint32_t c, StepKind kind, SegmentSource& source) {
  CandidateList& list = classes_[c].list[kind];
  KeyBounds& bounds = bounds_[c][kind];
  // Then every global key must be computed anew.
  const bool is_outdated = classes_[c].slope_changed && kind == StepKind::kGlobal;
  const auto rank_of = [this](std::uint32_t position) { return RankOf(position); };
  const ListDemand demand = is_outdated ? ListDemand() : ListDemand(list, bounds, rank_of);
  const auto needs = [&](double bound, std::size_t first, std::size_t end) {
    return demand.Needs(bound, first, end);
  };
  bounds.List(needs, needed_);
  if (needed_.empty()) return;
  list.Reserve();
  demand.Prepare(list);
  work_.visited += needed_.size();
  for (std::size_t i = 0; i < needed_.size(); ++i) {
    source.Prefetch(PositionOf(Ahead(needed_, i, 8), c % combination_count_));
    const std::uint32_t position = PositionOf(needed_[i], c % combination_count_);
    const std::size_t count =
        is_outdated ? Rescore(position, source) : source.SegmentsOf(position, segments_);
    for (const ClassedSegment* segment = segments_; segment != segments_ + count; ++segment) {
      const double key = segment->key[kind];
      if (segment->segment_class != c || !demand.Wants(key)) continue;
      list.Offer({key, position, segment->test}, UpdateMode::kFull);
      ++work_.offers;
    }
  }
}

// Reads the segments of a trial and keeps their best keys. Returns their number.
std::size_t Candidates::Rescore(std::uint32_t position, SegmentSource& source) {
  const std::size_t count = source.SegmentsOf(position, segments_);
  for (PerKind<double>& best : best_keys_) best = {{KeyBounds::kAbsent, KeyBounds::kAbsent}};
  for (const ClassedSegment* segment = segments_; segment != segments_ + count; ++segment) {
    PerKind<double>& best = best_keys_[segment->segment_class / combination_count_];
    for (const StepKind kind : kStepKinds) {
      best[kind] = KeyBounds::Better(best[kind], segment->key[kind]);
    }
  }
  const std::uint32_t rank = RankOf(position);
  std::uint32_t c = source.CombinationOf(position);
  for (const PerKind<double>& best : best_keys_) {
    for (const StepKind kind : kStepKinds) bounds_[c][kind].Set(rank, best[kind]);
    c += combination_count_;
  }
  return count;
}

void Candidates::Checkpoint() {
  remembered_ = {classes_, max_slope_, slopes_changed_, trial_count_};
  for (Bounds& bounds : bounds_) {
    for (KeyBounds& of_kind : bounds.of) of_kind.Checkpoint();
  }
}

void Candidates::Rollback() {
  classes_.swap(remembered_.classes);
  max_slope_ = remembered_.max_slope;
  slopes_changed_ = remembered_.slopes_changed;
  stage_ = Stage::kNone;
  TakeBack(remembered_.trial_count);
  for (Bounds& bounds : bounds_) {
    for (KeyBounds& of_kind : bounds.of) of_kind.Rollback();
  }
}

}  // namespace QuenloftSolver
