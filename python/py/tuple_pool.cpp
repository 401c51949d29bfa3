#include "py/tuple_pool.h"

namespace tessaly::py {

void TuplePool::give_back(Owned tuple) noexcept {
  PyObject* object = tuple.ptr();
  if (Py_REFCNT(object) != 1) {
    // The collector stops following a tuple of None; its new owner may rely on it.
    if (PyObject_GC_IsTracked(object) == 0) PyObject_GC_Track(object);
    return;
  }
  const auto size = static_cast<std::size_t>(PyTuple_GET_SIZE(object));
  if (size > kLongest || size == 0 || spare_[size].is_unshared()) return;
  for (std::size_t i = 0; i < size; ++i) {
    const auto position = static_cast<Py_ssize_t>(i);
    Owned item = Owned::steal(PyTuple_GET_ITEM(object, position));
    PyTuple_SET_ITEM(object, position, Py_None);
    drop(std::move(item));
  }
  // Dropping an item may have run Python code: a method, or a look through all objects.
  if (!spare_[size].is_unshared() && Py_REFCNT(object) == 1) spare_[size].set(std::move(tuple));
}

}  // namespace tessaly::py
