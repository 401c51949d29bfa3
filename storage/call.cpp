#include "call.h"

#include "python/rounding.h"
#include "python/traceback.h"

namespace tessaly {

using py::Owned;

namespace {

std::optional<Owned> dict_get(py::Handle dict, py::Handle name, py::Where where) {
  PyObject* value = nullptr;
  const int status = PyDict_GetItemRef(dict.ptr(), name.ptr(), &value);
  return py::found(status, value, where);
}

}  // namespace

Owned Call::global(py::Handle name, py::Where where) const {
  if (std::optional<Owned> value = dict_get(state_.namespace_, name, where))
    return std::move(*value);
  if (std::optional<Owned> value = dict_get(state_.builtins, name, where)) return std::move(*value);
  const Owned text =
      Owned::steal(PyUnicode_FromFormat("name '%U' is not defined", name.ptr()), where);
  const Owned error = py::call(py::Target(PyExc_NameError, where), text);
  py::checked(PyObject_SetAttr(error.ptr(), names().name.ptr(), name.ptr()), where);
  PyErr_SetObject(PyExc_NameError, error.ptr());
  py::throw_error_set(where);
}

Owned Call::import_json(py::Where where) const {
  const std::optional<Owned> import = dict_get(state_.builtins, names().dunder_import, where);
  if (!import) {
    PyErr_SetString(PyExc_ImportError, "__import__ not found");
    py::throw_error_set(where);
  }
  if (py::Handle(*import).is(state_.genuine_import))
    return Owned::steal(PyImport_ImportModuleLevelObject(
                            names().json.ptr(), state_.namespace_.ptr(), Py_None, Py_None, 0),
                        where);
  const Owned level = py::integer(0);
  return py::call(py::Target(*import, where), names().json, state_.namespace_, py::Handle(Py_None),
                  py::Handle(Py_None), level);
}

Owned Call::round_to_4_digits(py::Target value) const {
  const Owned round = global(names().round, value.where);
  if (py::Handle(round).is(state_.genuine_round) && PyFloat_CheckExact(value.ptr()))
    if (const auto rounded = py::round_to_4_digits(PyFloat_AS_DOUBLE(value.ptr())))
      return Owned::steal(PyFloat_FromDouble(*rounded), value.where);
  const Owned digits = py::integer(4);
  return py::call(py::Target(round, value.where), value.object, digits);
}

void Call::trace(py::Where where) const noexcept {
  py::add_traceback(method_, where, state_.namespace_.ptr());
}

}  // namespace tessaly
