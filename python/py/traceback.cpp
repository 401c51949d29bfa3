#include "py/traceback.h"

#include <frameobject.h>

#include "py/reference.h"

namespace tessaly::py {

namespace {

Owned make_frame(const char* function, Where where, PyObject* namespace_dict) {
  // A code object without instructions stands for one line: its first.
  const Owned code = Owned::steal(reinterpret_cast<PyObject*>(
      PyCode_NewEmpty(where.file_name(), function, static_cast<int>(where.line()))));
  return Owned::steal(reinterpret_cast<PyObject*>(PyFrame_New(
      PyThreadState_Get(), reinterpret_cast<PyCodeObject*>(code.ptr()), namespace_dict, nullptr)));
}

}  // namespace

void add_traceback(const char* function, Where where, PyObject* namespace_dict) noexcept {
  if (namespace_dict == nullptr) return;
  PyObject* error = PyErr_GetRaisedException();
  if (error == nullptr) return;
  try {
    const Owned frame = make_frame(function, where, namespace_dict);
    Owned kept = Owned::borrow(error);
    PyErr_SetRaisedException(error);
    if (PyTraceBack_Here(reinterpret_cast<PyFrameObject*>(frame.ptr())) < 0)
      PyErr_SetRaisedException(kept.release());
  } catch (const ErrorSet&) {
    PyErr_SetRaisedException(error);  // replaces the error of making the frame
  }
}

}  // namespace tessaly::py
