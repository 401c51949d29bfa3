#include "numbers.h"

#include <bit>
#include <cstdint>
#include <string_view>

namespace tessaly::vectors {
namespace {

/// The size of the floats of which the memory is one row; 0 when it is none.
std::size_t row_of(const Py_buffer& view) {
  std::string_view format = view.format != nullptr ? view.format : "B";
  if (format.size() == 2 && (format[0] == '@' || format[0] == '=' ||
                             format[0] == (std::endian::native == std::endian::little ? '<' : '>')))
    format.remove_prefix(1);
  const std::size_t size = format == "f" ? sizeof(float) : format == "d" ? sizeof(double) : 0;
  if (size == 0 || view.itemsize != static_cast<Py_ssize_t>(size) || view.ndim != 1 ||
      reinterpret_cast<std::uintptr_t>(view.buf) % size != 0 ||
      PyBuffer_IsContiguous(&view, 'C') == 0)
    return 0;
  return size;
}

template <typename Float>
bool read_row(const FloatBuffer& buffer, std::vector<double>& numbers) {
  if (!buffer.holds<Float>()) return false;
  const auto row = buffer.row<Float>();
  numbers.assign(row.begin(), row.end());
  return true;
}

/// A list or tuple of nothing but floats: read where it is, because that runs no Python code.
bool read_floats(py::Handle sequence, std::vector<double>& numbers) {
  if (PyList_CheckExact(sequence.ptr()) == 0 && PyTuple_CheckExact(sequence.ptr()) == 0)
    return false;
  PyObject* const* const items = PySequence_Fast_ITEMS(sequence.ptr());
  numbers.resize(static_cast<std::size_t>(PySequence_Fast_GET_SIZE(sequence.ptr())));
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    if (PyFloat_CheckExact(items[i]) == 0) return false;
    numbers[i] = PyFloat_AS_DOUBLE(items[i]);
  }
  return true;
}

}  // namespace

FloatBuffer::FloatBuffer(py::Handle object) {
  if (PyObject_CheckBuffer(object.ptr()) == 0) return;
  if (PyObject_GetBuffer(object.ptr(), &view_, PyBUF_FULL_RO) < 0) {
    if (PyErr_ExceptionMatches(PyExc_BufferError) == 0) py::throw_error_set();
    PyErr_Clear();
    return;
  }
  row_of_ = row_of(view_);
}

FloatBuffer::~FloatBuffer() {
  if (view_.obj != nullptr) PyBuffer_Release(&view_);
}

void read_numbers(py::Handle sequence, std::vector<double>& numbers) {
  if (read_floats(sequence, numbers)) return;
  {
    const FloatBuffer buffer(sequence);
    if (read_row<float>(buffer, numbers) || read_row<double>(buffer, numbers)) return;
  }
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
