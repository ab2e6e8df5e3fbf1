// SPDX-License-Identifier: MIT
//
// Seeding and drawing of the lagged Fibonacci source.

#include "testfunctions/lagged_fibonacci.h"

namespace QuenloftTestFunctions {

namespace {

constexpr double kUlp = 1.0 / (1LL << 52);
// Seeding squares a polynomial this many times: the separation of the streams.
constexpr int kSeparation = 70;
constexpr std::uint32_t kSeedMask = 0x3fffffff;

// a + b modulo 1, for a and b in [0, 1). Exact, both being multiples of kUlp.
double AddModuloOne(double a, double b) {
  const double sum = a + b;
  return sum - static_cast<double>(static_cast<int>(sum));
}

}  // namespace

// The initial state is a power of z modulo z^100 + z^37 + 1, the exponent being
// the seed's bits followed by kSeparation more, computed by squaring and
// multiplying by z. `u` carries the polynomial's coefficients as fractions, whose
// parity (whether the last bit is set) is carried in `ul`.
void LaggedFibonacciSource::lagged_fibonacci_seed(std::uint32_t seed) {
  constexpr int kLength = 2 * kLongLag - 1;
  std::array<double, kLength> u{};
  std::array<double, kLength> ul{};

  double bits = 2.0 * kUlp * ((seed & kSeedMask) + 2.0);
  for (int j = 0; j < kLongLag; ++j) {
    u[j] = bits;
    bits += bits;
    // A cyclic shift of 51 bits.
    if (bits >= 1.0) bits -= 1.0 - 2.0 * kUlp;
  }
  u[1] += kUlp;
  ul[1] = kUlp;

  const auto flip = [&ul](int j) { ul[j] = kUlp - ul[j]; };
  std::uint32_t exponent = seed & kSeedMask;
  int squarings = kSeparation - 1;
  while (squarings > 0) {
    // Square.
    for (int j = kLongLag - 1; j > 0; --j) {
      ul[2 * j] = ul[j];
      u[2 * j] = u[j];
    }
    for (int j = kLength - 1; j > kLongLag - kShortLag; j -= 2) {
      ul[kLength - j] = 0.0;
      u[kLength - j] = u[j] - ul[j];
    }
    // Reduce modulo the polynomial.
    for (int j = kLength - 1; j >= kLongLag; --j) {
      if (ul[j] == 0.0) continue;
      for (const int k : {j - (kLongLag - kShortLag), j - kLongLag}) {
        flip(k);
        u[k] = AddModuloOne(u[k], u[j]);
      }
    }
    if (exponent & 1) {
      // Multiply by z.
      for (int j = kLongLag; j > 0; --j) {
        ul[j] = ul[j - 1];
        u[j] = u[j - 1];
      }
      ul[0] = ul[kLongLag];
      u[0] = u[kLongLag];
      if (ul[kLongLag] != 0.0) {
        flip(kShortLag);
        u[kShortLag] = AddModuloOne(u[kShortLag], u[kLongLag]);
      }
    }
    if (exponent != 0) {
      exponent >>= 1;
    } else {
      --squarings;
    }
  }

  for (int j = 0; j < kShortLag; ++j) lagged_state_[j + kLongLag - kShortLag] = u[j];
  for (int j = kShortLag; j < kLongLag; ++j) lagged_state_[j - kShortLag] = u[j];
}

void LaggedFibonacciSource::lagged_fibonacci_fill(Block& block) {
  for (int j = 0; j < kLongLag; ++j) block[j] = lagged_state_[j];
  for (int j = kLongLag; j < kBlockLength; ++j) {
    block[j] = AddModuloOne(block[j - kLongLag], block[j - kShortLag]);
  }
  // The numbers after the block are the state for the next one.
  for (int i = 0; i < kLongLag; ++i) {
    const int j = kBlockLength + i;
    const double near = i < kShortLag ? block[j - kShortLag] : lagged_state_[i - kShortLag];
    lagged_state_[i] = AddModuloOne(block[j - kLongLag], near);
  }
}

}  // namespace QuenloftTestFunctions
