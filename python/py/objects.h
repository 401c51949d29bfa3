#pragma once

#include <Python.h>

#include <array>
#include <concepts>
#include <optional>
#include <type_traits>
#include <utility>

#include "py/error.h"
#include "py/reference.h"

/// Operations on objects, named as in Python and behaving as there. Unless it says otherwise, every
/// one may run arbitrary Python code and throws ErrorSet on failure.
namespace tessaly::py {

/// The object that a call is about, together with the place of the call in the source: made
/// implicitly from whatever is passed, so that a failure can be traced to the caller's line.
struct Target {
  Target(const Owned& owned, Where at = Where::current()) : object(owned), where(at) {}
  Target(const Member& member, Where at = Where::current()) : object(member), where(at) {}
  Target(Handle handle, Where at = Where::current()) : object(handle), where(at) {}
  Target(PyObject* borrowed, Where at = Where::current()) : object(borrowed), where(at) {}

  [[nodiscard]] PyObject* ptr() const noexcept { return object.ptr(); }

  Handle object;
  Where where;
};

inline Owned attribute(Target target, Handle name) {
  return Owned::steal(PyObject_GetAttr(target.ptr(), name.ptr()), target.where);
}

/// `PyObject_Vectorcall` without keywords; a Python function, which has its entry in itself, is
/// entered straight.
inline PyObject* vectorcall(PyObject* callable, PyObject* const* arguments,
                            std::size_t flags_and_count) {
  if (PyFunction_Check(callable))
    return reinterpret_cast<PyFunctionObject*>(callable)->vectorcall(callable, arguments,
                                                                     flags_and_count, nullptr);
  return PyObject_Vectorcall(callable, arguments, flags_and_count, nullptr);
}

/// `target(arguments...)`.
template <std::convertible_to<Handle>... Arguments>
Owned call(Target target, const Arguments&... arguments) {
  // The slot before the first argument is the callee's to use, as the calling convention offers.
  PyObject* stack[] = {nullptr, Handle(arguments).ptr()...};
  return Owned::steal(
      vectorcall(target.ptr(), stack + 1, sizeof...(Arguments) | PY_VECTORCALL_ARGUMENTS_OFFSET),
      target.where);
}

/// `target.name(arguments...)`, without making a bound method.
template <std::convertible_to<Handle>... Arguments>
Owned call_method(Target target, Handle name, const Arguments&... arguments) {
  PyObject* stack[] = {nullptr, target.ptr(), Handle(arguments).ptr()...};
  constexpr std::size_t kFlagsAndCount =
      (1 + sizeof...(Arguments)) | PY_VECTORCALL_ARGUMENTS_OFFSET;
  return Owned::steal(PyObject_VectorcallMethod(name.ptr(), stack + 1, kFlagsAndCount, nullptr),
                      target.where);
}

inline bool truth(Target target) {
  if (target.ptr() == Py_None) return false;
  if (PyTuple_CheckExact(target.ptr())) return PyTuple_GET_SIZE(target.ptr()) != 0;
  if (PyUnicode_CheckExact(target.ptr())) return PyUnicode_GET_LENGTH(target.ptr()) != 0;
  if (PyList_CheckExact(target.ptr())) return PyList_GET_SIZE(target.ptr()) != 0;
  return checked(PyObject_IsTrue(target.ptr()), target.where) != 0;
}

inline Py_ssize_t length(Target target) {
  if (PyList_CheckExact(target.ptr())) return PyList_GET_SIZE(target.ptr());
  return checked_size(PyObject_Size(target.ptr()), target.where);
}

/// `left OP right`, OP one of Py_EQ, Py_NE, ...
inline Owned rich_compare(Target left, Handle right, int operation) {
  return Owned::steal(PyObject_RichCompare(left.ptr(), right.ptr(), operation), left.where);
}

/// `bool(left OP right)`.
inline bool compare(Target left, Handle right, int operation) {
  if (left.object.is(right) && PyLong_CheckExact(left.ptr()))
    return operation == Py_EQ || operation == Py_LE || operation == Py_GE;
  const Owned answer = rich_compare(left, right, operation);
  return truth(Target(answer, left.where));
}

inline Owned integer(Py_ssize_t value, Where where = Where::current()) {
  return Owned::steal(PyLong_FromSsize_t(value), where);
}

/// `int(target)`, the object itself when it is an exact int.
inline Owned to_int(Target target) {
  if (PyLong_CheckExact(target.ptr())) return Owned::borrow(target.object);
  return Owned::steal(PyNumber_Long(target.ptr()), target.where);
}

/// `str(target)`, the object itself when it is an exact str.
inline Owned to_str(Target target) {
  if (PyUnicode_CheckExact(target.ptr())) return Owned::borrow(target.object);
  return Owned::steal(PyObject_Str(target.ptr()), target.where);
}

/// `target[key]`.
inline Owned item(Target target, Handle key) {
  return Owned::steal(PyObject_GetItem(target.ptr(), key.ptr()), target.where);
}

/// `target[position]`, position not negative.
inline Owned item(Target target, Py_ssize_t position) {
  if (PyTuple_CheckExact(target.ptr()) && position < PyTuple_GET_SIZE(target.ptr()))
    return Owned::borrow(PyTuple_GET_ITEM(target.ptr(), position));
  const Owned key = integer(position, target.where);
  return item(target, key);
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

/// `iter(target)`.
inline Owned iterator(Target target) {
  return Owned::steal(PyObject_GetIter(target.ptr()), target.where);
}

/// `next(iterator)`, or nothing at its end.
inline std::optional<Owned> next(Target iterator) {
  PyObject* item = PyIter_Next(iterator.ptr());
  if (item != nullptr) return Owned::steal(item);
  if (PyErr_Occurred()) throw_error_set(iterator.where);
  return std::nullopt;
}

/// Calls `visit(Owned)` for every item of an iterable, as a `for` statement does: a list or tuple
/// that changes meanwhile is followed the way its iterator would. `visit` may answer `false` to
/// end the loop early.
template <typename Visit>
void for_each(Target iterable, Visit&& visit) {
  const auto go_on = [&visit](Owned one) {
    if constexpr (std::is_same_v<std::invoke_result_t<Visit&, Owned>, bool>) {
      return visit(std::move(one));
    } else {
      visit(std::move(one));
      return true;
    }
  };
  PyObject* object = iterable.ptr();
  if (PyList_CheckExact(object)) {
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(object); ++i)
      if (!go_on(Owned::borrow(PyList_GET_ITEM(object, i)))) return;
    return;
  }
  const Owned source = iterator(iterable);
  while (std::optional<Owned> one = next(Target(source, iterable.where)))
    if (!go_on(std::move(*one))) return;
}

/// Raises what an assignment to `expected` names raises for `target`, or fills `items`.
void unpack_into(Target target, Py_ssize_t expected, std::optional<Owned>* items);

/// `a, b, ... = target`: exactly `Count` values.
template <std::size_t Count>
std::array<Owned, Count> unpack(Target target) {
  std::array<std::optional<Owned>, Count> items;
  PyObject* object = target.ptr();
  if (PyTuple_CheckExact(object) && PyTuple_GET_SIZE(object) == Count) {
    for (std::size_t i = 0; i < Count; ++i)
      items[i] = Owned::borrow(PyTuple_GET_ITEM(object, static_cast<Py_ssize_t>(i)));
  } else {
    unpack_into(target, Count, items.data());
  }
  return [&items]<std::size_t... I>(std::index_sequence<I...>) {
    return std::array<Owned, Count>{std::move(*items[I])...};
  }
  (std::make_index_sequence<Count>());
}

/// A new dict with room for `expected` entries of any keys.
inline Owned dict_for(Py_ssize_t expected, Where where = Where::current()) {
  return Owned::steal(_PyDict_NewPresized(expected), where);
}

/// A new list with room for `expected` items, filled from the front. At no time does it show an
/// empty slot, so it may be looked at (by a garbage collector's inspection, say) while it grows.
class ListBuilder {
 public:
  explicit ListBuilder(Py_ssize_t expected, Where where = Where::current());
  void append(Owned item) {
    auto* list = reinterpret_cast<PyListObject*>(list_.ptr());
    const Py_ssize_t size = PyList_GET_SIZE(list_.ptr());
    if (size < list->allocated) {
      list->ob_item[size] = item.release();
      Py_SET_SIZE(list, size + 1);
    } else {
      checked(PyList_Append(list_.ptr(), item.ptr()));
    }
  }
  [[nodiscard]] Handle list() const noexcept { return list_; }
  Owned take() && { return std::move(list_); }

 private:
  Owned list_;
};

/// How many items a loop over `iterable` will probably see; 0 when nobody knows. Runs no Python.
inline Py_ssize_t expected_length(Handle iterable) {
  if (PyList_CheckExact(iterable.ptr())) return PyList_GET_SIZE(iterable.ptr());
  if (PyTuple_CheckExact(iterable.ptr())) return PyTuple_GET_SIZE(iterable.ptr());
  return 0;
}

/// `[convert(item) for item in iterable]`.
template <typename Convert>
Owned list_of(Target iterable, Convert&& convert) {
  ListBuilder made(expected_length(iterable.object), iterable.where);
  for_each(iterable, [&](Owned one) { made.append(convert(std::move(one))); });
  return std::move(made).take();
}

/// A method found on an object's type, as statements find `__enter__`: it stays unbound where the
/// type allows it.
class SpecialMethod {
 public:
  /// What the type has under that name, not yet bound; nothing when it has none. Runs no Python
  /// code.
  static std::optional<Owned> look_up(Handle object, Handle name) {
    PyObject* attribute = _PyType_LookupRef(Py_TYPE(object.ptr()), name.ptr());
    if (attribute == nullptr) return std::nullopt;
    return Owned::steal(attribute);
  }

  /// Binds what `look_up` found to the object.
  SpecialMethod(Target object, Owned attribute);

  /// Calls it on the object it was bound to.
  template <std::convertible_to<Handle>... Arguments>
  Owned operator()(Target object, const Arguments&... arguments) const {
    PyObject* stack[] = {nullptr, object.ptr(), Handle(arguments).ptr()...};
    const std::size_t skipped = bound_ ? 1 : 0;
    return Owned::steal(
        vectorcall(method_.ptr(), stack + 1 + skipped,
                   (1 + sizeof...(Arguments) - skipped) | PY_VECTORCALL_ARGUMENTS_OFFSET),
        object.where);
  }

 private:
  Owned method_;
  bool bound_ = false;
};

/// A copy of the dict `layout`, whose keys are the given ones in their order, with the given
/// values. Copying a laid-out dict is cheaper than growing a new one. Runs no Python code: the keys
/// are interned strings.
template <std::size_t Count>
Owned record(Handle layout, const std::array<Handle, Count>& keys,
             const std::array<Owned, Count>& values) {
  Owned made = Owned::steal(PyDict_Copy(layout.ptr()));
  for (std::size_t i = 0; i < Count; ++i)
    checked(PyDict_SetItem(made.ptr(), keys[i].ptr(), values[i].ptr()));
  return made;
}

/// A dict of these keys, all None, for `record`.
template <std::size_t Count>
Owned record_layout(const std::array<Handle, Count>& keys) {
  Owned made = Owned::steal(PyDict_New());
  for (const Handle key : keys) checked(PyDict_SetItem(made.ptr(), key.ptr(), Py_None));
  return made;
}

/// `mapping.get(key)` and `mapping.get(key, fallback)`, `mapping[key] = value`: done directly while
/// the mapping is an exact dict. `get` is the interned name of the method.
Owned mapping_get(Target mapping, Handle get, Handle key);
Owned mapping_get(Target mapping, Handle get, Handle key, Handle fallback);
void mapping_set(Target mapping, Handle key, Handle value);

/// A set that is filled, and then read once in ascending order.
class SortedSet {
 public:
  SortedSet() : set_(Owned::steal(PySet_New(nullptr))) {}
  void add(Target item);
  /// `sorted(set)`: a new list.
  [[nodiscard]] Owned sorted(Where where = Where::current()) const;

 private:
  Owned set_;
};

}  // namespace tessaly::py
