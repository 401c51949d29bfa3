#include <cstdint>
#include <cstring>
#include <vector>

#include "py/json.h"

namespace tessaly::py::json {

namespace {

/// One pass over the characters of a text. Every step answers an object, or nothing when it
/// declines; what was built until then is simply dropped.
template <typename Character>
class Reader {
 public:
  Reader(const Character* text, Py_ssize_t size, int kind, KeyCache& keys)
      : next_(text), end_(text + size), kind_(kind), keys_(keys) {}

  std::optional<Owned> document() {
    skip_blanks();
    std::optional<Owned> value = read_value(0);
    if (!value) return std::nullopt;
    skip_blanks();
    if (next_ != end_) return std::nullopt;
    return value;
  }

 private:
  [[nodiscard]] Py_UCS4 peek() const { return next_ == end_ ? 0 : *next_; }

  bool take(char expected) {
    if (peek() != static_cast<Py_UCS4>(expected)) return false;
    ++next_;
    return true;
  }

  bool take_word(const char* word) {
    const Character* at = next_;
    for (; *word != '\0'; ++word, ++at)
      if (at == end_ || *at != static_cast<Character>(*word)) return false;
    next_ = at;
    return true;
  }

  void skip_blanks() {
    while (next_ != end_ && (*next_ == ' ' || *next_ == '\n' || *next_ == '\t' || *next_ == '\r'))
      ++next_;
  }

  std::optional<Owned> read_value(int depth) {
    if (depth > kDeepest) return std::nullopt;
    switch (peek()) {
      case '"':
        ++next_;
        return read_string(false);
      case '{':
        ++next_;
        return read_object(depth + 1);
      case '[':
        ++next_;
        return read_array(depth + 1);
      case 'n':
        return word("null", Py_None);
      case 't':
        return word("true", Py_True);
      case 'f':
        return word("false", Py_False);
      default:
        return read_number();
    }
  }

  std::optional<Owned> word(const char* text, PyObject* value) {
    if (!take_word(text)) return std::nullopt;
    return Owned::borrow(value);
  }

  std::optional<Owned> read_array(int depth) {
    Owned list = Owned::steal(PyList_New(0));
    skip_blanks();
    if (take(']')) return list;
    for (;;) {
      std::optional<Owned> value = read_value(depth);
      if (!value) return std::nullopt;
      checked(PyList_Append(list.ptr(), value->ptr()));
      skip_blanks();
      if (take(']')) return list;
      if (!take(',')) return std::nullopt;
      skip_blanks();
    }
  }

  std::optional<Owned> read_object(int depth) {
    Owned dict = Owned::steal(PyDict_New());
    skip_blanks();
    if (take('}')) return dict;
    for (;;) {
      if (!take('"')) return std::nullopt;
      std::optional<Owned> key = read_string(true);
      if (!key) return std::nullopt;
      skip_blanks();
      if (!take(':')) return std::nullopt;
      skip_blanks();
      std::optional<Owned> value = read_value(depth);
      if (!value) return std::nullopt;
      checked(PyDict_SetItem(dict.ptr(), key->ptr(), value->ptr()));
      skip_blanks();
      if (take('}')) return dict;
      if (!take(',')) return std::nullopt;
      skip_blanks();
    }
  }

  /// After the opening quote.
  std::optional<Owned> read_string(bool is_key) {
    const Character* start = next_;
    Py_UCS4 all = 0;
    while (next_ != end_ && *next_ != '"' && *next_ != '\\') {
      if (*next_ < ' ') return std::nullopt;
      all |= *next_++;
    }
    if (next_ == end_) return std::nullopt;
    if (*next_ == '\\') return read_escaped(start);
    const Py_ssize_t size = next_++ - start;
    if constexpr (sizeof(Character) == 1)
      if (is_key && all < 128 && size > 0 && size <= KeyCache::kLongest)
        return keys_.get(reinterpret_cast<const char*>(start), size);
    return Owned::steal(PyUnicode_FromKindAndData(kind_, start, size));
  }

  /// A string with escapes, read anew from its start into code points.
  std::optional<Owned> read_escaped(const Character* start) {
    std::vector<Py_UCS4> points;
    for (next_ = start; next_ != end_;) {
      const Py_UCS4 character = *next_++;
      if (character == '"')
        return Owned::steal(PyUnicode_FromKindAndData(PyUnicode_4BYTE_KIND, points.data(),
                                                      static_cast<Py_ssize_t>(points.size())));
      if (character < ' ') return std::nullopt;
      if (character != '\\') {
        points.push_back(character);
        continue;
      }
      const std::optional<Py_UCS4> point = read_escape();
      if (!point) return std::nullopt;
      points.push_back(*point);
    }
    return std::nullopt;
  }

  /// After a backslash. A high surrogate takes a low one that follows it; alone it stays itself.
  std::optional<Py_UCS4> read_escape() {
    if (next_ == end_) return std::nullopt;
    switch (const Py_UCS4 letter = *next_++) {
      case '"':
      case '\\':
      case '/':
        return letter;
      case 'b':
        return '\b';
      case 'f':
        return '\f';
      case 'n':
        return '\n';
      case 'r':
        return '\r';
      case 't':
        return '\t';
      case 'u':
        break;
      default:
        return std::nullopt;
    }
    const std::optional<Py_UCS4> unit = read_hex();
    if (!unit || !Py_UNICODE_IS_HIGH_SURROGATE(*unit)) return unit;
    const Character* after_high = next_;
    if (take('\\') && take('u')) {
      const std::optional<Py_UCS4> low = read_hex();
      if (!low) return std::nullopt;
      if (Py_UNICODE_IS_LOW_SURROGATE(*low)) return Py_UNICODE_JOIN_SURROGATES(*unit, *low);
    }
    next_ = after_high;
    return unit;
  }

  std::optional<Py_UCS4> read_hex() {
    if (end_ - next_ < 4) return std::nullopt;
    Py_UCS4 value = 0;
    for (int i = 0; i < 4; ++i) {
      const Py_UCS4 digit = *next_++;
      value <<= 4U;
      if (digit >= '0' && digit <= '9')
        value |= digit - '0';
      else if (digit >= 'a' && digit <= 'f')
        value |= digit - 'a' + 10;
      else if (digit >= 'A' && digit <= 'F')
        value |= digit - 'A' + 10;
      else
        return std::nullopt;
    }
    return value;
  }

  [[nodiscard]] bool at_digit() const { return peek() >= '0' && peek() <= '9'; }

  bool skip_digits() {
    if (!at_digit()) return false;
    while (at_digit()) ++next_;
    return true;
  }

  std::optional<Owned> read_number() {
    const Character* start = next_;
    const bool negative = take('-');
    const Character* digits = next_;
    if (!take('0') && !skip_digits()) return std::nullopt;
    const Py_UCS4 after = peek();
    if (after == '.' || after == 'e' || after == 'E') return read_float(start);
    constexpr Py_ssize_t kMostDigits = 18;
    if (next_ - digits > kMostDigits) return std::nullopt;
    long long value = 0;
    for (; digits != next_; ++digits) value = value * 10 + static_cast<int>(*digits - '0');
    return Owned::steal(PyLong_FromLongLong(negative ? -value : value));
  }

  /// At the first character after the whole part.
  std::optional<Owned> read_float(const Character* start) {
    if (take('.') && !skip_digits()) return std::nullopt;
    if (take('e') || take('E')) {
      if (!take('+')) take('-');
      if (!skip_digits()) return std::nullopt;
    }
    char text[64];
    const auto size = static_cast<std::size_t>(next_ - start);
    if (size >= sizeof(text)) return std::nullopt;
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(start[i]);
    text[size] = '\0';
    const double value = PyOS_string_to_double(text, nullptr, nullptr);
    if (value == -1.0 && PyErr_Occurred()) throw_error_set();
    return Owned::steal(PyFloat_FromDouble(value));
  }

  const Character* next_;
  const Character* end_;
  int kind_;
  KeyCache& keys_;
};

}  // namespace

Owned KeyCache::get(const char* key, Py_ssize_t size) {
  std::uint32_t hash = 2166136261U;  // FNV-1a
  for (Py_ssize_t i = 0; i < size; ++i)
    hash = (hash ^ static_cast<unsigned char>(key[i])) * 16777619U;
  Member& slot = keys_[(hash ^ (hash >> 15U)) % keys_.size()];
  if (!slot.empty() && PyUnicode_GET_LENGTH(slot.ptr()) == size &&
      std::memcmp(PyUnicode_1BYTE_DATA(slot.ptr()), key, static_cast<std::size_t>(size)) == 0)
    return Owned::borrow(slot.ptr());
  Owned made = Owned::steal(PyUnicode_FromKindAndData(PyUnicode_1BYTE_KIND, key, size));
  slot.set(Owned::borrow(made));
  return made;
}

void KeyCache::clear() noexcept {
  for (Member& key : keys_) key.clear();
}

std::optional<Owned> decode(Handle text, KeyCache& keys) {
  PyObject* object = text.ptr();
  if (!PyUnicode_CheckExact(object)) return std::nullopt;
  const Py_ssize_t size = PyUnicode_GET_LENGTH(object);
  const auto read = [&](const auto* characters) {
    return Reader(characters, size, PyUnicode_KIND(object), keys).document();
  };
  switch (PyUnicode_KIND(object)) {
    case PyUnicode_1BYTE_KIND:
      return read(PyUnicode_1BYTE_DATA(object));
    case PyUnicode_2BYTE_KIND:
      return read(PyUnicode_2BYTE_DATA(object));
    default:
      return read(PyUnicode_4BYTE_DATA(object));
  }
}

}  // namespace tessaly::py::json
