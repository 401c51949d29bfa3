#include "python/objects.h"

namespace tessaly::py {

void unpack_into(Target target, Py_ssize_t expected, std::optional<Owned>* items) {
  PyObject* raw = PyObject_GetIter(target.ptr());
  if (raw == nullptr) {
    const bool iterable = Py_TYPE(target.ptr())->tp_iter || PySequence_Check(target.ptr());
    if (!iterable && PyErr_ExceptionMatches(PyExc_TypeError))
      PyErr_Format(PyExc_TypeError, "cannot unpack non-iterable %.200s object",
                   Py_TYPE(target.ptr())->tp_name);
    throw_error_set(target.where);
  }
  const Owned iterator = Owned::steal(raw);
  for (Py_ssize_t i = 0; i < expected; ++i) {
    PyObject* next = PyIter_Next(iterator.ptr());
    if (next == nullptr) {
      if (!PyErr_Occurred())
        PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected %zd, got %zd)",
                     expected, i);
      throw_error_set(target.where);
    }
    items[i] = Owned::steal(next);
  }
  if (PyObject* surplus = PyIter_Next(iterator.ptr())) {
    const Owned dropped = Owned::steal(surplus);
    PyErr_Format(PyExc_ValueError, "too many values to unpack (expected %zd)", expected);
    throw_error_set(target.where);
  }
  if (PyErr_Occurred()) throw_error_set(target.where);
}

ListBuilder::ListBuilder(Py_ssize_t expected, Where where)
    : list_(Owned::steal(PyList_New(expected), where)) {
  Py_SET_SIZE(reinterpret_cast<PyListObject*>(list_.ptr()), 0);
}

std::optional<SpecialMethod> SpecialMethod::find(Target target, Handle name) {
  PyTypeObject* type = Py_TYPE(target.ptr());
  PyObject* raw = _PyType_LookupRef(type, name.ptr());
  if (raw == nullptr) return std::nullopt;
  Owned attribute = Owned::steal(raw);
  if (PyType_HasFeature(Py_TYPE(raw), Py_TPFLAGS_METHOD_DESCRIPTOR))
    return SpecialMethod(std::move(attribute), false);
  const descrgetfunc get = Py_TYPE(raw)->tp_descr_get;
  if (get == nullptr) return SpecialMethod(std::move(attribute), true);
  PyObject* bound = get(raw, target.ptr(), reinterpret_cast<PyObject*>(type));
  return SpecialMethod(Owned::steal(bound, target.where), true);
}

namespace {

std::optional<Owned> dict_get(Target dict, Handle key) {
  PyObject* value = nullptr;
  const int status = PyDict_GetItemRef(dict.ptr(), key.ptr(), &value);
  return found(status, value, dict.where);
}

}  // namespace

Owned mapping_get(Target mapping, Handle get, Handle key) {
  if (!PyDict_CheckExact(mapping.ptr())) return call_method(mapping, get, key);
  std::optional<Owned> value = dict_get(mapping, key);
  return value ? std::move(*value) : Owned::none();
}

Owned mapping_get(Target mapping, Handle get, Handle key, Handle fallback) {
  if (!PyDict_CheckExact(mapping.ptr())) return call_method(mapping, get, key, fallback);
  std::optional<Owned> value = dict_get(mapping, key);
  return value ? std::move(*value) : Owned::borrow(fallback);
}

void mapping_set(Target mapping, Handle key, Handle value) {
  checked(PyObject_SetItem(mapping.ptr(), key.ptr(), value.ptr()), mapping.where);
}

}  // namespace tessaly::py
