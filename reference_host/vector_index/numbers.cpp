#include "numbers.h"

#include <bit>
#include <cstdint>
#include <string_view>

namespace tessaly::vectors {
namespace {

bool is_row_of_floats(const Py_buffer& view) {
  const std::string_view format = view.format != nullptr ? view.format : "B";
  const bool native = format == "f" || format == "@f" || format == "=f" ||
                      format == (std::endian::native == std::endian::little ? "<f" : ">f");
  return native && view.itemsize == sizeof(float) && view.ndim == 1 &&
         reinterpret_cast<std::uintptr_t>(view.buf) % alignof(float) == 0 &&
         PyBuffer_IsContiguous(&view, 'C') != 0;
}

}  // namespace

FloatBuffer::FloatBuffer(py::Handle object) {
  if (PyObject_CheckBuffer(object.ptr()) == 0) return;
  if (PyObject_GetBuffer(object.ptr(), &view_, PyBUF_FULL_RO) < 0) {
    if (PyErr_ExceptionMatches(PyExc_BufferError) == 0) py::throw_error_set();
    PyErr_Clear();
    return;
  }
  usable_ = is_row_of_floats(view_);
}

FloatBuffer::~FloatBuffer() {
  if (view_.obj != nullptr) PyBuffer_Release(&view_);
}

void read_numbers(py::Handle sequence, std::vector<double>& numbers) {
  if (PySequence_Check(sequence.ptr()) == 0)
    py::raise(PyExc_TypeError, "an embedding is a sequence of numbers, not %.200s",
              Py_TYPE(sequence.ptr())->tp_name);
  // A tuple of our own: what the items run cannot shorten it.
  const py::Owned items = py::Owned::steal(PySequence_Tuple(sequence.ptr()));
  const Py_ssize_t size = PyTuple_GET_SIZE(items.ptr());
  numbers.clear();
  numbers.reserve(static_cast<std::size_t>(size));
  for (Py_ssize_t i = 0; i < size; ++i) {
    const double number = PyFloat_AsDouble(PyTuple_GET_ITEM(items.ptr(), i));
    if (number == -1.0 && PyErr_Occurred() != nullptr) py::throw_error_set();
    numbers.push_back(number);
  }
}

}  // namespace tessaly::vectors
