#pragma once

#include "py/reference.h"

namespace tessaly::py {

/// While it lives, `error` is the exception that is being handled, as inside an `except` clause:
/// sys.exception() answers it, and what is raised meanwhile has it as its context.
class HandledError {
 public:
  explicit HandledError(Handle error) {
    // Each generator keeps a handled exception of its own. What is read is the innermost one that
    // there is, what is set is the running one's: so an exception belongs to the running one only
    // if it is gone when that is emptied.
    if (PyObject* innermost = PyErr_GetHandledException()) {
      outer_.set(Owned::steal(innermost));
      PyErr_SetHandledException(nullptr);
      if (PyObject* below = PyErr_GetHandledException()) {
        drop(Owned::steal(below));
        if (below == innermost) outer_.clear();
      }
    }
    PyErr_SetHandledException(error.ptr());
  }
  HandledError(const HandledError&) = delete;
  HandledError& operator=(const HandledError&) = delete;
  ~HandledError() { PyErr_SetHandledException(outer_.ptr()); }

 private:
  Member outer_;  // empty when there was none
};

}  // namespace tessaly::py
