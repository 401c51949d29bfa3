#pragma once

#include "module_state.h"
#include "py/objects.h"

/// The lazy sequence of chunk rows that the host's word index is built from.
namespace tessaly::wiki {

/// Creates the iterator type; it belongs to `module`.
py::Owned create_chunk_rows_type(py::Handle module);

/// An iterator over `(int(row[0]), row[2], str(row[3]))` of each of `rows`: chunk id, heading,
/// text. It makes a triple when it is asked for one, and owns what is left of the rows until its
/// end.
py::Owned make_chunk_rows(const ModuleState& state, py::Target rows);

}  // namespace tessaly::wiki
