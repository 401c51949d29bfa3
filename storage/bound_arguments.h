#pragma once

#include <Python.h>

#include <array>
#include <cstdint>

#include "py/containers.h"

namespace tessaly {

inline constexpr std::size_t kMostParameters = 20;

/// The arguments of one ordinary call, one for each parameter in the order of the signature. Those
/// that the caller passed are borrowed from it for the length of the call; defaults are owned here.
class BoundArguments {
 public:
  BoundArguments() noexcept = default;
  BoundArguments(const BoundArguments&) = delete;
  BoundArguments& operator=(const BoundArguments&) = delete;
  ~BoundArguments();

  /// Binds as a call of `function` would, whose parameters have these names (a tuple of interned
  /// str) and of which so many may be positional. False for every call that is out of the ordinary,
  /// the wrong ones among them: the interpreter knows what to say of those.
  bool bind(PyObject* function, PyObject* names, std::size_t positional, PyObject* const* passed,
            std::size_t count, PyObject* keyword_names);

  [[nodiscard]] PyObject* const* data() const noexcept { return values_.data(); }

 private:
  bool place_keywords(PyObject* names, PyObject* const* values, PyObject* keyword_names);
  bool fill_defaults(PyObject* function, std::size_t positional);
  bool fill_keyword_defaults(PyObject* function, PyObject* names, std::size_t positional);
  void own(std::size_t position, py::Owned value) noexcept;

  std::array<PyObject*, kMostParameters> values_;  // from `bind` on: null is none yet
  std::uint32_t owned_ = 0;                        // a bit for each
};

}  // namespace tessaly
