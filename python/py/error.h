#pragma once

#include <Python.h>

namespace tessaly::py {

/// Thrown when a Python error is set in the current thread, and only then. The error itself stays
/// where Python keeps it, so that nothing on the way can change it.
struct ErrorSet {
  bool traced = false;  // its traceback names the method already
};

[[noreturn]] inline void throw_error_set() { throw ErrorSet{}; }

/// The funnel for C API calls that answer -1 with an error set.
template <typename Status>
Status checked(Status status) {
  if (status < 0) [[unlikely]]
    throw ErrorSet{};
  return status;
}

/// Sets an error of `type` with a text in the manner of PyErr_Format, and throws.
template <typename... Arguments>
[[noreturn]] void raise(PyObject* type, const char* format, Arguments... arguments) {
  PyErr_Format(type, format, arguments...);
  throw_error_set();
}

/// Called inside a catch block: leaves a Python error set whatever was caught. Memory exhaustion
/// becomes MemoryError; any other C++ exception is a fault of the extension and becomes SystemError
/// with its text.
ErrorSet set_error_from_caught() noexcept;

}  // namespace tessaly::py
