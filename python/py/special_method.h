#pragma once

#include <Python.h>

#include "py/objects.h"

namespace tessaly::py {

/// A method found on an object's type, past the object's own attributes, and bound to the object:
/// how statements find `__enter__` and `__exit__`. It must not outlive the object.
class SpecialMethod {
 public:
  /// Nothing when the type has none. Runs Python code only where a descriptor does.
  static std::optional<SpecialMethod> look_up(Handle object, Handle name);

  template <std::convertible_to<Handle>... Arguments>
  Owned operator()(const Arguments&... arguments) const {
    return bound_ ? call(method_, arguments...) : call(method_, object_, arguments...);
  }

 private:
  SpecialMethod(Handle object, Owned method, bool bound)
      : object_(object), method_(std::move(method)), bound_(bound) {}

  Handle object_;
  Owned method_;
  bool bound_;  // else a function, which takes the object as its first argument
};

}  // namespace tessaly::py
