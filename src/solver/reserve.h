// SPDX-License-Identifier: MIT
//
// Room made beforehand.

#pragma once

namespace QuenloftSolver {

// So that a next element needs no memory. Vectors grow as they do by themselves.
template <typename Vector>
void ReserveOneMore(Vector& vector) {
  if (vector.size() == vector.capacity()) vector.reserve(2 * vector.size() + 1);
}

}  // namespace QuenloftSolver
