// SPDX-License-Identifier: MIT
//
// The search in N dimensions: its parts, and the method in terms of them.

#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "solver/candidates.h"
#include "solver/definition.h"
#include "solver/local_fit.h"
#include "solver/refresh.h"
#include "solver/search_state.h"
#include "solver/solver_base.h"
#include "solver/trial_store.h"

namespace QuenloftSolver {

// A deterministic, derivative-free Lipschitz-type search for the global minimum.
//
// Every trial keeps a table of near neighbours in well-spread directions. On each segment
// between neighbours the function is bounded below by a model with an overestimated slope; a
// step splits the segment with the lowest bound. Slopes are estimated per class, a class being
// an index (how many constraints hold) and a categorical combination.
//
// Invariants, between two steps:
//   (1) Trials are only appended; a trial's position never changes.
//   (2) Trials of different combinations are never neighbours.
//   (3) Every characteristic in the table of a linked trial is computed.
//   (4) All trials are registered, or what is left to be done for the newest stands in the state.
template <int N>
class Solver final : public SolverBase, private SegmentSource {
  using Coordinates = std::array<double, N>;

 public:
  explicit Solver(Definition definition);

  void Initialize() override;
  std::uint32_t Dimension() const override { return N; }
  std::uint32_t TripleDimension() const override { return 3 * N; }
  std::uint32_t TestCount() const override { return store_.Size(); }
  const TestBase* GetTest(std::uint32_t position) const override { return &store_[position]; }
  void Step() override;
  std::uint32_t InitialCount() const override { return problem_.InitialCount(); }
  Proposal Initial(std::uint32_t i) const override;
  std::optional<Proposal> Propose() override;
  bool Accept(const TestValue& value, const double* point = nullptr) override;
  void Discard() override;
  bool Insert(const double* point, std::uint32_t combination, const TestValue& value,
              std::uint32_t anchor) override;
  std::uint32_t Nearest(const double* point, std::uint32_t combination) const override;
  void Checkpoint() override;
  void Rollback() override;
  std::shared_ptr<SolverBase> Copy() const override;
  std::uint32_t BestPosition() const override { return state_.best_position; }
  const std::vector<std::int32_t>& CategoricalSizes() const override;
  std::uint32_t CombinationCount() const override { return problem_.combination_count; }
  const std::int32_t* DecodeCombination(std::uint32_t combination) const override;
  void ToBounds(const double* unit, double* bounded) const override;
  bool Fit(std::uint32_t position) override;
  void SetInterruptionCheck(std::function<void()> check) override;

  // For tests and benchmarks.
  const Test<N>& TrialAt(std::uint32_t position) const { return store_[position]; }
  const Candidates& GetCandidates() const { return candidates_; }
  WorkCounters Work() const;
  void ForceTeam(int threads) { forced_threads_ = threads; }  // however short a step

 private:
  // initial_trials_impl.h
  bool IsInitialising() const { return state_.initial_taken < InitialCount(); }
  bool ProposeInitial();
  void InitialIsTaken();
  void LinkInitialTrials();

  // iteration_step_impl.h
  bool ProposeSegment();
  void AcceptEvaluated();
  StepKind NextKind();
  Segment TakeSegment(StepKind kind);
  void PrefetchBehind(const CandidateList& list) const;
  Coordinates PointOn(const Segment& segment, StepKind kind) const;
  void Reserve(std::uint32_t combination);
  void Append(const PendingPoint<N>& point, const TestValue& value);
  void Register();
  void FloodAround(const Segment& segment, int whole_rings);
  void RebuildTables();
  void CountFits();
  TableRules Rules() const;
  bool UpdateBest(std::uint32_t position);

  // local_refinement_impl.h
  bool ProposeDueFit();
  void ReserveFit();
  bool ProposeFit(std::uint32_t position);
  bool ListFitData(std::uint32_t position);

  // segments_impl.h
  std::uint32_t ClassOf(const Test<N>& trial) const;
  std::size_t SegmentsOf(std::uint32_t position, ClassedSegment* segments) override;
  std::uint32_t CombinationOf(std::uint32_t position) const override;
  void Prefetch(std::uint32_t position) const override;

  Problem<N> problem_;
  TrialStore<N> store_;
  Refresh<N> refresh_;
  Candidates candidates_;
  SearchState<N> state_;
  SearchState<N> remembered_;  // at the checkpoint

  Scratch<std::vector<std::uint32_t>> fit_data_;
  Scratch<std::unique_ptr<LocalFit<N>>> local_fit_;
  std::function<void()> check_interruption_;  // may be replaced; empty for none
  int forced_threads_ = 0;                    // none
};

}  // namespace QuenloftSolver
