// SPDX-License-Identifier: MIT
//
// The search for some positions in a long row of them.

#pragma once

#include <cstddef>
#include <cstdint>

namespace QuenloftSolver {

inline constexpr std::size_t kScanned = 32;  // positions looked at in one call

// Bit j of the result tells whether the j-th of kScanned positions is one of the `count`
// sought.
using PositionScan = std::uint32_t (*)(const std::uint32_t* positions, const std::uint32_t* sought,
                                       std::size_t count);

// The one for the widest vectors that the processor has and lanes_allowed admits.
PositionScan FastestPositionScan();

}  // namespace QuenloftSolver
