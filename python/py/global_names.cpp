#include "py/global_names.h"

#include "py/objects.h"

namespace tessaly::py {

namespace {

std::optional<Owned> dict_get(PyObject* dict, Handle name, Where where) {
  PyObject* value = nullptr;
  const int status = PyDict_GetItemRef(dict, name.ptr(), &value);
  return found(status, value, where);
}

[[noreturn]] void raise_name_error(Handle name, Where where) {
  const Owned text =
      Owned::steal(PyUnicode_FromFormat("name '%U' is not defined", name.ptr()), where);
  const Owned error = call(Target(PyExc_NameError, where), text);
  const Owned attribute_name = Owned::steal(PyUnicode_InternFromString("name"), where);
  checked(PyObject_SetAttr(error.ptr(), attribute_name.ptr(), name.ptr()), where);
  PyErr_SetObject(PyExc_NameError, error.ptr());
  throw_error_set(where);
}

}  // namespace

void GlobalNames::set(Owned module_namespace, Owned builtins) noexcept {
  module_.set(std::move(module_namespace));
  builtins_.set(std::move(builtins));
}

std::optional<Owned> GlobalNames::builtin(Handle name, Where where) const {
  return dict_get(builtins_.ptr(), name, where);
}

Owned GlobalNames::look_up(Handle name, Where where) {
  const std::uint64_t module_version = module_.version();
  const std::uint64_t builtins_version = builtins_.version();
  std::optional<Owned> value = dict_get(module_.ptr(), name, where);
  if (!value) value = dict_get(builtins_.ptr(), name, where);
  if (!value) raise_name_error(name, where);
  // A key that is no plain str may have run code while it was compared, and that may have changed
  // the answer already.
  if (module_.version() == module_version && builtins_.version() == builtins_version) {
    if (!module_.unchanged() || !builtins_.unchanged()) entries_.fill({});
    module_.remember();
    builtins_.remember();
    entry_of(name) = {name.ptr(), value->ptr()};
  }
  return std::move(*value);
}

int GlobalNames::traverse(visitproc visit, void* arg) const {
  if (const int status = module_.member().traverse(visit, arg)) return status;
  return builtins_.member().traverse(visit, arg);
}

void GlobalNames::clear() noexcept {
  entries_.fill({});
  module_.clear();
  builtins_.clear();
}

}  // namespace tessaly::py
