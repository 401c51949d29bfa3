#include "host/database.h"

#include "py/handled_error.h"

namespace tessaly::host {

using py::Handle;
using py::Owned;

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
