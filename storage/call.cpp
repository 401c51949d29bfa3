#include "call.h"

#include "py/rounding.h"
#include "py/traceback.h"

namespace tessaly {

using py::Owned;

Owned Call::import_json(py::Where where) const {
  const std::optional<Owned> import = state_.globals.builtin(names().dunder_import, where);
  if (!import) {
    PyErr_SetString(PyExc_ImportError, "__import__ not found");
    py::throw_error_set(where);
  }
  if (py::Handle(*import).is(state_.genuine_import))
    return Owned::steal(
        PyImport_ImportModuleLevelObject(names().json.ptr(), state_.globals.module_namespace(),
                                         Py_None, Py_None, 0),
        where);
  const Owned level = py::integer(0);
  return py::call(py::Target(*import, where), names().json,
                  py::Handle(state_.globals.module_namespace()), py::Handle(Py_None),
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
  py::add_traceback(method_, where, state_.globals.module_namespace());
}

}  // namespace tessaly
