// SPDX-License-Identifier: MIT
//
// The whole search as the method is written: plain, on one thread, every table
// walked, every cosine computed. Of the engine it has plain records and the constants, and
// nothing that computes. Tests compare the engine with it bit for bit, and the benchmark
// divides by it.

#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <vector>

#include "reference_fit.h"
#include "solver/candidate_list.h"
#include "solver/constants.h"
#include "solver/errors.h"
#include "solver/function_interface.h"
#include "solver/solver_base.h"

namespace QuenloftSolver::reference {

// Face 2k is that of axis k at 0, face 2k + 1 the one at 1; in tables stands the complement.
inline bool IsFace(std::int32_t test) { return test < 0; }
inline int AxisOf(std::int32_t test) { return (-1 - test) / 2; }
inline double SideOf(std::int32_t test) { return (-1 - test) % 2 == 0 ? 0.0 : 1.0; }

template <int N>
struct Extent {
  std::array<double, N> minimum;
  std::array<double, N> maximum;

  Extent() {
    minimum.fill(kUnset);
    maximum.fill(kUnset);
  }
  bool IsSet() const { return minimum[0] != kUnset; }
  void SetTo(const std::array<double, N>& point) { minimum = maximum = point; }
  void Widen(const std::array<double, N>& point) {
    for (int k = 0; k < N; ++k) {
      if (minimum[k] > point[k]) {
        minimum[k] = point[k];
      } else if (point[k] > maximum[k]) {
        maximum[k] = point[k];
      }
    }
  }
  void WidenToFace(std::int32_t test) {
    (SideOf(test) == 0.0 ? minimum : maximum)[AxisOf(test)] = SideOf(test);
  }
  bool Contains(const std::array<double, N>& point) const {
    for (int k = 0; k < N; ++k) {
      if (!(minimum[k] <= point[k] && point[k] <= maximum[k])) return false;
    }
    return true;
  }
};

template <int N>
struct Trial {
  std::uint32_t combination = kNone;
  TestValue value{-1, kUnset};
  std::array<double, N> coordinate;
  reference::Extent<N> extent;
  double radius = kUnbounded;
  double slope = kUnbounded;
  std::uint32_t flags = 0;
  std::array<Neighbour, 3 * N> neighbours;
};

struct List {
  bool used = false;
  std::vector<Candidate> entries;

  void Offer(const Candidate& offered, bool full_mode) {
    used = true;
    auto place = std::lower_bound(entries.begin(), entries.end(), offered.key,
                                  [](const Candidate& c, double key) { return c.key < key; });
    for (; place != entries.end() && place->key == offered.key; ++place) {
      if (place->position == offered.position && place->test == offered.test) return;
    }
    if (entries.size() == kListCapacity) {
      if (place == entries.begin()) return;
      entries.insert(place, offered);
      entries.erase(entries.begin());
    } else if (full_mode || place != entries.begin()) {
      entries.insert(place, offered);
    }
  }
};

template <int N>
class Solver {
  using Flags = SolverBase::TestBase;

 public:
  Solver(const std::vector<double>& bounds, const std::vector<std::int32_t>& sizes,
         const std::vector<FunctionInterface*>& functions, const SearchParameters& parameters)
      : parameters_(parameters), functions_(functions), sizes_(sizes) {
    spread_cosine_ = std::cos(2.0 * 3.14159265358979323846 / parameters.spread);
    for (int k = 0; k < N; ++k) {
      width_[k] = bounds[2 * k + 1] - bounds[2 * k];
      lower_[k] = bounds[2 * k];
    }
    for (const int size : sizes) combinations_ *= static_cast<std::uint32_t>(size);
    const std::size_t classes = combinations_ * functions.size();
    slopes.resize(classes);
    class_changed_.resize(classes);
    local_lists.resize(classes);
    global_lists.resize(classes);
    index_min_.assign(functions.size(), kUnbounded);
  }

  void Step() {
    if (tests.empty()) Initialize();
    Trial<N> trial;
    const bool local = !slopes_changed_ && alternation_ >= 1.0;
    if (local) {
      trial.flags = Flags::kFromLocalStep;
      alternation_ -= 1.0;
    } else if (!slopes_changed_) {
      alternation_ += parameters_.local_vs_global;
    }
    const auto [anchor, partner] = SelectCandidate(local ? local_lists : global_lists);
    trial.combination = tests[anchor].combination;
    const Trial<N>& a = tests[anchor];
    if (IsFace(partner)) {
      trial.coordinate = a.coordinate;
      double& x = trial.coordinate[AxisOf(partner)];
      x = (SideOf(partner) + x) * 0.5;
    } else {
      const Trial<N>& b = tests[partner];
      const double d = Distance(a, b);
      const double slope = local ? Usable(a.slope) * parameters_.overestimation_local
                                 : Usable(slopes[ClassOf(a)]) * parameters_.overestimation;
      const double t = a.value.index == b.value.index
                           ? (d - (b.value.value - a.value.value) / slope) * 0.5 / d
                           : 0.5;
      for (int k = 0; k < N; ++k) {
        trial.coordinate[k] = a.coordinate[k] + t * (b.coordinate[k] - a.coordinate[k]);
      }
      if (trial.coordinate == b.coordinate) return;
    }
    if (trial.coordinate == a.coordinate) return;
    trial.value = EvaluateAt(trial);
    if (!AddTrial(trial, anchor, partner, IsFace(partner) ? 2 : 1)) return;
    for (std::uint32_t i = 0; i < parameters_.fit && Fit(best_position); ++i) {
    }
  }

  bool Fit(std::uint32_t position) {
    Trial<N> trial;
    trial.flags = Flags::kFromFit;
    const Trial<N> a = tests[position];
    trial.combination = a.combination;
    ResetChanged();
    List(position);
    for (const Neighbour& e : a.neighbours) {
      if (e.test == kNone) break;
      if (!IsFace(e.test) && tests[e.test].value.index == a.value.index) List(e.test);
    }
    if (changed_.size() < 2 * N + 1) return false;
    std::vector<Observation<N>> data;
    for (const auto p : changed_) data.push_back({tests[p].coordinate, tests[p].value.value});
    const auto [model, error] = FitModel<N>(data, a.coordinate, a.value.value);
    if (error > 0.001) return false;
    trial.coordinate = MinimiseModel<N>(model, a.coordinate);
    for (int k = 0; k < N; ++k) {
      const double x = trial.coordinate[k];
      if (x < 0.0 || x > 1.0) return false;
      if (a.extent.IsSet() && (a.extent.minimum[k] > x || x > a.extent.maximum[k])) return false;
    }
    trial.value = EvaluateAt(trial);
    return AddTrial(trial, position, kNone, 2);
  }

  std::vector<Trial<N>> tests;
  std::uint32_t best_position = 0;
  std::vector<double> slopes;
  std::vector<reference::List> local_lists, global_lists;

 private:
  struct Record {
    std::int32_t test;
    std::array<double, N> d;
    double dist;
    double slope;
    double max_cos = 0.0;
  };

  std::uint32_t ClassOf(const Trial<N>& t) const {
    return static_cast<std::uint32_t>(t.value.index) * combinations_ + t.combination;
  }
  double Usable(double slope) const {
    return slope != 0.0 ? slope : max_slope_ != 0.0 ? max_slope_ : 1.0;
  }
  static double Distance(const Trial<N>& a, const Trial<N>& b) {
    double sum = 0.0;
    for (int k = 0; k < N; ++k) {
      const double d = b.coordinate[k] - a.coordinate[k];
      sum += d * d;
    }
    return std::sqrt(sum);
  }

  TestValue EvaluateAt(const Trial<N>& t) {
    std::array<double, N> x;
    for (int k = 0; k < N; ++k) x[k] = width_[k] * t.coordinate[k] + lower_[k];
    std::vector<std::int32_t> categories;
    std::uint32_t rest = t.combination;
    for (const int size : sizes_) {
      categories.push_back(static_cast<int>(rest % static_cast<std::uint32_t>(size)));
      rest /= static_cast<std::uint32_t>(size);
    }
    for (std::size_t i = 0;; ++i) {
      const double value = (*functions_[i])(x.data(), sizes_.empty() ? nullptr : categories.data());
      if (!std::isfinite(value)) throw EvaluationError();
      if (i + 1 == functions_.size() || value > 0.0) return {static_cast<int>(i), value};
    }
  }

  void Initialize() {
    std::array<double, N> centre;
    centre.fill(0.5);
    std::vector<std::array<double, N>> points{centre};
    for (int k = 0; k < N && parameters_.cross != 0.0; ++k) {
      for (const double sign : {-1.0, 1.0}) {
        points.push_back(centre);
        points.back()[k] = 0.5 + sign * (parameters_.cross / 2.0);
      }
    }
    for (const auto& point : points) {
      for (std::uint32_t c = 0; c < combinations_; ++c) {
        Trial<N> t;
        t.coordinate = point;
        t.combination = c;
        t.value = EvaluateAt(t);
        tests.push_back(t);
      }
    }
    for (std::uint32_t p = 0; p < tests.size(); ++p) {
      SelectNeighbours(tests[p]);
      Register(p);
    }
    UpdateCandidates();
  }

  struct Segment {
    std::uint32_t anchor;
    std::int32_t partner;
  };
  Segment SelectCandidate(std::vector<reference::List>& lists) {
    double best_ratio = -kUnbounded;
    reference::List* chosen = nullptr;
    for (std::uint32_t c = 0; c < lists.size(); ++c) {
      if (lists[c].entries.empty()) continue;
      double key = lists[c].entries.back().key;
      if (functions_.size() > 1 && static_cast<int>(c / combinations_) == best_.index) {
        key += slopes[c] * parameters_.reserve + index_min_[best_.index];
      }
      const double ratio = key / Usable(slopes[c]);
      if (ratio > best_ratio) {
        best_ratio = ratio;
        chosen = &lists[c];
      }
    }
    if (chosen == nullptr) throw SearchExhausted();
    const Candidate candidate = chosen->entries.back();
    chosen->entries.pop_back();
    return {candidate.position, candidate.test};
  }

  bool Register(std::uint32_t p) {
    const TestValue v = tests[p].value;
    index_min_[v.index] = std::min(index_min_[v.index], v.value);
    if (v.index < best_.index || (v.index == best_.index && !(best_.value > v.value))) return false;
    best_ = v;
    best_position = p;
    return true;
  }

  void List(std::uint32_t p) {
    tests[p].flags |= Flags::kExcluded;
    changed_.push_back(p);
  }

  void ResetChanged() {
    for (const auto p : changed_) tests[p].flags &= ~(Flags::kExcluded | Flags::kChanged);
    changed_.clear();
    changed_.push_back(static_cast<std::uint32_t>(tests.size() - 1));
  }

  bool AddTrial(const Trial<N>& trial, std::uint32_t anchor, std::int32_t partner, int rings) {
    tests.push_back(trial);
    Trial<N>& newest = tests.back();
    ResetChanged();
    newest.extent.SetTo(newest.coordinate);
    newest.extent.Widen(tests[anchor].coordinate);
    List(anchor);
    if (IsFace(partner)) {
      newest.extent.WidenToFace(partner);
    } else if (partner != kNone) {
      newest.extent.Widen(tests[partner].coordinate);
      List(partner);
    }
    std::vector<std::uint32_t> ring = changed_;
    for (int r = 0; !ring.empty(); ++r) {
      std::vector<std::uint32_t> next;
      for (const auto p : ring) {
        for (const Neighbour& e : tests[p].neighbours) {
          if (e.test == kNone) break;
          if (IsFace(e.test)) {
            if (r < rings) newest.extent.WidenToFace(e.test);
            continue;
          }
          const Trial<N>& q = tests[e.test];
          if (q.flags & Flags::kExcluded) continue;
          if (r < rings) {
            newest.extent.Widen(q.coordinate);
          } else if (newest.extent.IsSet() && !newest.extent.Contains(q.coordinate)) {
            continue;
          }
          List(e.test);
          next.push_back(e.test);
        }
      }
      ring = next;
    }
    for (const auto p : changed_) {
      Trial<N>& t = tests[p];
      if (!t.extent.IsSet() || t.extent.Contains(newest.coordinate)) SelectNeighbours(t);
    }
    const bool improved = Register(static_cast<std::uint32_t>(tests.size() - 1));
    UpdateCandidates();
    return improved;
  }

  void SelectNeighbours(Trial<N>& t) {
    std::vector<std::int32_t> candidates;
    const bool whole_store = changed_.empty();
    if (whole_store) {
      for (std::size_t p = 0; p < tests.size(); ++p) candidates.push_back(static_cast<int>(p));
    } else {
      for (const Neighbour& e : t.neighbours) candidates.push_back(e.test);
      candidates.insert(candidates.end(), changed_.begin(), changed_.end());
    }
    bool lowest = true;
    std::vector<Record> records;
    for (std::size_t i = 0; i < candidates.size(); ++i) {
      if (candidates[i] == kNone || IsFace(candidates[i])) continue;
      Trial<N>& p = tests[candidates[i]];
      if (&p == &t || p.combination != t.combination) continue;
      if (!whole_store && i < 3 * N && (p.flags & Flags::kExcluded)) continue;
      Record r{candidates[i], {}, Distance(t, p), 0.0};
      for (int k = 0; k < N; ++k) r.d[k] = p.coordinate[k] - t.coordinate[k];
      if (!(r.dist != 0.0 && r.dist <= t.radius)) continue;
      if (p.value.index == t.value.index) {
        if (t.value.value > p.value.value) lowest = false;
        if (p.value.value > t.value.value) p.flags &= ~Flags::kLocal;
        r.slope = std::fabs(p.value.value - t.value.value) / r.dist;
      }
      records.push_back(r);
    }
    for (int face = 0; face < 2 * N; ++face) {
      Record r{-1 - face, {}, 0.0, 0.0};
      r.d[face / 2] = face % 2 - t.coordinate[face / 2];
      r.dist = std::fabs(r.d[face / 2]);
      if (r.dist != 0.0) records.push_back(r);
    }

    std::vector<std::size_t> chosen;
    while (chosen.size() < 3 * N) {
      constexpr double kChosen = std::numeric_limits<double>::max();
      std::size_t best = records.size();
      double best_score = kChosen;
      double min_cos = kChosen;
      for (std::size_t i = 0; i < records.size(); ++i) {
        Record& r = records[i];
        if (r.max_cos == kChosen) continue;
        if (chosen.empty()) {
          if (IsFace(r.test) && tests.size() > combinations_) continue;
        } else {
          const Record& last = records[chosen.back()];
          double dot = 0.0;
          for (int k = 0; k < N; ++k) dot += r.d[k] * last.d[k];
          const double cosine = dot / (r.dist * last.dist);
          if (cosine > r.max_cos) r.max_cos = cosine;
        }
        min_cos = std::min(min_cos, r.max_cos);
        if (!(r.max_cos < 1.0)) continue;
        const double score = r.dist / (1.0 - r.max_cos) * (IsFace(r.test) ? 2.0 : 1.0);
        if (score < best_score) {
          best_score = score;
          best = i;
        }
      }
      if (best == records.size() || min_cos > spread_cosine_) break;
      chosen.push_back(best);
      // The mark shares the field, so what the last one's cosine was is not lost.
      records[best].max_cos = kChosen;
    }

    t.radius = t.slope = 0.0;
    t.extent.SetTo(t.coordinate);
    t.neighbours.fill({});
    t.flags &= ~(Flags::kBoundary | Flags::kLocal);
    t.flags |= Flags::kChanged;
    if (lowest && t.value.index == best_.index) t.flags |= Flags::kLocal;
    for (std::size_t j = 0; j < chosen.size(); ++j) {
      const Record& r = records[chosen[j]];
      t.neighbours[j] = {r.test, r.dist, kUnset, kUnset};
      t.radius = std::max(t.radius, r.dist);
      t.slope = std::max(t.slope, r.slope);
      if (IsFace(r.test)) {
        t.flags |= Flags::kBoundary;
        t.extent.WidenToFace(r.test);
      } else {
        t.extent.Widen(tests[r.test].coordinate);
      }
    }
    if (t.slope > slopes[ClassOf(t)]) {
      slopes_changed_ = true;
      class_changed_[ClassOf(t)] = true;
      slopes[ClassOf(t)] = t.slope;
      max_slope_ = std::max(max_slope_, t.slope);
    }
  }

  void Compact(reference::List& list, double Neighbour::*characteristic) {
    std::vector<Candidate> kept;
    for (const Candidate& c : list.entries) {
      for (const Neighbour& e : tests[c.position].neighbours) {
        if (e.test != c.test) continue;
        if (e.*characteristic != kUnset) kept.push_back(c);
        break;
      }
    }
    list.entries = kept;
  }

  void UpdateCandidates() {
    bool full = changed_.empty();
    for (std::size_t c = 0; c < slopes.size(); ++c) {
      if (class_changed_[c]) global_lists[c].entries.clear();
      Compact(local_lists[c], &Neighbour::local_characteristic);
      Compact(global_lists[c], &Neighbour::global_characteristic);
      for (const auto* list : {&local_lists[c], &global_lists[c]}) {
        if (list->used && list->entries.empty()) full = true;
      }
    }
    if (full) {
      for (std::uint32_t p = 0; p < tests.size(); ++p) OfferSegments(p, true);
    } else {
      for (const auto p : changed_) {
        if (tests[p].flags & Flags::kChanged) OfferSegments(p, false);
      }
    }
    class_changed_.assign(class_changed_.size(), false);
    slopes_changed_ = false;
  }

  void OfferSegments(std::uint32_t p, bool full) {
    for (Neighbour& e : tests[p].neighbours) {
      if (e.test == kNone) break;
      const Trial<N>* a = &tests[p];
      const Trial<N>* b = IsFace(e.test) ? nullptr : &tests[e.test];
      if (b != nullptr && b->value.index > a->value.index) std::swap(a, b);
      const std::uint32_t c = ClassOf(*a);
      const auto characteristic = [&](double m) {
        if (b != nullptr && b->value.index == a->value.index) {
          return (m * e.distance - a->value.value - b->value.value) / 2.0;
        }
        return m * e.distance - a->value.value;
      };
      if (e.local_characteristic == kUnset) {
        e.local_characteristic =
            characteristic(Usable(a->slope) * parameters_.overestimation_local);
      }
      if (e.global_characteristic == kUnset || class_changed_[c]) {
        e.global_characteristic = characteristic(Usable(slopes[c]) * parameters_.overestimation);
      }
      local_lists[c].Offer({e.local_characteristic, p, e.test}, full);
      global_lists[c].Offer({e.global_characteristic, p, e.test}, full);
    }
  }

  const SearchParameters parameters_;
  const std::vector<FunctionInterface*> functions_;
  const std::vector<std::int32_t> sizes_;
  double spread_cosine_;
  std::array<double, N> width_, lower_;
  std::uint32_t combinations_ = 1;
  double alternation_ = 0.0;
  double max_slope_ = 0.0;
  bool slopes_changed_ = false;
  std::vector<bool> class_changed_;
  std::vector<double> index_min_;
  TestValue best_{-1, kUnset};
  std::vector<std::uint32_t> changed_;
};

}  // namespace QuenloftSolver::reference
