#pragma once

#include <Python.h>

#include <optional>
#include <utility>

#include "py/error.h"

namespace tessaly::py {

class Owned;
class Member;

/// A borrowed object, never null: the way an object is passed down. Whoever made the Handle keeps
/// the object alive for the length of the call; nothing that outlives the call may hold one.
class Handle {
 public:
  Handle(PyObject* object) noexcept : object_(object) {}
  Handle(const Owned& owned) noexcept;
  Handle(const Member& member) noexcept;

  [[nodiscard]] PyObject* ptr() const noexcept { return object_; }
  [[nodiscard]] bool is(Handle other) const noexcept { return object_ == other.object_; }
  [[nodiscard]] bool is_none() const noexcept { return object_ == Py_None; }

 private:
  PyObject* object_;
};

inline Handle none() noexcept { return Py_None; }

/// One owned reference: move-only, never null except once moved from. The names of the factories
/// say who owned the reference before.
class [[nodiscard]] Owned {
 public:
  /// Takes over a new reference; null means that an error is set, which is thrown on.
  static Owned steal(PyObject* object) {
    if (object == nullptr) [[unlikely]]
      throw ErrorSet{};
    return Owned(object);
  }
  /// Makes a reference of its own beside the one it is shown.
  static Owned borrow(Handle handle) noexcept { return Owned(Py_NewRef(handle.ptr())); }
  static Owned none() noexcept { return borrow(py::none()); }

  Owned(Owned&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Owned& operator=(Owned&& other) noexcept {
    // The old object goes last: dropping it may run Python code that looks at the new one.
    Owned old(std::exchange(object_, std::exchange(other.object_, nullptr)));
    return *this;
  }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  ~Owned() { Py_XDECREF(object_); }

  [[nodiscard]] PyObject* ptr() const noexcept { return object_; }
  [[nodiscard]] PyObject* release() noexcept { return std::exchange(object_, nullptr); }
  [[nodiscard]] bool is_none() const noexcept { return object_ == Py_None; }

 private:
  explicit Owned(PyObject* object) noexcept : object_(object) {}
  PyObject* object_;
};

/// For results that nobody asked for.
inline void drop(Owned /*result*/) noexcept {}

inline Handle::Handle(const Owned& owned) noexcept : object_(owned.ptr()) {}

/// The boundary towards Python for functions that answer an object: everything thrown inside ends
/// here as a Python error.
template <typename Function>
PyObject* guarded(Function&& function) noexcept {
  try {
    return function().release();
  } catch (...) {
    set_error_from_caught();
    return nullptr;
  }
}

/// The answer of the C API's three-way look-ups (-1 error, 0 absent, 1 found).
[[nodiscard]] inline std::optional<Owned> found(int status, PyObject* object) {
  if (checked(status) == 0) return std::nullopt;
  return Owned::steal(object);
}

/// A reference kept in a structure that garbage collection visits and clears; empty before it is
/// set and after it is cleared.
class Member {
 public:
  Member() noexcept = default;
  Member(const Member&) = delete;
  Member& operator=(const Member&) = delete;
  ~Member() { clear(); }

  void set(Owned value) noexcept {
    PyObject* old = std::exchange(object_, value.release());
    Py_XDECREF(old);
  }
  void clear() noexcept { Py_CLEAR(object_); }
  [[nodiscard]] int traverse(visitproc visit, void* arg) const {
    Py_VISIT(object_);
    return 0;
  }
  [[nodiscard]] bool empty() const noexcept { return object_ == nullptr; }
  [[nodiscard]] PyObject* ptr() const noexcept { return object_; }

 private:
  PyObject* object_ = nullptr;
};

inline Handle::Handle(const Member& member) noexcept : object_(member.ptr()) {}

}  // namespace tessaly::py
