#include "host/database.h"

#include "py/handled_error.h"

namespace tessaly::host {

using py::Handle;
using py::Owned;

Owned fetchone(const Call& call, Handle statement, Handle parameters) {
  return py::call_method(database(call), call.names().fetchone, statement, parameters);
}

Owned fetchall(const Call& call, Handle statement, Handle parameters) {
  return py::call_method(database(call), call.names().fetchall, statement, parameters);
}

Owned index_generation(const Call& call) {
  return py::call_method(database(call), call.names().index_generation);
}

Owned Cursor::execute(const py::Text& statement, Handle parameters) const {
  return py::call_method(cursor_, call_.names().execute, call_.text(statement), parameters);
}

void Cursor::executemany(const py::Text& statement, Handle rows) const {
  py::drop(py::call_method(cursor_, call_.names().executemany, call_.text(statement), rows));
}

Owned Cursor::one(const Owned& result) const {
  return py::call_method(result, call_.names().fetchone);
}

Owned Cursor::all(const Owned& result) const {
  return py::call_method(result, call_.names().fetchall);
}

Transaction::Transaction(const Call& call)
    : call_(call),
      manager_(py::call_method(database(call), call.names().transaction)),
      cursor_(call, py::SpecialMethod(manager_, call.names().dunder_enter, "")()),
      exit_(manager_, call.names().dunder_exit, " (missed __exit__ method)") {}

void Transaction::complete() const { py::drop(exit_(py::none(), py::none(), py::none())); }

void Transaction::fail() const {
  if (!py::set_error_from_caught().traced) call_.trace();
  Owned error = Owned::steal(PyErr_GetRaisedException());
  {
    const py::HandledError handled(error);
    PyObject* frames = PyException_GetTraceback(error.ptr());
    const Owned traceback = frames == nullptr ? Owned::none() : Owned::steal(frames);
    const Handle type = reinterpret_cast<PyObject*>(Py_TYPE(error.ptr()));
    if (py::truth(exit_(type, error, traceback))) return;
  }
  PyErr_SetRaisedException(error.release());
  throw py::ErrorSet{.traced = true};
}

}  // namespace tessaly::host
