#pragma once

#include <cmath>
#include <optional>

namespace tessaly::py {

/// `round(value, 4)` of a float, or nothing where the arithmetic below would not be exact.
///
/// Python rounds the exact value of the double to the nearest decimal, ties to even, and takes the
/// double nearest to that decimal. With x * 10^4 = high + low exactly (`low` from one fused
/// multiply-add; T. J. Dekker, "A floating-point technique for extending the available precision",
/// 1971), the nearest integer is known exactly, and one correctly rounded division by 10^4 gives
/// the nearest double.
inline std::optional<double> round_to_4_digits(double value) {
  constexpr double kScale = 1e4;
  constexpr double kLargest = 1e11;  // keeps value * kScale below 2^52, so that halves are exact
  if (!(std::fabs(value) < kLargest)) return std::nullopt;
  const double high = value * kScale;
  const double low = std::fma(value, kScale, -high);
  double whole = std::nearbyint(high);
  const double beyond = high - whole;  // exact; at most a half
  // Whole and half numbers are doubles here, so `high` lies on the same side of each half as the
  // exact product does, or on the half itself: only then does the remainder decide.
  if (beyond == 0.5 && low > 0) whole += 1;
  if (beyond == -0.5 && low < 0) whole -= 1;
  return whole / kScale;
}

}  // namespace tessaly::py
