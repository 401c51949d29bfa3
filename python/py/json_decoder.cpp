#include <cstring>
#include <string_view>
#include <vector>

#include "py/containers.h"
#include "py/json_text.h"

namespace tessaly::py::json {

namespace {

/// One pass over the characters of a text, which a NUL follows: no rule takes one. Every step
/// answers an object, or nothing when it declines; what was built until then is simply dropped.
class Reader {
 public:
  Reader(const Py_UCS1* text, Py_ssize_t size, KeyCache& keys)
      : next_(text), end_(text + size), keys_(keys) {}

  std::optional<Owned> document() {
    skip_blanks();
    std::optional<Owned> value = read_value(0);
    skip_blanks();
    return next_ == end_ ? std::move(value) : std::nullopt;
  }

 private:
  bool take(char expected) {
    if (*next_ != static_cast<Py_UCS1>(expected)) return false;
    ++next_;
    return true;
  }

  void skip_blanks() {
    while (*next_ <= ' ' && (*next_ == ' ' || *next_ == '\n' || *next_ == '\t' || *next_ == '\r'))
      ++next_;
  }

  std::optional<Owned> read_value(int depth) {
    if (depth > kDeepest) return std::nullopt;
    switch (*next_) {
      case '"':
        return read_string(false);
      case '{':
        return read_object(depth + 1);
      case '[':
        return read_array(depth + 1);
      case 'n':
        return word("null", Py_None);
      case 't':
        return word("true", Py_True);
      case 'f':
        return word("false", Py_False);
      default:
        return read_integer();
    }
  }

  std::optional<Owned> word(std::string_view text, PyObject* value) {
    for (const char letter : text)
      if (!take(letter)) return std::nullopt;
    return Owned::borrow(value);
  }

  std::optional<Owned> read_array(int depth) {
    Owned list = new_list();
    ++next_;
    skip_blanks();
    if (take(']')) return list;
    for (;;) {
      const std::optional<Owned> value = read_value(depth);
      if (!value) return std::nullopt;
      append(list, *value);
      skip_blanks();
      if (take(']')) return list;
      if (!take(',')) return std::nullopt;
      skip_blanks();
    }
  }

  std::optional<Owned> read_object(int depth) {
    Owned dict = new_dict();
    ++next_;
    skip_blanks();
    if (take('}')) return dict;
    for (;;) {
      if (*next_ != '"') return std::nullopt;
      const std::optional<Owned> key = read_string(true);
      if (!key) return std::nullopt;
      skip_blanks();
      if (!take(':')) return std::nullopt;
      skip_blanks();
      const std::optional<Owned> value = read_value(depth);
      if (!value) return std::nullopt;
      dict_set(dict, *key, *value);
      skip_blanks();
      if (take('}')) return dict;
      if (!take(',')) return std::nullopt;
      skip_blanks();
    }
  }

  std::optional<Owned> read_string(bool is_key) {
    const Py_UCS1* const start = ++next_;
    const Py_UCS1* end = start;
    for (; *end != '"'; ++end) {
      if (*end == '\\') return read_escaped(start);
      if (*end < ' ') return std::nullopt;
    }
    next_ = end + 1;
    const Py_ssize_t size = end - start;
    if (is_key && size > 0 && size <= KeyCache::kLongest) return keys_.get(start, size);
    return Owned::steal(PyUnicode_FromKindAndData(PyUnicode_1BYTE_KIND, start, size));
  }

  /// A string with escapes, read anew from its start into code points.
  std::optional<Owned> read_escaped(const Py_UCS1* start) {
    std::vector<Py_UCS4> points;
    for (next_ = start; !take('"');) {
      if (*next_ < ' ') return std::nullopt;
      const std::optional<Py_UCS4> point = take('\\') ? read_escape() : *next_++;
      if (!point) return std::nullopt;
      points.push_back(*point);
    }
    return Owned::steal(PyUnicode_FromKindAndData(PyUnicode_4BYTE_KIND, points.data(),
                                                  static_cast<Py_ssize_t>(points.size())));
  }

  /// After a backslash. A high surrogate takes a low one that follows it; alone it stays itself.
  std::optional<Py_UCS4> read_escape() {
    static constexpr std::string_view kLetters = "\"\\/bfnrt";
    static constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
    if (!take('u')) {
      const auto at = kLetters.find(static_cast<char>(*next_));
      if (at == std::string_view::npos) return std::nullopt;
      ++next_;
      return static_cast<Py_UCS4>(kMeanings[at]);
    }
    const std::optional<Py_UCS4> unit = read_hex();
    if (!unit || !Py_UNICODE_IS_HIGH_SURROGATE(*unit)) return unit;
    const Py_UCS1* after_high = next_;
    if (take('\\') && take('u')) {
      const std::optional<Py_UCS4> low = read_hex();
      if (!low) return std::nullopt;
      if (Py_UNICODE_IS_LOW_SURROGATE(*low)) return Py_UNICODE_JOIN_SURROGATES(*unit, *low);
    }
    next_ = after_high;
    return unit;
  }

  std::optional<Py_UCS4> read_hex() {
    static constexpr std::string_view kDigits = "0123456789abcdef";
    Py_UCS4 value = 0;
    for (int i = 0; i < 4; ++i) {
      const Py_UCS4 digit = *next_;
      if (digit < '0' || digit > 'f') return std::nullopt;
      const auto digit_value = kDigits.find(static_cast<char>(digit | 0x20U));
      if (digit_value == std::string_view::npos) return std::nullopt;
      value = value << 4U | static_cast<Py_UCS4>(digit_value);
      ++next_;
    }
    return value;
  }

  std::optional<Owned> read_integer() {
    constexpr Py_ssize_t kMostDigits = 18;
    const bool negative = take('-');
    const Py_UCS1* digits = next_;
    long long value = 0;
    while (*next_ >= '0' && *next_ <= '9' && next_ - digits < kMostDigits)
      value = value * 10 + (*next_++ - '0');
    const Py_ssize_t count = next_ - digits;
    // What follows, if it goes on (more digits, a fraction, an exponent), no rule takes.
    if (count == 0 || (*digits == '0' && count > 1)) return std::nullopt;
    return Owned::steal(PyLong_FromLongLong(negative ? -value : value));
  }

  const Py_UCS1* next_;
  const Py_UCS1* end_;
  KeyCache& keys_;
};

}  // namespace

Owned KeyCache::get(const Py_UCS1* key, Py_ssize_t size) {
  const auto length = static_cast<std::size_t>(size);
  Member& slot = keys_[(key[0] * 7U + key[length - 1] * 3U + length) % keys_.size()];
  if (!slot.empty() && PyUnicode_GET_LENGTH(slot.ptr()) == size &&
      std::memcmp(PyUnicode_1BYTE_DATA(slot.ptr()), key, length) == 0)
    return Owned::borrow(slot);
  Owned made = Owned::steal(PyUnicode_FromKindAndData(PyUnicode_1BYTE_KIND, key, size));
  slot.set(Owned::borrow(made));
  return made;
}

void KeyCache::clear() noexcept {
  for (Member& key : keys_) key.clear();
}

std::optional<Owned> decode(Handle text, KeyCache& keys) {
  PyObject* object = text.ptr();
  if (!PyUnicode_CheckExact(object) || PyUnicode_KIND(object) != PyUnicode_1BYTE_KIND)
    return std::nullopt;
  return Reader(PyUnicode_1BYTE_DATA(object), PyUnicode_GET_LENGTH(object), keys).document();
}

}  // namespace tessaly::py::json
