#include "kernels.h"

#include <cmath>
#include <cstring>

// Each loop is written once over vectors of `Lanes` floats, which the compiler maps to whatever
// registers the target of the calling function has. So one binary runs everywhere, and fast where
// the processor allows.
#define TESSALY_INLINE [[gnu::always_inline]] inline

namespace tessaly::vectors {
namespace {

constexpr std::size_t kAccumulators = 4;

template <std::size_t Lanes>
struct Wide {
  typedef float Floats __attribute__((vector_size(Lanes * sizeof(float))));
  typedef double Doubles __attribute__((vector_size(Lanes * sizeof(double))));
};

template <std::size_t Lanes>
TESSALY_INLINE void load(const float* from, typename Wide<Lanes>::Floats& to) {
  std::memcpy(&to, from, sizeof to);
}

template <std::size_t Lanes, typename Vector>
TESSALY_INLINE auto sum_lanes(const Vector& lanes) {
  auto total = lanes[0];
  for (std::size_t i = 1; i < Lanes; ++i) total += lanes[i];
  return total;
}

template <std::size_t Lanes>
TESSALY_INLINE float dot(const float* a, const float* b, std::size_t size) {
  typename Wide<Lanes>::Floats lanes[kAccumulators] = {};
  typename Wide<Lanes>::Floats x;
  typename Wide<Lanes>::Floats y;
  std::size_t i = 0;
  for (; i + kAccumulators * Lanes <= size; i += kAccumulators * Lanes) {
    for (std::size_t j = 0; j < kAccumulators; ++j) {
      load<Lanes>(a + i + j * Lanes, x);
      load<Lanes>(b + i + j * Lanes, y);
      lanes[j] += x * y;
    }
  }
  for (; i + Lanes <= size; i += Lanes) {
    load<Lanes>(a + i, x);
    load<Lanes>(b + i, y);
    lanes[0] += x * y;
  }
  lanes[0] = (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
  float total = sum_lanes<Lanes>(lanes[0]);
  for (; i < size; ++i) total += a[i] * b[i];
  return total;
}

template <std::size_t Lanes>
TESSALY_INLINE void dot_rows(const float* rows, std::size_t count, std::size_t dimension,
                             const float* query, float* out) {
  for (std::size_t row = 0; row < count; ++row)
    out[row] = dot<Lanes>(rows + row * dimension, query, dimension);
}

template <std::size_t Lanes>
TESSALY_INLINE void to_unit(const float* vector, std::size_t dimension, float* unit) {
  // In doubles, where the square of no float overflows or vanishes.
  typename Wide<Lanes>::Doubles lanes[2] = {};
  typename Wide<Lanes>::Floats x;
  std::size_t i = 0;
  for (; i + 2 * Lanes <= dimension; i += 2 * Lanes) {
    for (std::size_t j = 0; j < 2; ++j) {
      load<Lanes>(vector + i + j * Lanes, x);
      const auto wide = __builtin_convertvector(x, typename Wide<Lanes>::Doubles);
      lanes[j] += wide * wide;
    }
  }
  lanes[0] += lanes[1];
  double squares = sum_lanes<Lanes>(lanes[0]);
  for (; i < dimension; ++i) squares += static_cast<double>(vector[i]) * vector[i];
  const double scale = squares > 0 && std::isfinite(squares) ? 1 / std::sqrt(squares) : 0;
  if (scale > 0) {
    for (i = 0; i < dimension; ++i) unit[i] = static_cast<float>(vector[i] * scale);
  } else {
    for (i = 0; i < dimension; ++i) unit[i] = 0;
  }
}

template <std::size_t Lanes>
TESSALY_INLINE float sum(const float* values, std::size_t count) {
  typename Wide<Lanes>::Floats lanes[kAccumulators] = {};
  typename Wide<Lanes>::Floats x;
  std::size_t i = 0;
  for (; i + kAccumulators * Lanes <= count; i += kAccumulators * Lanes) {
    for (std::size_t j = 0; j < kAccumulators; ++j) {
      load<Lanes>(values + i + j * Lanes, x);
      lanes[j] += x;
    }
  }
  lanes[0] = (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
  float total = sum_lanes<Lanes>(lanes[0]);
  for (; i < count; ++i) total += values[i];
  return total;
}

// The three loops for one target; an empty target is the compiler's default.
#define TESSALY_KERNELS(name, lanes, target)                                               \
  target void dot_rows_##name(const float* rows, std::size_t count, std::size_t dimension, \
                              const float* query, float* out) {                            \
    dot_rows<lanes>(rows, count, dimension, query, out);                                   \
  }                                                                                        \
  target void to_unit_##name(const float* vector, std::size_t dimension, float* unit) {    \
    to_unit<lanes>(vector, dimension, unit);                                               \
  }                                                                                        \
  target float sum_##name(const float* values, std::size_t count) {                        \
    return sum<lanes>(values, count);                                                      \
  }                                                                                        \
  constexpr Kernels kernels_##name{dot_rows_##name, to_unit_##name, sum_##name};

TESSALY_KERNELS(plain, 4, )

#if defined(__x86_64__)
TESSALY_KERNELS(avx2, 8, [[gnu::target("avx2,fma")]])
TESSALY_KERNELS(avx512, 16, [[gnu::target("avx512f,avx2,fma")]])
#endif

}  // namespace

const Kernels& kernels() noexcept {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx512f")) return kernels_avx512;
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return kernels_avx2;
#endif
  return kernels_plain;
}

}  // namespace tessaly::vectors
