#pragma once

#include <Python.h>

#include <array>

#include "native_method.h"

namespace tessaly {

/// The arguments of one call, one for each parameter in the order of the signature. Those that the
/// caller passed are borrowed from it for the length of the call; all others are owned here.
class BoundArguments {
 public:
  /// What binding needs to know of a method: the function that holds its signature, and that
  /// function's parameter names (a tuple of interned str, positional parameters first).
  struct Signature {
    PyObject* function;
    PyObject* names;
    std::size_t positional;
    std::size_t parameters;
  };

  /// Binds as the interpreter would for the signature's function, defaults included. Throws what a
  /// call of that function raises.
  BoundArguments(const Signature& signature, PyObject* const* passed, std::size_t flags_and_count,
                 PyObject* keyword_names);

  [[nodiscard]] PyObject* const* data() const noexcept { return values_.data(); }

 private:
  bool bind_quickly(const Signature& signature, PyObject* const* passed, std::size_t count,
                    PyObject* keyword_names);
  bool place_keywords(const Signature& signature, PyObject* const* values, PyObject* keyword_names);
  bool fill_defaults(const Signature& signature);
  bool fill_keyword_defaults(const Signature& signature);
  void bind_by_function(const Signature& signature, PyObject* const* passed,
                        std::size_t flags_and_count, PyObject* keyword_names);

  std::array<PyObject*, kMostParameters> values_{};
  py::OwnedStack<2 * kMostParameters> owned_;  // room for both ways of binding, one after the other
};

}  // namespace tessaly
