#pragma once

#include <Python.h>

#include "py/reference.h"

/// What the slot tables of types that are made at run time have in common.
namespace tessaly::py {

/// A function as a slot takes it.
template <typename Function>
void* slot(Function* function) noexcept {
  return reinterpret_cast<void*>(function);
}

/// The tp_dealloc of an object that garbage collection knows: `Clear`, its tp_clear, lets go of
/// everything it owns; the object's own reference to its type goes last.
template <inquiry Clear>
void dealloc(PyObject* self) {
  PyObject_GC_UnTrack(self);
  Clear(self);
  auto* type = reinterpret_cast<PyObject*>(Py_TYPE(self));
  PyObject_GC_Del(self);
  drop(Owned::steal(type));
}

}  // namespace tessaly::py
