#include "wiki/chunk_rows.h"

#include "py/heap_type.h"

namespace tessaly::wiki {

using py::Owned;

namespace {

struct ChunkRows {
  PyObject_HEAD
  py::Member rows;  // a list, or an iterator over anything else; empty at the end
  Py_ssize_t next;  // the position in the list
};

ChunkRows* as_chunk_rows(PyObject* object) { return reinterpret_cast<ChunkRows*>(object); }

/// The next row, followed as a list's own iterator would, or nothing at the end.
std::optional<Owned> next_row(ChunkRows& chunk_rows, py::Handle rows) {
  if (PyList_CheckExact(rows.ptr())) {
    if (chunk_rows.next >= PyList_GET_SIZE(rows.ptr())) return std::nullopt;
    return Owned::borrow(PyList_GET_ITEM(rows.ptr(), chunk_rows.next++));
  }
  return py::next(rows);
}

Owned triple(py::Handle row) {
  Owned id = py::to_int(py::item(row, 0));
  Owned heading = py::item(row, 2);
  Owned text = py::to_str(py::item(row, 3));
  return py::tuple(std::move(id), std::move(heading), std::move(text));
}

/// A StopIteration from below is an error, as in a generator.
void replace_stop_iteration() noexcept {
  if (!PyErr_ExceptionMatches(PyExc_StopIteration)) return;
  PyObject* stop = PyErr_GetRaisedException();
  PyErr_SetString(PyExc_RuntimeError, "generator raised StopIteration");
  PyObject* error = PyErr_GetRaisedException();
  PyException_SetCause(error, Py_NewRef(stop));
  PyException_SetContext(error, stop);
  PyErr_SetRaisedException(error);
}

PyObject* next(PyObject* self) noexcept {
  ChunkRows& chunk_rows = *as_chunk_rows(self);
  if (chunk_rows.rows.empty()) return nullptr;
  try {
    const Owned rows = Owned::borrow(chunk_rows.rows);
    if (const std::optional<Owned> row = next_row(chunk_rows, rows)) return triple(*row).release();
  } catch (...) {
    static_cast<void>(py::set_error_from_caught());
    replace_stop_iteration();
  }
  // Whether it ran out or failed, a generator is over then.
  chunk_rows.rows.clear();
  return nullptr;
}

int traverse(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  return as_chunk_rows(self)->rows.traverse(visit, arg);
}

int clear(PyObject* self) {
  as_chunk_rows(self)->rows.clear();
  return 0;
}

}  // namespace

Owned create_chunk_rows_type(py::Handle module) {
  PyType_Slot slots[] = {
      {Py_tp_iter, py::slot(PyObject_SelfIter)},     {Py_tp_iternext, py::slot(next)},
      {Py_tp_traverse, py::slot(traverse)},          {Py_tp_clear, py::slot(clear)},
      {Py_tp_dealloc, py::slot(py::dealloc<clear>)}, {0, nullptr},
  };
  PyType_Spec spec{
      .name = "tessaly.storage.repository_wiki.chunk_rows",
      .basicsize = sizeof(ChunkRows),
      .itemsize = 0,
      .flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_IMMUTABLETYPE |
               Py_TPFLAGS_DISALLOW_INSTANTIATION,
      .slots = slots,
  };
  return Owned::steal(PyType_FromModuleAndSpec(module.ptr(), &spec, nullptr));
}

Owned make_chunk_rows(const ModuleState& state, py::Target rows) {
  auto* type = reinterpret_cast<PyTypeObject*>(state.chunk_rows_type.ptr());
  Owned source = PyList_CheckExact(rows.ptr()) ? Owned::borrow(rows.object) : py::iterator(rows);
  Owned made = Owned::steal(type->tp_alloc(type, 0), rows.where);
  as_chunk_rows(made.ptr())->rows.set(std::move(source));
  return made;
}

}  // namespace tessaly::wiki
