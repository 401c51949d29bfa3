#include "bound_arguments.h"

#include <algorithm>

namespace tessaly {

using py::Owned;

namespace {

PyObject* name_at(const BoundArguments::Signature& signature, std::size_t position) {
  return PyTuple_GET_ITEM(signature.names, static_cast<Py_ssize_t>(position));
}

/// The parameter of that name, or `parameters` when there is none or the name is not an exact str.
std::size_t find_parameter(const BoundArguments::Signature& signature, PyObject* name) {
  for (std::size_t i = 0; i < signature.parameters; ++i)
    if (name_at(signature, i) == name) return i;
  if (PyUnicode_CheckExact(name))
    for (std::size_t i = 0; i < signature.parameters; ++i)
      if (PyUnicode_Compare(name_at(signature, i), name) == 0) return i;
  return signature.parameters;
}

}  // namespace

BoundArguments::BoundArguments(const Signature& signature, PyObject* const* passed,
                               std::size_t flags_and_count, PyObject* keyword_names) {
  const auto count = static_cast<std::size_t>(PyVectorcall_NARGS(flags_and_count));
  if (!bind_quickly(signature, passed, count, keyword_names))
    bind_by_function(signature, passed, flags_and_count, keyword_names);
}

/// The ordinary case: known names, none twice, nothing missing. Declines everything else.
bool BoundArguments::bind_quickly(const Signature& signature, PyObject* const* passed,
                                  std::size_t count, PyObject* keyword_names) {
  if (count > signature.positional) return false;
  std::copy_n(passed, count, values_.begin());
  if (keyword_names != nullptr && !place_keywords(signature, passed + count, keyword_names))
    return false;
  return fill_defaults(signature);
}

bool BoundArguments::place_keywords(const Signature& signature, PyObject* const* values,
                                    PyObject* keyword_names) {
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(keyword_names); ++i) {
    const std::size_t at = find_parameter(signature, PyTuple_GET_ITEM(keyword_names, i));
    if (at == signature.parameters || values_[at] != nullptr) return false;
    values_[at] = values[i];
  }
  return true;
}

bool BoundArguments::fill_defaults(const Signature& signature) {
  PyObject* defaults = PyFunction_GET_DEFAULTS(signature.function);
  const auto defaulted =
      defaults == nullptr ? 0 : static_cast<std::size_t>(PyTuple_GET_SIZE(defaults));
  if (defaulted > signature.positional) return false;
  const std::size_t required = signature.positional - defaulted;
  for (std::size_t i = 0; i < signature.positional; ++i) {
    if (values_[i] != nullptr) continue;
    if (i < required) return false;
    PyObject* value = PyTuple_GET_ITEM(defaults, static_cast<Py_ssize_t>(i - required));
    values_[i] = owned_.push(Owned::borrow(value)).ptr();
  }
  return fill_keyword_defaults(signature);
}

bool BoundArguments::fill_keyword_defaults(const Signature& signature) {
  if (signature.positional == signature.parameters) return true;
  PyObject* defaults = PyFunction_GET_KW_DEFAULTS(signature.function);
  Py_ssize_t next = 0;
  PyObject* key = nullptr;
  PyObject* value = nullptr;
  for (std::size_t i = signature.positional; i < signature.parameters; ++i) {
    // As it was made, the dict has the parameters in their order: walking beside it is cheaper
    // than looking every name up, and runs no Python code.
    if (defaults != nullptr && PyDict_Next(defaults, &next, &key, &value) != 0 &&
        key == name_at(signature, i)) {
      if (values_[i] == nullptr) values_[i] = owned_.push(Owned::borrow(value)).ptr();
      continue;
    }
    if (values_[i] != nullptr) continue;
    return false;  // somebody changed it: let the interpreter find its way
  }
  return true;
}

/// Lets the interpreter bind: the function returns its locals, or raises the error that is due.
void BoundArguments::bind_by_function(const Signature& signature, PyObject* const* passed,
                                      std::size_t flags_and_count, PyObject* keyword_names) {
  const Owned bound =
      Owned::steal(PyObject_Vectorcall(signature.function, passed, flags_and_count, keyword_names));
  for (std::size_t i = 0; i < signature.parameters; ++i)
    values_[i] = owned_.push(py::item(bound, py::Handle(name_at(signature, i)))).ptr();
}

}  // namespace tessaly
