// SPDX-License-Identifier: MIT
//
// Quadratic models against functions that are quadratic, and their minimiser in a box against
// a search of the box by brute force.

#include "search/quadratic_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace QuenloftSearch {
namespace {

using Eigen::Index;
using Eigen::MatrixXd;
using Eigen::VectorXd;

class QuadraticModelTest : public testing::Test {
 protected:
  double Uniform() { return std::uniform_real_distribution<double>(-1.0, 1.0)(generator_); }
  MatrixXd Matrix(Index rows, Index columns) {
    return MatrixXd::NullaryExpr(rows, columns, [this] { return Uniform(); });
  }
  QuadraticModel Random(Index n) {
    const MatrixXd half = Matrix(n, n);
    return {0.0, Matrix(n, 1), half + half.transpose()};
  }
  static VectorXd Values(const QuadraticModel& model, const MatrixXd& offsets) {
    VectorXd values(offsets.cols());
    for (Index i = 0; i < offsets.cols(); ++i) values[i] = model.At(offsets.col(i));
    return values;
  }

  std::mt19937 generator_{20240601};
};

TEST_F(QuadraticModelTest, RecoversAQuadraticFromEnoughPoints) {
  for (const Index n : {1, 2, 3, 5, 10}) {
    const QuadraticModel truth = Random(n);
    const Index parameters = (n + 1) * (n + 2) / 2;
    for (const Constant constant : {Constant::kZero, Constant::kFree}) {
      for (const Index count : {parameters, 2 * parameters}) {
        const MatrixXd offsets = 1.5 * Matrix(n, count);
        const QuadraticModel model =
            FitQuadratic(offsets, Values(truth, offsets), MatrixXd::Zero(n, n), 1e-12, constant);
        SCOPED_TRACE(testing::Message() << n << " variables, " << count << " points");
        EXPECT_NEAR(model.constant, 0.0, 1e-5);
        EXPECT_LT((model.gradient - truth.gradient).norm(), 1e-5);
        EXPECT_LT((model.hessian - truth.hessian).norm(), 1e-4);
      }
    }
  }
}

// Of all models through few points the one whose Hessian changes least: adding to it any
// quadratic that vanishes at the points makes the change larger.
TEST_F(QuadraticModelTest, ChangesTheHessianLeastWherePointsAreFew) {
  for (const Index n : {2, 3, 6}) {
    const QuadraticModel truth = Random(n);
    const QuadraticModel prior = Random(n);
    const Index parameters = n + n * (n + 1) / 2;
    const Index count = parameters - 1 - n / 2;
    const MatrixXd offsets = Matrix(n, count);
    const QuadraticModel model =
        FitQuadratic(offsets, Values(truth, offsets), prior.hessian, 1e-12);
    EXPECT_LT((Values(model, offsets) - Values(truth, offsets)).norm(), 1e-6);
    // The quadratics that vanish, as the null space of the matrix of terms.
    MatrixXd terms(count, parameters);
    for (Index i = 0; i < count; ++i) {
      const VectorXd s = offsets.col(i);
      Index column = 0;
      for (Index k = 0; k < n; ++k) terms(i, column++) = s[k];
      for (Index k = 0; k < n; ++k) {
        for (Index l = 0; l <= k; ++l) terms(i, column++) = (k == l ? 0.5 : 1.0) * s[k] * s[l];
      }
    }
    const Eigen::HouseholderQR<MatrixXd> qr(terms.transpose());
    const MatrixXd q = qr.householderQ();
    const MatrixXd change = model.hessian - prior.hessian;
    for (Index column = count; column < parameters; ++column) {
      double product = 0.0;  // Frobenius, of the change and a Hessian that vanishes
      Index entry = n;
      for (Index k = 0; k < n; ++k) {
        for (Index l = 0; l <= k; ++l) {
          product += (k == l ? 1.0 : 2.0) * q(entry++, column) * change(k, l);
        }
      }
      EXPECT_NEAR(product, 0.0, 1e-6) << n << " variables";
    }
  }
}

TEST_F(QuadraticModelTest, GivesNoSlopeInDirectionsWithoutPoints) {
  MatrixXd offsets(3, 2);
  offsets << 0.5, -0.5, 0.0, 0.0, 0.0, 0.0;
  const QuadraticModel model =
      FitQuadratic(offsets, VectorXd::Constant(2, 0.25), MatrixXd::Zero(3, 3), 1e-12);
  EXPECT_NEAR(model.hessian(0, 0), 2.0, 1e-6);
  EXPECT_LT(model.gradient.norm(), 1e-9);
  EXPECT_LT(model.hessian.norm(), 2.0 + 1e-6);
}

TEST_F(QuadraticModelTest, MinimisesInABoxAsWellAsAGridOfStarts) {
  int worse = 0;
  int all = 0;
  for (const Index n : {1, 2, 3}) {
    for (int round = 0; round < 60; ++round, ++all) {
      const QuadraticModel model = Random(n);
      const VectorXd lower = -Matrix(n, 1).cwiseAbs();
      const VectorXd upper = Matrix(n, 1).cwiseAbs();
      const VectorXd s = MinimiseInBox(model, lower, upper);
      ASSERT_TRUE((s.array() >= lower.array()).all() && (s.array() <= upper.array()).all());
      double least = 0.0;
      const int steps = n == 3 ? 30 : 200;
      VectorXd point(n);
      for (int cell = 0; cell < std::pow(steps + 1, n); ++cell) {
        int rest = cell;
        for (Index k = 0; k < n; ++k, rest /= steps + 1) {
          point[k] = lower[k] + (upper[k] - lower[k]) * (rest % (steps + 1)) / steps;
        }
        least = std::min(least, model.At(point));
      }
      if (model.At(s) > least + 1e-9) ++worse;
    }
  }
  EXPECT_LE(worse, all / 20) << "of " << all << " models, convex or not";
}

TEST_F(QuadraticModelTest, FindsTheMinimiserOfIllConditionedConvexModels) {
  for (const Index n : {2, 8, 32}) {
    const MatrixXd q = Eigen::HouseholderQR<MatrixXd>(Matrix(n, n)).householderQ();
    VectorXd curvature(n);
    for (Index k = 0; k < n; ++k) curvature[k] = std::pow(10.0, 6.0 * k / (n - 1.0));
    const VectorXd minimiser = 0.3 * Matrix(n, 1);
    QuadraticModel model;
    model.hessian = q * curvature.asDiagonal() * q.transpose();
    model.gradient = -(model.hessian * minimiser);
    const VectorXd s =
        MinimiseInBox(model, VectorXd::Constant(n, -1.0), VectorXd::Constant(n, 1.0));
    EXPECT_LT((s - minimiser).norm(), 1e-6) << n << " variables";
  }
}

}  // namespace
}  // namespace QuenloftSearch
