#include "py/globals.h"

#include <cstring>

#include "py/containers.h"

namespace tessaly::py {

Owned Globals::get(Handle name) const {
  if (std::optional<Owned> value = dict_get(names, name)) return std::move(*value);
  if (std::optional<Owned> value = dict_get(builtins, name)) return std::move(*value);
  const Owned message = Owned::steal(PyUnicode_FromFormat("name '%U' is not defined", name.ptr()));
  const Owned error = call(PyExc_NameError, message);
  checked(PyObject_SetAttrString(error.ptr(), "name", name.ptr()));
  PyErr_SetObject(PyExc_NameError, error.ptr());
  throw_error_set();
}

bool is_builtin(Handle function, const char* name) noexcept {
  if (!PyCFunction_CheckExact(function.ptr())) return false;
  PyObject* home = PyCFunction_GET_SELF(function.ptr());
  return home != nullptr && PyModule_CheckExact(home) &&
         PyModule_GetDict(home) == PyEval_GetBuiltins() &&
         std::strcmp(PyEval_GetFuncName(function.ptr()), name) == 0;
}

}  // namespace tessaly::py
