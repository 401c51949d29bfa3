#pragma once

#include <cstddef>

namespace tessaly::vectors {

/// The loops that cost time, compiled for the vector units of this processor. None of them looks
/// at alignment; a row is `dimension` floats and the next row follows without a gap.
struct Kernels {
  /// out[i] = the dot product of row i and the query, summed in many float lanes: for unit vectors
  /// within (dimension / 64 + 12) * 2^-24 of the exact one. The same row gives the same bits
  /// wherever it stands.
  void (*dot_rows)(const float* rows, std::size_t count, std::size_t dimension, const float* query,
                   float* out);
  /// Writes the vector scaled to length 1. One without a direction, because it is zero or has a
  /// component that is not finite, becomes zero.
  void (*to_unit)(const float* vector, std::size_t dimension, float* unit);
  /// The sum of all floats, in one pass.
  float (*sum)(const float* values, std::size_t count);
};

const Kernels& kernels() noexcept;

}  // namespace tessaly::vectors
