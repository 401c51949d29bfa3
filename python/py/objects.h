#pragma once

#include <Python.h>

#include <concepts>
#include <utility>

#include "py/reference.h"

/// Operations on objects, named as in Python and behaving as there. Unless it says otherwise, every
/// one may run arbitrary Python code and throws ErrorSet on failure.
namespace tessaly::py {

inline Owned attribute(Handle object, Handle name) {
  return Owned::steal(PyObject_GetAttr(object.ptr(), name.ptr()));
}

/// `callable(...)` without keywords, by the calling convention; a Python function, which has its
/// entry in itself, is entered straight.
inline PyObject* vectorcall(PyObject* callable, PyObject* const* arguments,
                            std::size_t flags_and_count) {
  if (PyFunction_Check(callable))
    return reinterpret_cast<PyFunctionObject*>(callable)->vectorcall(callable, arguments,
                                                                     flags_and_count, nullptr);
  return PyObject_Vectorcall(callable, arguments, flags_and_count, nullptr);
}

/// `callable(arguments...)`.
template <std::convertible_to<Handle>... Arguments>
Owned call(Handle callable, const Arguments&... arguments) {
  // The slot before the first argument is the callee's to use, as the calling convention offers.
  PyObject* stack[] = {nullptr, Handle(arguments).ptr()...};
  return Owned::steal(
      vectorcall(callable.ptr(), stack + 1, sizeof...(Arguments) | PY_VECTORCALL_ARGUMENTS_OFFSET));
}

/// `object.name(arguments...)`, without making a bound method.
template <std::convertible_to<Handle>... Arguments>
Owned call_method(Handle object, Handle name, const Arguments&... arguments) {
  PyObject* stack[] = {nullptr, object.ptr(), Handle(arguments).ptr()...};
  constexpr std::size_t kFlagsAndCount =
      (1 + sizeof...(Arguments)) | PY_VECTORCALL_ARGUMENTS_OFFSET;
  return Owned::steal(PyObject_VectorcallMethod(name.ptr(), stack + 1, kFlagsAndCount, nullptr));
}

/// `bool(object)`.
inline bool truth(Handle object) {
  if (object.is_none()) return false;
  if (PyTuple_CheckExact(object.ptr())) return PyTuple_GET_SIZE(object.ptr()) != 0;
  if (PyUnicode_CheckExact(object.ptr())) return PyUnicode_GET_LENGTH(object.ptr()) != 0;
  if (PyList_CheckExact(object.ptr())) return PyList_GET_SIZE(object.ptr()) != 0;
  return checked(PyObject_IsTrue(object.ptr())) != 0;
}

inline Owned integer(Py_ssize_t value) { return Owned::steal(PyLong_FromSsize_t(value)); }

inline Owned text(const char* utf8) { return Owned::steal(PyUnicode_FromString(utf8)); }

/// `len(object)`, an int.
inline Owned length(Handle object) {
  if (PyList_CheckExact(object.ptr())) return integer(PyList_GET_SIZE(object.ptr()));
  return integer(checked(PyObject_Size(object.ptr())));
}

/// `bool(left == right)`.
inline bool equal(Handle left, Handle right) {
  if (left.is(right) && PyLong_CheckExact(left.ptr())) return true;
  return truth(Owned::steal(PyObject_RichCompare(left.ptr(), right.ptr(), Py_EQ)));
}

/// `bool(left != right)`.
inline bool unequal(Handle left, Handle right) {
  if (left.is(right) && PyLong_CheckExact(left.ptr())) return false;
  return truth(Owned::steal(PyObject_RichCompare(left.ptr(), right.ptr(), Py_NE)));
}

/// `left > right`, whatever that is.
inline Owned greater(Handle left, Handle right) {
  return Owned::steal(PyObject_RichCompare(left.ptr(), right.ptr(), Py_GT));
}

/// `int(object)`, the object itself when it is an exact int.
inline Owned to_int(Owned object) {
  if (PyLong_CheckExact(object.ptr())) return object;
  return Owned::steal(PyNumber_Long(object.ptr()));
}

/// `str(object)`, the object itself when it is an exact str.
inline Owned to_str(Owned object) {
  if (PyUnicode_CheckExact(object.ptr())) return object;
  return Owned::steal(PyObject_Str(object.ptr()));
}

/// `format(object, "")` as a plain str, the object itself when it is one.
inline Owned format(Handle object) {
  if (PyUnicode_CheckExact(object.ptr())) return Owned::borrow(object);
  const Owned formatted = Owned::steal(PyObject_Format(object.ptr(), nullptr));
  return Owned::steal(PyUnicode_FromObject(formatted.ptr()));
}

/// `text.replace(old, new)`; `replace` is the interned name of the method.
inline Owned replaced(Handle text, Handle replace, Handle old_part, Handle new_part) {
  if (!PyUnicode_CheckExact(text.ptr())) return call_method(text, replace, old_part, new_part);
  return Owned::steal(PyUnicode_Replace(text.ptr(), old_part.ptr(), new_part.ptr(), -1));
}

/// What reading a local variable raises that was never set.
[[noreturn]] inline void raise_unbound_local(const char* name) {
  raise(PyExc_UnboundLocalError,
        "cannot access local variable '%s' where it is not associated with a value", name);
}

}  // namespace tessaly::py
