#pragma once

#include <Python.h>

#include "py/objects.h"

namespace tessaly::py {

/// A method found on an object's type, past the object's own attributes, and bound to the object:
/// how statements find `__enter__` and `__exit__`. It must not outlive the object.
class SpecialMethod {
 public:
  /// TypeError when the type has none: what it does not support, as the interpreter says it, then
  /// `reason`. Runs Python code only where a descriptor does.
  SpecialMethod(Handle object, Handle name, const char* reason);

  template <std::convertible_to<Handle>... Arguments>
  Owned operator()(const Arguments&... arguments) const {
    return bound_ ? call(method_, arguments...) : call(method_, object_, arguments...);
  }

 private:
  Handle object_;
  Owned method_;
  bool bound_;  // else a function, which takes the object as its first argument
};

}  // namespace tessaly::py
