#include "py/special_method.h"

#include "py/containers.h"

// The C API offers no look-up on a type that leaves its metaclass out and binds to an instance. So
// the classes are gone through one by one, in the order that the type's documented field gives.

namespace tessaly::py {

namespace {

Owned find_on_type(PyTypeObject* type, Handle name, const char* reason) {
  const Owned classes = Owned::borrow(type->tp_mro);
  for (std::size_t i = 0; i < tuple_size(classes); ++i) {
    PyObject* one = PyTuple_GET_ITEM(classes.ptr(), static_cast<Py_ssize_t>(i));
    const Owned names = Owned::steal(PyType_GetDict(reinterpret_cast<PyTypeObject*>(one)));
    if (std::optional<Owned> found = dict_get(names, name)) return std::move(*found);
  }
  raise(PyExc_TypeError, "'%.200s' object does not support the context manager protocol%s",
        type->tp_name, reason);
}

}  // namespace

SpecialMethod::SpecialMethod(Handle object, Handle name, const char* reason)
    : object_(object), method_(find_on_type(Py_TYPE(object.ptr()), name, reason)) {
  PyTypeObject* kind = Py_TYPE(method_.ptr());
  bound_ = !PyType_HasFeature(kind, Py_TPFLAGS_METHOD_DESCRIPTOR);
  if (bound_ && kind->tp_descr_get != nullptr)
    method_ = Owned::steal(kind->tp_descr_get(method_.ptr(), object.ptr(),
                                              reinterpret_cast<PyObject*>(Py_TYPE(object.ptr()))));
}

}  // namespace tessaly::py
