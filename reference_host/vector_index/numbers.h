#pragma once

#include <Python.h>

#include <cstddef>
#include <vector>

#include "py/reference.h"

namespace tessaly::vectors {

/// The buffer of an object whose memory is one row of 32-bit floats in this machine's byte order.
/// Held briefly: as long as it lives, its exporter cannot resize. Making and dropping it may run
/// Python (`__buffer__`, `__release_buffer__`).
class FloatBuffer {
 public:
  /// Throws ErrorSet when the exporter fails other than by BufferError.
  explicit FloatBuffer(py::Handle object);
  FloatBuffer(const FloatBuffer&) = delete;
  FloatBuffer& operator=(const FloatBuffer&) = delete;
  ~FloatBuffer();

  /// False when the object offers no such buffer; then it may still be a sequence of numbers.
  [[nodiscard]] explicit operator bool() const noexcept { return usable_; }
  [[nodiscard]] const float* data() const noexcept { return static_cast<const float*>(view_.buf); }
  [[nodiscard]] std::size_t size() const noexcept {
    return static_cast<std::size_t>(view_.len) / sizeof(float);
  }

 private:
  Py_buffer view_{};
  bool usable_ = false;
};

/// Reads any sequence of numbers into `numbers`, replacing what it held. May run Python code;
/// throws ErrorSet (TypeError when it is no sequence or an item no number, and whatever the
/// items raise).
void read_numbers(py::Handle sequence, std::vector<double>& numbers);

}  // namespace tessaly::vectors
