#pragma once

#include <Python.h>

#include <array>
#include <optional>

#include "py/reference.h"

/// JSON text to values and back, for the ordinary cases: `encode` and `decode` decline (nothing, no
/// error set) whatever they are not sure of. Neither runs Python code; both throw on exhausted
/// memory only.
namespace tessaly::py::json {

/// The text that the standard `json.dumps(value)` returns, for a value made of exact built-in
/// types. Declines subclasses, keys that are not str, floats, integers beyond 64 bits and nesting
/// deeper than kDeepest.
std::optional<Owned> encode(Handle value);

/// Keys of decoded objects that came up before, so that equal keys are one object whose hash is
/// known, as they are within one document of the real decoder.
class KeyCache {
 public:
  /// The str of a key of 1 to kLongest Latin-1 characters.
  Owned get(const Py_UCS1* key, Py_ssize_t size);
  void clear() noexcept;

  static constexpr Py_ssize_t kLongest = 24;

 private:
  std::array<Member, 64> keys_;
};

/// The value that the standard `json.loads(text)` returns, for an exact str. Declines everything
/// malformed (the real function words the error), floats, integers of more than 18 digits,
/// characters beyond Latin-1 (`dumps` writes none) and nesting deeper than kDeepest.
std::optional<Owned> decode(Handle text, KeyCache& keys);

inline constexpr int kDeepest = 60;

}  // namespace tessaly::py::json
