#pragma once

#include <Python.h>

#include "py/reference.h"

namespace tessaly::py {

/// Adds an entry for `code`, at its first line, to the traceback of the error that is set, as for a
/// frame that ran it with the globals `module_namespace`. When the entry cannot be made, the error
/// goes on without it. Costs nothing until an error is on its way.
void add_traceback(Handle code, Handle module_namespace) noexcept;

}  // namespace tessaly::py
