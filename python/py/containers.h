#pragma once

#include <Python.h>

#include <array>
#include <cstddef>
#include <initializer_list>
#include <optional>
#include <utility>

#include "py/objects.h"

/// Lists, tuples, dicts and sets, and what `for`, `[]` and unpacking do. As in objects.h.
namespace tessaly::py {

inline Owned new_list() { return Owned::steal(PyList_New(0)); }
inline Owned new_dict() { return Owned::steal(PyDict_New()); }
inline Owned new_set() { return Owned::steal(PySet_New(nullptr)); }

/// `object[key]`.
inline Owned item(Handle object, Handle key) {
  return Owned::steal(PyObject_GetItem(object.ptr(), key.ptr()));
}

/// `object[position]`, position not negative.
inline Owned item(Handle object, Py_ssize_t position) {
  if (PyTuple_CheckExact(object.ptr()) && position < PyTuple_GET_SIZE(object.ptr()))
    return Owned::borrow(PyTuple_GET_ITEM(object.ptr(), position));
  return item(object, integer(position));
}

namespace detail {
inline PyObject* into_reference(Handle handle) { return Py_NewRef(handle.ptr()); }
inline PyObject* into_reference(const Owned& owned) { return Py_NewRef(owned.ptr()); }
inline PyObject* into_reference(Owned&& owned) { return owned.release(); }
}  // namespace detail

/// A new tuple; owned rvalues are moved in, everything else is referenced. Runs no Python code.
template <typename... Items>
Owned tuple(Items&&... items) {
  Owned made = Owned::steal(PyTuple_New(sizeof...(Items)));
  [[maybe_unused]] Py_ssize_t position = 0;
  ((PyTuple_SET_ITEM(made.ptr(), position++, detail::into_reference(std::forward<Items>(items)))),
   ...);
  return made;
}

/// Tuple after tuple, in one. Runs no Python code.
inline Owned joined(Handle left, Handle right) {
  return Owned::steal(PySequence_Concat(left.ptr(), right.ptr()));
}

/// The length of an exact tuple.
inline std::size_t tuple_size(Handle tuple) noexcept {
  return static_cast<std::size_t>(PyTuple_GET_SIZE(tuple.ptr()));
}

/// `next(iterator)`, or nothing at its end.
std::optional<Owned> next(Handle iterator);

/// Calls `visit(Owned)` for every item of an iterable, as a `for` statement does: a list that
/// changes meanwhile is followed the way its iterator would.
template <typename Visit>
void for_each(Handle iterable, Visit&& visit) {
  if (PyList_CheckExact(iterable.ptr())) {
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(iterable.ptr()); ++i)
      visit(Owned::borrow(PyList_GET_ITEM(iterable.ptr(), i)));
    return;
  }
  const Owned iterator = Owned::steal(PyObject_GetIter(iterable.ptr()));
  while (std::optional<Owned> one = next(iterator)) visit(std::move(*one));
}

inline void append(Handle list, const Owned& item) {
  checked(PyList_Append(list.ptr(), item.ptr()));
}

inline void add(Handle set, const Owned& item) { checked(PySet_Add(set.ptr(), item.ptr())); }

/// `[convert(item) for item in iterable]`.
template <typename Convert>
Owned list_of(Handle iterable, Convert&& convert) {
  Owned made = new_list();
  for_each(iterable, [&](Owned one) { append(made, convert(std::move(one))); });
  return made;
}

enum class Exact { Int, Str };

/// A copy of `rows` if it is a list of tuples of just these types: converting each value to its
/// type would make no other. Runs no Python code.
std::optional<Owned> copy_if_exact(Handle rows, std::initializer_list<Exact> types);

/// Raises what an assignment to `expected` names raises for `object`, or fills `items`.
void unpack_into(Handle object, std::size_t expected, std::optional<Owned>* items);

/// `a, b, ... = object`: exactly `Count` values.
template <std::size_t Count>
std::array<Owned, Count> unpack(Handle object) {
  if (PyTuple_CheckExact(object.ptr()) && tuple_size(object) == Count)
    return [object]<std::size_t... I>(std::index_sequence<I...>) {
      return std::array<Owned, Count>{Owned::borrow(PyTuple_GET_ITEM(object.ptr(), I))...};
    }(std::make_index_sequence<Count>());
  std::array<std::optional<Owned>, Count> items;
  unpack_into(object, Count, items.data());
  return [&items]<std::size_t... I>(std::index_sequence<I...>) {
    return std::array<Owned, Count>{std::move(*items[I])...};
  }(std::make_index_sequence<Count>());
}

/// `dict[key] = value` of an exact dict.
inline void dict_set(Handle dict, Handle key, Handle value) {
  checked(PyDict_SetItem(dict.ptr(), key.ptr(), value.ptr()));
}

/// The value under `key` in an exact dict, if there is one.
inline std::optional<Owned> dict_get(Handle dict, Handle key) {
  PyObject* value = nullptr;
  const int status = PyDict_GetItemRef(dict.ptr(), key.ptr(), &value);
  return found(status, value);
}

/// `module.name`, of a name that the type of modules does not have: the dict of an exact module is
/// all that is asked then.
Owned module_attribute(Handle module, Handle name);

/// A new dict of these keys, interned names, and values. Runs no Python code.
template <std::size_t Count>
Owned record(const std::array<Handle, Count>& keys, const std::array<Owned, Count>& values) {
  Owned made = new_dict();
  for (std::size_t i = 0; i < Count; ++i) dict_set(made, keys[i], values[i]);
  return made;
}

/// `mapping.get(key)` and `mapping.get(key, fallback)`: done directly while the mapping is an exact
/// dict. `get` is the interned name of the method.
Owned mapping_get(Handle mapping, Handle get, Handle key, std::optional<Handle> fallback = {});

/// `mapping.pop(key, None)` and `mapping.clear()`, their results dropped; likewise.
void mapping_pop(Handle mapping, Handle pop, Handle key);
void mapping_clear(Handle mapping, Handle clear);

/// `mapping[key] = value`.
inline void mapping_set(Handle mapping, Handle key, Handle value) {
  checked(PyObject_SetItem(mapping.ptr(), key.ptr(), value.ptr()));
}

/// `tuple(sorted(iterable))`.
Owned sorted_tuple(Handle iterable);

}  // namespace tessaly::py
