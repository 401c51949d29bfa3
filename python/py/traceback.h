#pragma once

#include <Python.h>

#include "py/error.h"

namespace tessaly::py {

/// Adds a frame of a native function, with its source file and line, to the traceback of the error
/// that is set. When the frame cannot be made, the error goes on without it. `namespace_dict` is
/// what the frame shows as its globals. Costs nothing until an error is on its way.
void add_traceback(const char* function, Where where, PyObject* namespace_dict) noexcept;

}  // namespace tessaly::py
