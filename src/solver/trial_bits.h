// SPDX-License-Identifier: MIT
//
// One bit for each trial.

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace QuenloftSolver {

class TrialBits {
 public:
  void Reserve(std::size_t count) { words_.reserve(WordsFor(count)); }
  // New trials bear 0.
  void Resize(std::size_t count) { words_.resize(WordsFor(count)); }

  bool operator[](std::uint32_t position) const {
    return ((words_[position / kBits] >> position % kBits) & 1) != 0;
  }
  void Set(std::uint32_t position) { words_[position / kBits] |= MaskOf(position); }
  void Clear(std::uint32_t position) { words_[position / kBits] &= ~MaskOf(position); }
  // And the bits that share its word.
  void ClearAround(std::uint32_t position) { words_[position / kBits] = 0; }

 private:
  static constexpr std::uint32_t kBits = 64;
  static std::size_t WordsFor(std::size_t count) { return (count + kBits - 1) / kBits; }
  static std::uint64_t MaskOf(std::uint32_t position) {
    return std::uint64_t{1} << position % kBits;
  }

  std::vector<std::uint64_t> words_;
};

}  // namespace QuenloftSolver
