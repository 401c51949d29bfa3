#include "statement_cache.h"

#include <cstdint>
#include <string>

namespace tessaly {

namespace {

py::Owned compose(const StatementShape& shape, PyObject* columns, Py_ssize_t marks) {
  std::string placeholders;
  for (Py_ssize_t i = 0; i < marks; ++i) placeholders += i == 0 ? "?" : ",?";
  const py::Owned empty = py::Owned::steal(PyUnicode_FromString(""));
  return py::Owned::steal(PyUnicode_FromFormat(
      "%s%U%s%s%s", shape.head.utf8, columns == nullptr ? empty.ptr() : columns, shape.middle.utf8,
      placeholders.c_str(), shape.tail.utf8));
}

}  // namespace

py::Owned StatementCache::get(const StatementShape& shape, PyObject* columns, Py_ssize_t marks) {
  const auto key =
      (reinterpret_cast<std::uintptr_t>(&shape) >> 4U) * 31U + static_cast<std::uintptr_t>(marks);
  Entry& entry = entries_[key % entries_.size()];
  if (entry.shape == &shape && entry.marks == marks && entry.columns.ptr() == columns)
    return py::Owned::borrow(entry.statement);

  py::Owned statement = compose(shape, columns, marks);
  constexpr Py_ssize_t kMostMarksKept = 64;  // longer ones are rare, and large
  if (marks <= kMostMarksKept) {
    entry.shape = &shape;
    entry.marks = marks;
    if (columns == nullptr)
      entry.columns.clear();
    else
      entry.columns.set(py::Owned::borrow(columns));
    entry.statement.set(py::Owned::borrow(statement));
  }
  return statement;
}

void StatementCache::clear() noexcept {
  for (Entry& entry : entries_) {
    entry.shape = nullptr;
    entry.columns.clear();
    entry.statement.clear();
  }
}

}  // namespace tessaly
