#pragma once

#include "call.h"

/// The host's codec of embeddings. It is asked for anew each time, and none outlives the call here
/// that asked for it.
namespace tessaly::host {

/// `stored_vectors(self.db).encode(embedding)`.
py::Owned encode(const Call& call, py::Handle embedding);

/// `stored_vectors(self.db).encode(chunk[key])`.
py::Owned encode_item(const Call& call, py::Handle chunk, py::Handle key);

/// `stored_vectors(self.db).decode(row[position])`.
py::Owned decode(const Call& call, py::Handle row, Py_ssize_t position);

}  // namespace tessaly::host
