// SPDX-License-Identifier: MIT
//
// Eigen as the search uses it: without its own vectorisation and threads, so that every
// sum has the order of the source, whatever compiler builds it and processor runs it.

#pragma once

#define EIGEN_DONT_VECTORIZE
#define EIGEN_DONT_PARALLELIZE
#define EIGEN_MPL2_ONLY

#include <Eigen/Cholesky>
#include <Eigen/Core>
#include <Eigen/Eigenvalues>
#include <Eigen/QR>
