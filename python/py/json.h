#pragma once

#include <Python.h>

#include "py/global_names.h"
#include "py/objects.h"
#include "py/reference.h"

/// `json.dumps(value)` and `json.loads(text)` without the detour through the Python functions, as
/// long as the outcome is certain to be the same. `encode` and `decode` decline (nothing, no error
/// set) whatever they are not sure of; Json decides when they may be asked at all.
namespace tessaly::py::json {

/// The text that `json.dumps(value)` returns, for a value made of exact built-in types. Declines
/// subclasses, keys that are not str, floats that are not finite, integers beyond 64 bits and
/// nesting deeper than kDeepest. Runs no Python code. Throws on exhausted memory only.
std::optional<Owned> encode(Handle value);

/// Keys of decoded objects that came up before, so that equal keys are one object whose hash is
/// known, as they are within one document of the real decoder.
class KeyCache {
 public:
  /// The str of an ASCII key of 1 to kLongest characters.
  Owned get(const char* key, Py_ssize_t size);
  void clear() noexcept;

  static constexpr Py_ssize_t kLongest = 24;

 private:
  std::array<Member, 64> keys_;
};

/// The value that `json.loads(text)` returns, for an exact str. Declines everything malformed (the
/// real function words the error), NaN and the infinities, integers of more than 18 digits and
/// nesting deeper than kDeepest. Runs no Python code. Throws on exhausted memory only.
std::optional<Owned> decode(Handle text, KeyCache& keys);

inline constexpr int kDeepest = 60;

}  // namespace tessaly::py::json

namespace tessaly::py {

/// One function of the standard json module and what it must still be made of to be the genuine
/// one: its code, its keyword defaults, the module's shared coder object, that object's class, and
/// the module of the class. What is not noticed is a coder object whose own attributes are changed.
class GenuineJsonFunction {
 public:
  /// Remembers the function if it is the standard library's own; otherwise stays empty.
  void capture(Handle module, const char* name, const char* coder_attribute);
  [[nodiscard]] bool is_genuine(Handle candidate) noexcept;
  [[nodiscard]] int traverse(visitproc visit, void* arg) const;
  void clear() noexcept;

 private:
  [[nodiscard]] unsigned coder_class_version() const noexcept {
    return Py_TYPE(coder_.ptr())->tp_version_tag;
  }

  Member function_, code_, coder_name_, coder_;
  WatchedDict keyword_defaults_, coder_module_;
  WatchedDict module_namespace_;
  unsigned coder_class_version_ = 0;  // the type's own count of its changes; 0: not known
};

/// The calls of the json module. `dumps` and `loads` take the function that the caller read, and
/// call it unless it is the genuine one and the shortcut is sure of the outcome.
class Json {
 public:
  void capture(Handle module);

  [[nodiscard]] bool is_genuine_dumps(Handle function) noexcept {
    return dumps_.is_genuine(function);
  }
  Owned dumps(Target function, Handle value);
  Owned loads(Target function, Handle text);

  [[nodiscard]] int traverse(visitproc visit, void* arg) const;
  void clear() noexcept;

 private:
  GenuineJsonFunction dumps_;
  GenuineJsonFunction loads_;
  json::KeyCache keys_;
};

}  // namespace tessaly::py
