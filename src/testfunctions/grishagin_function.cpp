// SPDX-License-Identifier: MIT
//
// Coefficients, values and minimizers of the Grishagin functions.

#include "testfunctions/grishagin_function.h"

#include <cmath>
#include <cstddef>

namespace QuenloftTestFunctions {

namespace {

constexpr int kFunctionCount = 100;
// Functions 10 g + 1 to 10 g + 10 share the stream that starts from kSeeds[g].
constexpr int kGroupSize = 10;
constexpr double kPi = 3.141592653589793;

// The registers' initial bits, the first bit on the left.
constexpr int kBits = 45;
constexpr const char* kSeeds[] = {
    "001110101100101111011010010101011010101111000",
    "011101001001100001001111101011000010110010111",
    "110000000111000011011001100001011001110100100",
    "001011000001010100011100111000100000000100100",
    "101001101010110110000110110111000110001000011",
    "010001100101000000101101110000001110111111010",
    "100111011010110000011111011110010100000000100",
    "011111111101000001000101100010011100111011111",
    "111001110100011111100111110011110101010001101",
    "100111011110111011000111110000001101101000000",
};

// clang-format off
constexpr GrishaginFunction::Minimizer kMinimizers[kFunctionCount] = {
    {0.603052, 0.408337}, {0.652988, 0.320592}, {1, 0}, {0.066182, 0.582587},
    {0.904308, 0.872639}, {0.344375, 0.524932}, {0, 1}, {0.948275, 0.887031},
    {0.226047, 0.520153}, {0.341732, 0.19762}, {0.069264, 0.430955}, {0, 1},
    {0.45221, 0.07292}, {0.579769, 0.046396}, {0, 1}, {0.310179, 1},
    {0.909758, 0.926195}, {0.434562, 0.825608}, {0.06686, 0.77051}, {0.641337, 0.135186},
    {0.885029, 0.390289}, {0.64965, 0.414282}, {0.142623, 0.157327}, {0.862953, 1},
    {0.46036, 0.99314}, {0.379189, 0.688051}, {0.845292, 0.424546}, {0.44116, 0.016803},
    {1, 1}, {0.303295, 0.134722}, {0.10952, 0.265486}, {1, 0},
    {0.593726, 0.503014}, {0.694905, 1}, {0.051975, 0.409344}, {0.125664, 0.518969},
    {0, 0}, {0.155081, 0.238663}, {0.53707, 0.46181}, {0.110985, 0.917791},
    {1, 0}, {0.776095, 0.764724}, {0.087367, 0.677632}, {0.308037, 0.536113},
    {0.0421, 0.563607}, {0.287025, 0.159219}, {0.451926, 0.169839}, {0.884761, 0.245341},
    {0.047782, 0.171633}, {0, 0.41596}, {0.192108, 0.303789}, {0.554153, 0.809821},
    {0.91475, 0.54149}, {0.661592, 0.925902}, {0.962924, 0.43668}, {0, 0},
    {0.616058, 0.560244}, {0.43989, 0.343722}, {0.218146, 0.677192}, {1, 1},
    {0.198145, 0.317876}, {0.875874, 0.653336}, {0.22999, 0.33624}, {0.169351, 0.015656},
    {0.760073, 0.906035}, {0.702941, 0.308403}, {0.365371, 0.282325}, {0.314012, 0.651377},
    {0.237687, 0.374368}, {0.586334, 0.508672}, {0, 0}, {0.383319, 1},
    {0.780103, 0.103783}, {0.350265, 0.566946}, {0.798535, 0.478706}, {0.31759, 0.06967},
    {0.715929, 0.704778}, {0.56304, 0.442557}, {0.565078, 0.322618}, {0.146731, 0.510509},
    {0, 0.543167}, {0.208533, 0.454252}, {0.155111, 0.972329}, {0, 1},
    {0.336467, 0.909056}, {0.57001, 0.90847}, {0.29629, 0.540579}, {0.172262, 0.332732},
    {0, 1}, {1, 0}, {1, 1}, {0.674061, 0.869954},
    {1, 1}, {0.852506, 0.637278}, {0.877491, 0.39978}, {0.835605, 0.751888},
    {0.673378, 0.827427}, {0.831754, 0.367117}, {0.601971, 0.734465}, {0, 0},
};
// clang-format on

// A register of 45 bits, the most significant first, that is shifted, combined
// with itself and added to itself for each number. Bits 0..8 and 9..44 are
// separate numbers as far as addition goes; the second is the fraction drawn.
class ShiftRegister {
 public:
  explicit ShiftRegister(const char* seed) {
    for (int i = 0; i < kBits; ++i) bits[i] = seed[i] - '0';
  }

  // The next number, a multiple of 2^-36 in [0, 1).
  double grishagin_random() {
    Bits shifted{};
    for (int i = 0; i + kLeftShift < kBits; ++i) shifted[i] = bits[i + kLeftShift];
    for (int i = 0; i < kBits; ++i) bits[i] ^= shifted[i];

    shifted.fill(0);
    for (int i = kRightShift; i < kBits; ++i) shifted[i] = bits[i - kRightShift];
    bit_array_add(shifted, kFractionStart, kBits - 1);
    bit_array_add(shifted, 0, kFractionStart - 1);

    double fraction = 0.0;
    double weight = 0.5;
    for (int i = kFractionStart; i < kBits; ++i, weight *= 0.5) fraction += bits[i] * weight;
    return fraction;
  }

 private:
  using Bits = std::array<unsigned char, kBits>;
  static constexpr int kLeftShift = 7;
  static constexpr int kRightShift = 27;
  static constexpr int kFractionStart = 9;

  // Adds `summand` to the number in bits lo..hi. The carry out of its first bit
  // goes round to its last one; the carry out of that second pass is dropped.
  void bit_array_add(const Bits& summand, int lo, int hi) {
    int carry = 0;
    for (int i = hi; i >= lo; --i) {
      const int sum = bits[i] + summand[i] + carry;
      bits[i] = sum % 2;
      carry = sum / 2;
    }
    for (int i = hi; i >= lo && carry != 0; --i) {
      const int sum = bits[i] + carry;
      bits[i] = sum % 2;
      carry = sum / 2;
    }
  }

  Bits bits;
};

// sin(k angle) and cos(k angle) for k = 1..Count, in [k - 1], from one call of
// each by the addition theorem.
template <std::size_t Count>
void Harmonics(double angle, std::array<double, Count>& sine, std::array<double, Count>& cosine) {
  sine[0] = std::sin(angle);
  cosine[0] = std::cos(angle);
  for (std::size_t k = 1; k < Count; ++k) {
    sine[k] = cosine[k - 1] * sine[0] + sine[k - 1] * cosine[0];
    cosine[k] = cosine[k - 1] * cosine[0] - sine[k - 1] * sine[0];
  }
}

}  // namespace

GrishaginFunction::GrishaginFunction(std::int32_t number)
    : function_number(number < 1 || number > kFunctionCount ? 1 : number) {
  const int group = (function_number - 1) / kGroupSize;
  const int place_in_group = (function_number - 1) % kGroupSize;
  ShiftRegister source(kSeeds[group]);
  constexpr int kNumbersPerFunction = 4 * kHarmonics * kHarmonics;
  for (int i = 0; i < kNumbersPerFunction * place_in_group; ++i) source.grishagin_random();

  const auto draw = [&source](Coefficients& first, Coefficients& second) {
    for (int j = 0; j < kHarmonics; ++j) {
      for (int i = 0; i < kHarmonics; ++i) {
        first[i][j] = 2.0 * source.grishagin_random() - 1.0;
        second[i][j] = 2.0 * source.grishagin_random() - 1.0;
      }
    }
  };
  draw(A, C);
  draw(B, D);
}

double GrishaginFunction::grishagin_value(double x, double y) const {
  std::array<double, kHarmonics> sine_x, cosine_x, sine_y, cosine_y;
  Harmonics(kPi * x, sine_x, cosine_x);
  Harmonics(kPi * y, sine_y, cosine_y);

  // Term by term in this order: it decides the last bits.
  double P = 0.0;
  double Q = 0.0;
  for (int i = 0; i < kHarmonics; ++i) {
    for (int j = 0; j < kHarmonics; ++j) {
      P += (cosine_x[i] * B[i][j]) * cosine_y[j] + (sine_x[i] * A[i][j]) * sine_y[j];
      Q += (sine_x[i] * C[i][j]) * sine_y[j] - (cosine_x[i] * D[i][j]) * cosine_y[j];
    }
  }
  return 4.0 - std::sqrt(P * P + Q * Q);
}

GrishaginFunction::Minimizer GrishaginFunction::GlobalMinimizer() const {
  return kMinimizers[function_number - 1];
}

}  // namespace QuenloftTestFunctions
