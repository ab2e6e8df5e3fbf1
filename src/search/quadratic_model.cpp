// SPDX-License-Identifier: MIT

#include "search/quadratic_model.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace QuenloftSearch {

using Eigen::Index;
using Eigen::MatrixXd;
using Eigen::VectorXd;

double QuadraticModel::At(const VectorXd& offset) const {
  return constant + gradient.dot(offset) + 0.5 * offset.dot(hessian * offset);
}

namespace {

// Directions count as missing when the squared offsets along them, in units of the radius, of
// the trials within kReach radii sum to less than kSpread.
constexpr double kReach = 2.5;
constexpr double kSpread = 0.01;

// The terms of a model, weighted: of its constant, its gradient and its Hessian.
MatrixXd Terms(const MatrixXd& offsets, const VectorXd& weights) {
  const Index n = offsets.rows();
  MatrixXd terms(offsets.cols(), (n + 1) * (n + 2) / 2);
  for (Index i = 0; i < offsets.cols(); ++i) {
    const auto s = offsets.col(i);
    const double weight = weights[i];
    Index column = 0;
    terms(i, column++) = weight;
    for (Index k = 0; k < n; ++k) terms(i, column++) = weight * s[k];
    for (Index k = 0; k < n; ++k) {
      terms(i, column++) = weight * (0.5 * s[k] * s[k]);
      for (Index l = 0; l < k; ++l) terms(i, column++) = weight * (s[k] * s[l]);
    }
  }
  return terms;
}

}  // namespace

// The minimiser has H = prior + sum of mu_i s_i s_i' / 2 with multipliers mu_i = w_i^2 e_i /
// smoothing for which sum of mu_i s_i = 0, and sum of mu_i = 0 where the constant is free.
// With nu_i = mu_i / w_i and r the differences less the prior's part, times w,
//
//     (K + smoothing I) nu + Y g = r,   Y' nu = 0,   K_ij = w_i w_j (s_i . s_j)^2 / 4,
//
// the rows of Y being w_i (s_i, 1). It is solved in the null space of Y', after a QR
// decomposition of Y.
QuadraticFit::QuadraticFit(const MatrixXd& offsets, double smoothing, Constant constant)
    : offsets_(offsets), constant_(constant), weight_(offsets.cols()) {
  const Index n = offsets.rows();
  const Index m = offsets.cols();
  has_more_points_ = constant == Constant::kFree && m > (n + 1) * (n + 2) / 2;
  for (Index i = 0; i < m; ++i) weight_[i] = 1.0 / std::max(1.0, offsets.col(i).squaredNorm());
  qr_.setThreshold(1e-9);
  if (has_more_points_) {
    qr_.compute(Terms(offsets, weight_));
    return;
  }
  const Index unknowns = constant == Constant::kFree ? n + 1 : n;
  MatrixXd linear(m, unknowns);
  for (Index i = 0; i < m; ++i) {
    linear.row(i).head(n) = weight_[i] * offsets.col(i).transpose();
    if (unknowns > n) linear(i, n) = weight_[i];
  }
  MatrixXd kernel(m, m);
  for (Index j = 0; j < m; ++j) {
    for (Index i = 0; i <= j; ++i) {
      const double product = offsets.col(i).dot(offsets.col(j));
      kernel(i, j) = kernel(j, i) = 0.25 * (weight_[i] * weight_[j]) * (product * product);
    }
    kernel(j, j) += smoothing;
  }
  qr_.compute(linear);
  const Index rank = qr_.rank();
  const auto q = qr_.householderQ().setLength(rank);
  kernel.applyOnTheLeft(q.adjoint());
  kernel.applyOnTheRight(q);
  kernel_ = kernel.topRightCorner(rank, m - rank);
  if (m > rank) llt_.compute(kernel.bottomRightCorner(m - rank, m - rank));
}

QuadraticModel QuadraticFit::Fit(const VectorXd& differences, const MatrixXd& prior) const {
  if (has_more_points_) return FitCoefficients(differences);
  const Index n = offsets_.rows();
  const Index m = offsets_.cols();
  const Index unknowns = constant_ == Constant::kFree ? n + 1 : n;
  VectorXd right(m);
  for (Index i = 0; i < m; ++i) {
    const auto s = offsets_.col(i);
    right[i] = weight_[i] * (differences[i] - 0.5 * s.dot(prior * s));
  }
  const Index rank = qr_.rank();
  const auto q = qr_.householderQ().setLength(rank);
  right.applyOnTheLeft(q.adjoint());
  VectorXd nu = VectorXd::Zero(m);
  if (m > rank) nu.tail(m - rank) = llt_.solve(right.tail(m - rank));
  VectorXd linear_part = VectorXd::Zero(unknowns);
  const VectorXd left = right.head(rank) - kernel_ * nu.tail(m - rank);
  linear_part.head(rank) =
      qr_.matrixR().topLeftCorner(rank, rank).triangularView<Eigen::Upper>().solve(left);
  linear_part = (qr_.colsPermutation() * linear_part).eval();
  nu.applyOnTheLeft(q);
  QuadraticModel model;
  model.constant = unknowns > n ? linear_part[n] : 0.0;
  model.gradient = linear_part.head(n);
  const MatrixXd scaled = offsets_ * (0.5 * nu.cwiseProduct(weight_)).asDiagonal();
  model.hessian = prior + scaled * offsets_.transpose();
  model.hessian = (0.5 * (model.hessian + model.hessian.transpose())).eval();
  return model;
}

// Least squares in the coefficients themselves.
QuadraticModel QuadraticFit::FitCoefficients(const VectorXd& differences) const {
  const Index n = offsets_.rows();
  const VectorXd solution = qr_.solve(weight_.cwiseProduct(differences));
  QuadraticModel model{solution[0], solution.segment(1, n), MatrixXd(n, n)};
  Index column = n + 1;
  for (Index k = 0; k < n; ++k) {
    model.hessian(k, k) = solution[column++];
    for (Index l = 0; l < k; ++l) {
      model.hessian(k, l) = model.hessian(l, k) = solution[column++];
    }
  }
  return model;
}

namespace {

// Moves `s` downhill to a point where no variable that is free to move would go further:
// Newton steps in the free variables, cut at the first bound they meet.
void Descend(const QuadraticModel& model, const VectorXd& lower, const VectorXd& upper,
             VectorXd& s) {
  const Index n = s.size();
  const double scale = std::max(model.hessian.cwiseAbs().maxCoeff(), 1e-300);
  std::vector<Index> free;
  std::vector<char> is_held(static_cast<std::size_t>(n), 0);
  for (Index round = 0; round < 8 * n + 8; ++round) {
    const VectorXd slope = model.gradient + model.hessian * s;
    free.clear();
    for (Index k = 0; k < n; ++k) {
      const bool is_out = (s[k] <= lower[k] && slope[k] >= 0.0) ||
                          (s[k] >= upper[k] && slope[k] <= 0.0) || lower[k] >= upper[k];
      if (!is_out) free.push_back(k);
    }
    if (free.empty()) return;
    const auto f = static_cast<Index>(free.size());
    MatrixXd hessian(f, f);
    VectorXd gradient(f);
    for (Index i = 0; i < f; ++i) {
      gradient[i] = slope[free[i]];
      for (Index j = 0; j < f; ++j) hessian(i, j) = model.hessian(free[i], free[j]);
    }
    VectorXd step;
    for (double shift = 0.0;; shift = shift == 0.0 ? 1e-10 * scale : shift * 10.0) {
      const MatrixXd shifted = hessian + shift * MatrixXd::Identity(f, f);
      const Eigen::LLT<MatrixXd> llt(shifted);
      if (llt.info() == Eigen::Success) {
        step = -llt.solve(gradient);
        if (step.allFinite()) break;
      }
      if (shift > 1e6 * scale) return;
    }
    const double descent = -gradient.dot(step);
    const double curvature = step.dot(hessian * step);
    if (!(descent > 0.0)) return;
    double length = curvature > 0.0 ? descent / curvature : 1e300;
    double most = 1e300;
    Index blocking = -1;
    for (Index i = 0; i < f; ++i) {
      const Index k = free[i];
      if (step[i] == 0.0) continue;
      const double room = (step[i] > 0.0 ? upper[k] - s[k] : lower[k] - s[k]) / step[i];
      if (room < most) {
        most = room;
        blocking = k;
      }
    }
    const bool is_blocked = most <= length;
    length = std::min(length, most);
    for (Index i = 0; i < f; ++i) {
      const Index k = free[i];
      s[k] = std::clamp(s[k] + length * step[i], lower[k], upper[k]);
    }
    if (is_blocked) {
      const Index k = blocking;
      s[k] = s[k] - lower[k] < upper[k] - s[k] ? lower[k] : upper[k];
    } else if (length * descent <= 1e-14 * std::abs(model.At(s) - model.constant)) {
      return;
    }
  }
}

// The best change of a single variable; false when none is worth it.
bool MoveOne(const QuadraticModel& model, const VectorXd& lower, const VectorXd& upper,
             VectorXd& s) {
  const VectorXd slope = model.gradient + model.hessian * s;
  double best_gain = 1e-10 * std::abs(model.At(s) - model.constant);
  Index best = -1;
  double best_value = 0.0;
  for (Index k = 0; k < s.size(); ++k) {
    const auto consider = [&](double value) {
      const double d = value - s[k];
      const double gain = -(slope[k] * d + 0.5 * model.hessian(k, k) * (d * d));
      if (gain > best_gain) {
        best_gain = gain;
        best = k;
        best_value = value;
      }
    };
    consider(lower[k]);
    consider(upper[k]);
  }
  if (best < 0) return false;
  s[best] = best_value;
  return true;
}

}  // namespace

VectorXd MinimiseInBox(const QuadraticModel& model, const VectorXd& lower, const VectorXd& upper) {
  VectorXd s = VectorXd::Zero(lower.size());
  for (Index round = 0; round < 2 * s.size() + 2; ++round) {
    Descend(model, lower, upper, s);
    if (!MoveOne(model, lower, upper, s)) break;
  }
  return s;
}

VectorXd MissingDirection(const MatrixXd& offsets, const VectorXd& lower, const VectorXd& upper) {
  const Index n = offsets.rows();
  MatrixXd spread = MatrixXd::Zero(n, n);
  for (Index i = 0; i < offsets.cols(); ++i) {
    if (offsets.col(i).squaredNorm() <= kReach * kReach) {
      spread += offsets.col(i) * offsets.col(i).transpose();
    }
  }
  const Eigen::SelfAdjointEigenSolver<MatrixXd> solver(spread);
  if (solver.eigenvalues()[0] >= kSpread) return {};
  VectorXd step = solver.eigenvectors().col(0);
  // Of the two ways the one with more room.
  double forth = 1.0;
  double back = 1.0;
  for (Index k = 0; k < n; ++k) {
    if (step[k] == 0.0) continue;
    forth = std::min(forth, (step[k] > 0.0 ? upper[k] : lower[k]) / step[k]);
    back = std::min(back, (step[k] > 0.0 ? lower[k] : upper[k]) / -step[k]);
  }
  if (std::max(forth, back) < 0.1) return {};
  return forth >= back ? VectorXd(forth * step) : VectorXd(-back * step);
}

}  // namespace QuenloftSearch
