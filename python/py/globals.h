#pragma once

#include "py/reference.h"

namespace tessaly::py {

/// The names that a function reads as its globals: those of a module, then the builtins.
struct Globals {
  Member names;  // the module's dict
  Member builtins;

  /// The value of `name`, an interned str, as it is now; the interpreter's NameError when there is
  /// none. Runs no Python code otherwise.
  [[nodiscard]] Owned get(Handle name) const;
};

/// Whether `function` is the interpreter's own builtin of that name. Runs no Python code.
bool is_builtin(Handle function, const char* name) noexcept;

}  // namespace tessaly::py
