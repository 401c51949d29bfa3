#include "py/objects.h"

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
  const Owned source = Owned::steal(raw);
  for (Py_ssize_t i = 0; i < expected; ++i) {
    items[i] = next(Target(source, target.where));
    if (!items[i])
      raise(PyExc_ValueError, {"not enough values to unpack (expected %zd, got %zd)", target.where},
            expected, i);
  }
  if (next(Target(source, target.where)))
    raise(PyExc_ValueError, {"too many values to unpack (expected %zd)", target.where}, expected);
}

ListBuilder::ListBuilder(Py_ssize_t expected, Where where)
    : list_(Owned::steal(PyList_New(expected), where)) {
  Py_SET_SIZE(reinterpret_cast<PyListObject*>(list_.ptr()), 0);
}

SpecialMethod::SpecialMethod(Target object, Owned attribute) : method_(std::move(attribute)) {
  PyTypeObject* kind = Py_TYPE(method_.ptr());
  if (PyType_HasFeature(kind, Py_TPFLAGS_METHOD_DESCRIPTOR)) return;
  bound_ = true;
  if (kind->tp_descr_get == nullptr) return;
  PyObject* type = reinterpret_cast<PyObject*>(Py_TYPE(object.ptr()));
  method_ = Owned::steal(kind->tp_descr_get(method_.ptr(), object.ptr(), type), object.where);
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

void SortedSet::add(Target item) { checked(PySet_Add(set_.ptr(), item.ptr()), item.where); }

Owned SortedSet::sorted(Where where) const {
  Owned list = Owned::steal(PySequence_List(set_.ptr()), where);
  checked(PyList_Sort(list.ptr()), where);
  return list;
}

}  // namespace tessaly::py
