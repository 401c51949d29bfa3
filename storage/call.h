#pragma once

#include <Python.h>

#include "module_state.h"
#include "py/containers.h"

namespace tessaly {

/// One call of a method in progress: what the body needs besides its arguments. Everything borrowed
/// here, and the arguments, live as long as the call does.
class Call {
 public:
  Call(ModuleState& state, const ModuleState::Method& method, py::Handle self)
      : state_(state), method_(method), self_(self) {}

  [[nodiscard]] const Names& names() const noexcept { return state_.names; }
  [[nodiscard]] py::Handle self() const noexcept { return self_; }

  /// The module object's str of a constant text, and of one put together with `columns` (a str or
  /// None) and so many placeholders.
  [[nodiscard]] py::Handle text(const py::Text& text) const { return state_.texts.get(text); }
  [[nodiscard]] py::Owned text(const py::Text& text, py::Handle columns, std::size_t marks) const {
    return state_.texts.get(text, columns, marks);
  }

  /// The value of a name of the module as a function would read it: from the module's namespace,
  /// else from the builtins, else NameError.
  [[nodiscard]] py::Owned global(py::Handle name) const { return state_.globals.get(name); }

  /// `import json`: through the interpreter's `__import__`, which may be anybody's.
  [[nodiscard]] py::Owned import_json() const;

  [[nodiscard]] py::Json& json() const noexcept { return state_.json; }

  /// `round(value, 4)` with the builtin as it is now.
  [[nodiscard]] py::Owned round_to_4_digits(py::Handle value) const;

  /// The functions in Python that host/ is made of besides.
  [[nodiscard]] const ModuleState::Functions& functions() const noexcept {
    return state_.functions;
  }

  /// Adds this method, at the line of its row in the method table, to the traceback of the error
  /// that is set.
  void trace() const noexcept;

 private:
  ModuleState& state_;
  const ModuleState::Method& method_;
  py::Handle self_;
};

}  // namespace tessaly
