#include "py/traceback.h"

#include <frameobject.h>

// A traceback entry is made of a frame, and for a frame that the interpreter never ran there is
// PyFrame_New alone: exported, but outside the documented C API.

namespace tessaly::py {

void add_traceback(Handle code, Handle module_namespace) noexcept {
  PyObject* error = PyErr_GetRaisedException();
  if (error == nullptr) return;
  const Owned kept = Owned::steal(error);
  PyObject* frame = reinterpret_cast<PyObject*>(
      PyFrame_New(PyThreadState_Get(), reinterpret_cast<PyCodeObject*>(code.ptr()),
                  module_namespace.ptr(), nullptr));
  PyErr_SetRaisedException(Py_NewRef(error));  // replaces the error of making the frame
  if (frame == nullptr) return;
  const Owned held = Owned::steal(frame);
  if (PyTraceBack_Here(reinterpret_cast<PyFrameObject*>(frame)) < 0)
    PyErr_SetRaisedException(Py_NewRef(error));
}

}  // namespace tessaly::py
