#pragma once

#include <Python.h>

#include <array>

#include "py/reference.h"
#include "py/texts.h"

namespace tessaly {

/// The shape of a statement that is put together at run time:
/// head + columns + middle + "?,?,..." + tail.
struct StatementShape {
  py::Text head;
  py::Text middle{""};
  py::Text tail{""};
};

/// Statements put together before, so that the same parts give the same str object: its hash is
/// known, and the database driver's own statement cache finds it by identity.
class StatementCache {
 public:
  /// The statement of `shape` with `columns`, an exact str, in its place (null: none) and `marks`
  /// placeholders. Runs no Python code.
  py::Owned get(const StatementShape& shape, PyObject* columns, Py_ssize_t marks);
  void clear() noexcept;

 private:
  struct Entry {
    const StatementShape* shape = nullptr;
    Py_ssize_t marks = 0;
    py::Member columns;
    py::Member statement;
  };
  std::array<Entry, 64> entries_;
};

}  // namespace tessaly
