#include "bound_arguments.h"

#include <algorithm>
#include <bit>

namespace tessaly {

using py::Owned;
using py::tuple_size;

namespace {

PyObject* name_at(PyObject* names, std::size_t position) {
  return PyTuple_GET_ITEM(names, static_cast<Py_ssize_t>(position));
}

/// The parameter of that name, an interned str as names in calls are, or the number of names.
std::size_t find_parameter(PyObject* names, PyObject* name) {
  const PyObject* const* first = PySequence_Fast_ITEMS(names);
  return static_cast<std::size_t>(std::find(first, first + tuple_size(names), name) - first);
}

}  // namespace

BoundArguments::~BoundArguments() {
  for (; owned_ != 0; owned_ &= owned_ - 1)
    py::drop(Owned::steal(values_[static_cast<std::size_t>(std::countr_zero(owned_))]));
}

void BoundArguments::own(std::size_t position, Owned value) noexcept {
  values_[position] = value.release();
  owned_ |= 1U << position;
}

bool BoundArguments::bind(PyObject* function, PyObject* names, std::size_t positional,
                          PyObject* const* passed, std::size_t count, PyObject* keyword_names) {
  if (count > positional) return false;
  std::fill(std::copy_n(passed, count, values_.begin()), values_.begin() + tuple_size(names),
            nullptr);
  return (keyword_names == nullptr || place_keywords(names, passed + count, keyword_names)) &&
         fill_defaults(function, positional) && fill_keyword_defaults(function, names, positional);
}

bool BoundArguments::place_keywords(PyObject* names, PyObject* const* values,
                                    PyObject* keyword_names) {
  for (std::size_t i = 0; i < tuple_size(keyword_names); ++i) {
    const std::size_t at = find_parameter(names, name_at(keyword_names, i));
    if (at == tuple_size(names) || values_[at] != nullptr) return false;
    values_[at] = values[i];
  }
  return true;
}

bool BoundArguments::fill_defaults(PyObject* function, std::size_t positional) {
  PyObject* defaults = PyFunction_GET_DEFAULTS(function);
  const std::size_t defaulted = defaults == nullptr ? 0 : tuple_size(defaults);
  if (defaulted > positional) return false;
  const std::size_t required = positional - defaulted;
  for (std::size_t i = 0; i < positional; ++i) {
    if (values_[i] != nullptr) continue;
    if (i < required) return false;
    own(i, Owned::borrow(name_at(defaults, i - required)));
  }
  return true;
}

bool BoundArguments::fill_keyword_defaults(PyObject* function, PyObject* names,
                                           std::size_t positional) {
  for (std::size_t i = positional; i < tuple_size(names); ++i) {
    if (values_[i] != nullptr) continue;
    // Looked up afresh: a key that is no str may run code, and that may change the defaults.
    PyObject* defaults = PyFunction_GET_KW_DEFAULTS(function);
    if (defaults == nullptr) return false;
    const Owned held = Owned::borrow(defaults);
    std::optional<Owned> value = py::dict_get(held, name_at(names, i));
    if (!value) return false;
    own(i, std::move(*value));
  }
  return true;
}

}  // namespace tessaly
