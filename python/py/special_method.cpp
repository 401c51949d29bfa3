#include "py/special_method.h"

#include "py/containers.h"

// The C API offers no look-up on a type that leaves its metaclass out and binds to an instance. So
// the classes are gone through one by one, in the order that the type's documented field gives.

namespace tessaly::py {

namespace {

std::optional<Owned> find_on_type(PyTypeObject* type, Handle name) {
  const Owned classes = Owned::borrow(type->tp_mro);
  for (std::size_t i = 0; i < tuple_size(classes); ++i) {
    PyObject* one = PyTuple_GET_ITEM(classes.ptr(), static_cast<Py_ssize_t>(i));
    const Owned names = Owned::steal(PyType_GetDict(reinterpret_cast<PyTypeObject*>(one)));
    if (std::optional<Owned> found = dict_get(names, name)) return found;
  }
  return std::nullopt;
}

}  // namespace

std::optional<SpecialMethod> SpecialMethod::look_up(Handle object, Handle name) {
  PyTypeObject* type = Py_TYPE(object.ptr());
  std::optional<Owned> method = find_on_type(type, name);
  if (!method) return std::nullopt;
  PyTypeObject* kind = Py_TYPE(method->ptr());
  if (PyType_HasFeature(kind, Py_TPFLAGS_METHOD_DESCRIPTOR))
    return SpecialMethod(object, std::move(*method), false);
  if (kind->tp_descr_get != nullptr)
    method = Owned::steal(
        kind->tp_descr_get(method->ptr(), object.ptr(), reinterpret_cast<PyObject*>(type)));
  return SpecialMethod(object, std::move(*method), true);
}

}  // namespace tessaly::py
