// SPDX-License-Identifier: MIT
//
// A quadratic model of a function around a point, from its differences at other points.

#pragma once

#include "search/linear_algebra.h"

namespace QuenloftSearch {

// m(s) = c + g . s + s . H s / 2, the modelled difference to the value at the centre, s being
// the offset from there.
struct QuadraticModel {
  double constant = 0.0;
  Eigen::VectorXd gradient;
  Eigen::MatrixXd hessian;  // symmetric

  double At(const Eigen::VectorXd& offset) const;
};

// Whether a model takes the value at its centre, or comes as near to it as to others.
enum class Constant { kZero, kFree };

// Fits models to differences, the values at the columns of `offsets` less the value at the
// centre. Offsets are in units of the distance at which the model should be good: nearer
// points weigh 1, farther ones less.
//
// Of all models it minimises
//
//     |H - prior|^2 / 2  +  sum of (w_i e_i)^2 / (2 smoothing),
//
// Frobenius norm, e_i being what model and difference i differ by, w_i = 1 / max(1, |s_i|^2).
// With a small `smoothing` it interpolates where it can, with the Hessian that changes least
// (Powell 2004); of more points than it has parameters it is their least-squares model.
// Cost for m points in N variables: O(m^2 (m + N)), of each model O(m^2 + m N^2).
class QuadraticFit {
 public:
  QuadraticFit(const Eigen::MatrixXd& offsets, double smoothing,
               Constant constant = Constant::kZero);
  QuadraticModel Fit(const Eigen::VectorXd& differences, const Eigen::MatrixXd& prior) const;

 private:
  QuadraticModel FitCoefficients(const Eigen::VectorXd& differences) const;

  Eigen::MatrixXd offsets_;
  Constant constant_;
  bool has_more_points_;  // than parameters, the constant included
  Eigen::VectorXd weight_;
  // Of the linear terms; where there are more points, of all terms.
  Eigen::ColPivHouseholderQR<Eigen::MatrixXd> qr_;
  Eigen::MatrixXd kernel_;  // its rows for the range of the linear terms
  Eigen::LLT<Eigen::MatrixXd> llt_;
};

// A single model.
inline QuadraticModel FitQuadratic(const Eigen::MatrixXd& offsets,
                                   const Eigen::VectorXd& differences, const Eigen::MatrixXd& prior,
                                   double smoothing, Constant constant = Constant::kZero) {
  return QuadraticFit(offsets, smoothing, constant).Fit(differences, prior);
}

// The offset in the box lower <= s <= upper (which contains 0) where the model is lowest, as
// far as can be told: a local minimiser of the model that no change of a single variable
// improves, the minimiser where the model is convex.
Eigen::VectorXd MinimiseInBox(const QuadraticModel& model, const Eigen::VectorXd& lower,
                              const Eigen::VectorXd& upper);

// A step of a cube's radius in the direction in which the points near enough tell
// least; empty when they tell enough in all directions.
Eigen::VectorXd MissingDirection(const Eigen::MatrixXd& offsets, const Eigen::VectorXd& lower,
                                 const Eigen::VectorXd& upper);

}  // namespace QuenloftSearch
