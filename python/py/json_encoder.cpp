#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "py/json.h"

namespace tessaly::py::json {

namespace {

/// ASCII text that grows; short texts stay on the stack.
class Buffer {
 public:
  void put(char one) {
    if (size_ == capacity_) grow(1);
    data_[size_++] = one;
  }
  void put(std::string_view text) {
    std::memcpy(room_for(text.size()), text.data(), text.size());
    size_ += text.size();
  }
  /// The place after the text, with room for `more` characters; `advance` then takes them in.
  char* room_for(std::size_t more) {
    if (capacity_ - size_ < more) grow(more);
    return data_ + size_;
  }
  void advance(std::size_t more) { size_ += more; }

  [[nodiscard]] Owned to_str() const {
    Owned text = Owned::steal(PyUnicode_New(static_cast<Py_ssize_t>(size_), 127));
    std::memcpy(PyUnicode_1BYTE_DATA(text.ptr()), data_, size_);
    return text;
  }

 private:
  void grow(std::size_t more) {
    std::vector<char> larger(2 * capacity_ + more);
    std::memcpy(larger.data(), data_, size_);
    heap_.swap(larger);
    data_ = heap_.data();
    capacity_ = heap_.size();
  }

  char stack_[1024];
  std::vector<char> heap_;
  char* data_ = stack_;
  std::size_t size_ = 0;
  std::size_t capacity_ = sizeof(stack_);
};

bool is_plain(Py_UCS4 character) {
  return character >= ' ' && character <= '~' && character != '"' && character != '\\';
}

void put_utf16_unit(Buffer& out, unsigned unit) {
  static constexpr char kHex[] = "0123456789abcdef";
  const char escape[] = {'\\',
                         'u',
                         kHex[unit >> 12U & 15U],
                         kHex[unit >> 8U & 15U],
                         kHex[unit >> 4U & 15U],
                         kHex[unit & 15U]};
  out.put({escape, sizeof(escape)});
}

void put_escaped(Buffer& out, Py_UCS4 character) {
  switch (character) {
    case '"':
      return out.put("\\\"");
    case '\\':
      return out.put("\\\\");
    case '\n':
      return out.put("\\n");
    case '\r':
      return out.put("\\r");
    case '\t':
      return out.put("\\t");
    case '\f':
      return out.put("\\f");
    case '\b':
      return out.put("\\b");
    default:
      break;
  }
  if (character < 0x10000) return put_utf16_unit(out, character);
  put_utf16_unit(out, 0xD800U + ((character - 0x10000U) >> 10U));
  put_utf16_unit(out, 0xDC00U + ((character - 0x10000U) & 0x3FFU));
}

template <typename Character>
void put_characters(Buffer& out, const Character* text, std::size_t size) {
  char* to = out.room_for(size + 1);
  std::size_t plain = 0;
  for (; plain < size && is_plain(text[plain]); ++plain) to[plain] = static_cast<char>(text[plain]);
  out.advance(plain);
  for (std::size_t i = plain; i < size; ++i) {
    if (is_plain(text[i]))
      out.put(static_cast<char>(text[i]));
    else
      put_escaped(out, text[i]);
  }
}

void put_string(Buffer& out, PyObject* text) {
  const auto size = static_cast<std::size_t>(PyUnicode_GET_LENGTH(text));
  out.put('"');
  switch (PyUnicode_KIND(text)) {
    case PyUnicode_1BYTE_KIND:
      put_characters(out, PyUnicode_1BYTE_DATA(text), size);
      break;
    case PyUnicode_2BYTE_KIND:
      put_characters(out, PyUnicode_2BYTE_DATA(text), size);
      break;
    default:
      put_characters(out, PyUnicode_4BYTE_DATA(text), size);
      break;
  }
  out.put('"');
}

bool put_integer(Buffer& out, PyObject* value) {
  int overflow = 0;
  const long long number = PyLong_AsLongLongAndOverflow(value, &overflow);
  if (overflow != 0) return false;
  constexpr std::size_t kWidest = 24;
  char* to = out.room_for(kWidest);
  out.advance(static_cast<std::size_t>(std::to_chars(to, to + kWidest, number).ptr - to));
  return true;
}

bool put_float(Buffer& out, PyObject* value) {
  const double number = PyFloat_AS_DOUBLE(value);
  if (!std::isfinite(number)) return false;
  // float.__repr__ asks for the same conversion.
  char* text = PyOS_double_to_string(number, 'r', 0, Py_DTSF_ADD_DOT_0, nullptr);
  if (text == nullptr) throw_error_set();
  try {
    out.put(std::string_view(text));
  } catch (...) {
    PyMem_Free(text);
    throw;
  }
  PyMem_Free(text);
  return true;
}

bool put_value(Buffer& out, PyObject* value, int depth);

/// Borrowed items are safe in these two: nothing below them runs Python code, so the container
/// cannot change while it is read.
bool put_sequence(Buffer& out, PyObject* const* items, Py_ssize_t size, int depth) {
  out.put('[');
  for (Py_ssize_t i = 0; i < size; ++i) {
    if (i > 0) out.put(", ");
    if (!put_value(out, items[i], depth)) return false;
  }
  out.put(']');
  return true;
}

bool put_object(Buffer& out, PyObject* dict, int depth) {
  out.put('{');
  Py_ssize_t position = 0;
  PyObject* key = nullptr;
  PyObject* value = nullptr;
  bool first = true;
  while (PyDict_Next(dict, &position, &key, &value)) {
    if (!PyUnicode_CheckExact(key)) return false;
    if (!first) out.put(", ");
    first = false;
    put_string(out, key);
    out.put(": ");
    if (!put_value(out, value, depth)) return false;
  }
  out.put('}');
  return true;
}

bool put_value(Buffer& out, PyObject* value, int depth) {
  if (depth > kDeepest) return false;
  if (PyUnicode_CheckExact(value)) return put_string(out, value), true;
  if (PyLong_CheckExact(value)) return put_integer(out, value);
  if (value == Py_None) return out.put("null"), true;
  if (value == Py_True) return out.put("true"), true;
  if (value == Py_False) return out.put("false"), true;
  if (PyList_CheckExact(value))
    return put_sequence(out, reinterpret_cast<PyListObject*>(value)->ob_item,
                        PyList_GET_SIZE(value), depth + 1);
  if (PyDict_CheckExact(value)) return put_object(out, value, depth + 1);
  if (PyTuple_CheckExact(value))
    return put_sequence(out, reinterpret_cast<PyTupleObject*>(value)->ob_item,
                        PyTuple_GET_SIZE(value), depth + 1);
  if (PyFloat_CheckExact(value)) return put_float(out, value);
  return false;
}

}  // namespace

std::optional<Owned> encode(Handle value) {
  Buffer out;
  if (!put_value(out, value.ptr(), 0)) return std::nullopt;
  return out.to_str();
}

}  // namespace tessaly::py::json
