#include <charconv>
#include <cstring>
#include <string_view>
#include <vector>

#include "py/json_text.h"

namespace tessaly::py::json {

namespace {

/// ASCII text that grows; short texts stay on the stack.
class Buffer {
 public:
  void put(char one) {
    *room_for(1) = one;
    ++size_;
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
  out.put("\\u");
  for (const unsigned shift : {12U, 8U, 4U, 0U}) out.put(kHex[unit >> shift & 15U]);
}

void put_escaped(Buffer& out, Py_UCS4 character) {
  static constexpr std::string_view kEscaped = "\"\\\n\r\t\f\b";
  static constexpr std::string_view kLetters = "\"\\nrtfb";
  const auto at = character < 128 ? kEscaped.find(static_cast<char>(character)) : kEscaped.npos;
  if (at != kEscaped.npos) {
    out.put('\\');
    out.put(kLetters[at]);
  } else if (character < 0x10000) {
    put_utf16_unit(out, character);
  } else {
    put_utf16_unit(out, 0xD800U + ((character - 0x10000U) >> 10U));
    put_utf16_unit(out, 0xDC00U + ((character - 0x10000U) & 0x3FFU));
  }
}

void put_string(Buffer& out, PyObject* text) {
  const Py_ssize_t size = PyUnicode_GET_LENGTH(text);
  const int kind = PyUnicode_KIND(text);
  const void* data = PyUnicode_DATA(text);
  out.put('"');
  Py_ssize_t i = 0;
  if (kind == PyUnicode_1BYTE_KIND) {
    const auto* characters = static_cast<const Py_UCS1*>(data);
    char* to = out.room_for(static_cast<std::size_t>(size));
    for (; i < size && is_plain(characters[i]); ++i) to[i] = static_cast<char>(characters[i]);
    out.advance(static_cast<std::size_t>(i));
  }
  for (; i < size; ++i) {
    const Py_UCS4 character = PyUnicode_READ(kind, data, i);
    if (is_plain(character))
      out.put(static_cast<char>(character));
    else
      put_escaped(out, character);
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

bool put_value(Buffer& out, PyObject* value, int depth);

/// Borrowed items are safe in these two: nothing below them runs Python code, so the container
/// cannot change while it is read.
bool put_sequence(Buffer& out, PyObject* list_or_tuple, int depth) {
  out.put('[');
  for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(list_or_tuple); ++i) {
    if (i > 0) out.put(", ");
    if (!put_value(out, PySequence_Fast_GET_ITEM(list_or_tuple, i), depth)) return false;
  }
  out.put(']');
  return true;
}

bool put_object(Buffer& out, PyObject* dict, int depth) {
  out.put('{');
  Py_ssize_t position = 0;
  PyObject* key = nullptr;
  PyObject* value = nullptr;
  for (bool first = true; PyDict_Next(dict, &position, &key, &value); first = false) {
    if (!PyUnicode_CheckExact(key)) return false;
    if (!first) out.put(", ");
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
  if (PyDict_CheckExact(value)) return put_object(out, value, depth + 1);
  if (PyList_CheckExact(value) || PyTuple_CheckExact(value))
    return put_sequence(out, value, depth + 1);
  return false;
}

}  // namespace

std::optional<Owned> encode(Handle value) {
  Buffer out;
  if (!put_value(out, value.ptr(), 0)) return std::nullopt;
  return out.to_str();
}

}  // namespace tessaly::py::json
