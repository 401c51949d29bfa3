#pragma once

#include <Python.h>

#include <cstddef>
#include <span>
#include <vector>

#include "py/reference.h"

namespace tessaly::vectors {

/// The buffer of an object whose memory is one row of 32-bit or 64-bit floats in this machine's
/// byte order. Held briefly: as long as it lives, its exporter cannot resize. Making and dropping
/// it may run Python (`__buffer__`, `__release_buffer__`).
class FloatBuffer {
 public:
  /// Throws ErrorSet when the exporter fails other than by BufferError.
  explicit FloatBuffer(py::Handle object);
  FloatBuffer(const FloatBuffer&) = delete;
  FloatBuffer& operator=(const FloatBuffer&) = delete;
  ~FloatBuffer();

  /// Whether the memory is one row of such floats; otherwise the object may still be a sequence of
  /// numbers.
  template <typename Float>
  [[nodiscard]] bool holds() const noexcept {
    return row_of_ == sizeof(Float);
  }
  template <typename Float>
  [[nodiscard]] std::span<const Float> row() const noexcept {
    return {static_cast<const Float*>(view_.buf), static_cast<std::size_t>(view_.len) / row_of_};
  }

 private:
  Py_buffer view_{};
  std::size_t row_of_ = 0;  // the size of its floats, 0 when it is no such row
};

/// Reads any sequence of numbers into `numbers`, replacing what it held. May run Python code;
/// throws ErrorSet (TypeError when it is no sequence or an item no number, and whatever the
/// items raise).
void read_numbers(py::Handle sequence, std::vector<double>& numbers);

}  // namespace tessaly::vectors
