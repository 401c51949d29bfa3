#pragma once

#include <Python.h>

#include "module_state.h"
#include "py/objects.h"

namespace tessaly {

/// One call of a method in progress: what the body needs besides its arguments. Everything borrowed
/// here, and the arguments, live as long as the call does.
class Call {
 public:
  Call(ModuleState& state, const char* method, py::Handle self)
      : state_(state), method_(method), self_(self) {}

  [[nodiscard]] ModuleState& state() const noexcept { return state_; }
  [[nodiscard]] const Names& names() const noexcept { return state_.names; }
  [[nodiscard]] py::Handle self() const noexcept { return self_; }

  /// The module object's str of a constant text.
  [[nodiscard]] py::Handle text(const py::Text& text) const { return state_.texts.get(text); }

  /// The parameters of a statement: a tuple for the length of one call.
  template <typename... Items>
  [[nodiscard]] py::LeasedTuple parameters(Items&&... items) const {
    return state_.tuples.lease(std::forward<Items>(items)...);
  }

  /// The value of a name of the module as a function would read it: from the module's namespace,
  /// else from the builtins, else NameError.
  [[nodiscard]] py::Owned global(py::Handle name, py::Where where = py::Where::current()) const {
    return state_.globals.get(name, where);
  }

  /// `import json`: through the interpreter's `__import__`, which may be anybody's.
  [[nodiscard]] py::Owned import_json(py::Where where = py::Where::current()) const;

  /// `round(value, 4)` with the builtin as it is now.
  [[nodiscard]] py::Owned round_to_4_digits(py::Target value) const;

  /// Adds a frame of this method, at `where`, to the traceback of the error that is set.
  void trace(py::Where where) const noexcept;

 private:
  ModuleState& state_;
  const char* method_;
  py::Handle self_;
};

}  // namespace tessaly
