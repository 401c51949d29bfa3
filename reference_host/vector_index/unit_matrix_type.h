#pragma once

#include <Python.h>

#include "py/reference.h"

namespace tessaly::vectors {

/// A new type `UnitMatrix` of the module: an immutable heap type that may be subclassed.
py::Owned make_unit_matrix_type(py::Handle module);

}  // namespace tessaly::vectors
