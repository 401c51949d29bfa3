#include "py/containers.h"

namespace tessaly::py {

std::optional<Owned> next(Handle iterator) {
  if (PyObject* item = PyIter_Next(iterator.ptr())) return Owned::steal(item);
  if (PyErr_Occurred()) throw_error_set();
  return std::nullopt;
}

std::optional<Owned> copy_if_exact(Handle rows, std::initializer_list<Exact> types) {
  if (!PyList_CheckExact(rows.ptr())) return std::nullopt;
  const Py_ssize_t count = PyList_GET_SIZE(rows.ptr());
  for (Py_ssize_t i = 0; i < count; ++i) {
    PyObject* row = PyList_GET_ITEM(rows.ptr(), i);
    if (!PyTuple_CheckExact(row) || tuple_size(row) != types.size()) return std::nullopt;
    Py_ssize_t position = 0;
    for (const Exact type : types) {
      PyObject* value = PyTuple_GET_ITEM(row, position++);
      if (!Py_IS_TYPE(value, type == Exact::Int ? &PyLong_Type : &PyUnicode_Type))
        return std::nullopt;
    }
  }
  return Owned::steal(PyList_GetSlice(rows.ptr(), 0, count));
}

void unpack_into(Handle object, std::size_t expected, std::optional<Owned>* items) {
  PyObject* raw = PyObject_GetIter(object.ptr());
  if (raw == nullptr) {
    const bool iterable = Py_TYPE(object.ptr())->tp_iter || PySequence_Check(object.ptr());
    if (!iterable && PyErr_ExceptionMatches(PyExc_TypeError))
      PyErr_Format(PyExc_TypeError, "cannot unpack non-iterable %.200s object",
                   Py_TYPE(object.ptr())->tp_name);
    throw_error_set();
  }
  const Owned iterator = Owned::steal(raw);
  for (std::size_t i = 0; i < expected; ++i) {
    items[i] = next(iterator);
    if (!items[i])
      raise(PyExc_ValueError, "not enough values to unpack (expected %zu, got %zu)", expected, i);
  }
  if (next(iterator)) raise(PyExc_ValueError, "too many values to unpack (expected %zu)", expected);
}

Owned module_attribute(Handle module, Handle name) {
  if (PyModule_CheckExact(module.ptr()))
    if (std::optional<Owned> value = dict_get(PyModule_GetDict(module.ptr()), name))
      return std::move(*value);
  return attribute(module, name);
}

Owned mapping_get(Handle mapping, Handle get, Handle key, std::optional<Handle> fallback) {
  if (!PyDict_CheckExact(mapping.ptr()))
    return fallback ? call_method(mapping, get, key, *fallback) : call_method(mapping, get, key);
  std::optional<Owned> value = dict_get(mapping, key);
  return value ? std::move(*value) : Owned::borrow(fallback.value_or(none()));
}

void mapping_pop(Handle mapping, Handle pop, Handle key) {
  if (PyDict_CheckExact(mapping.ptr()))
    checked(PyDict_Pop(mapping.ptr(), key.ptr(), nullptr));
  else
    drop(call_method(mapping, pop, key, none()));
}

void mapping_clear(Handle mapping, Handle clear) {
  if (PyDict_CheckExact(mapping.ptr()))
    PyDict_Clear(mapping.ptr());
  else
    drop(call_method(mapping, clear));
}

Owned sorted_tuple(Handle iterable) {
  const Owned list = Owned::steal(PySequence_List(iterable.ptr()));
  checked(PyList_Sort(list.ptr()));
  return Owned::steal(PyList_AsTuple(list.ptr()));
}

}  // namespace tessaly::py
