#pragma once

#include "call.h"

/// The host's codec of embeddings. It is asked for anew each time, and none outlives the call here
/// that asked for it.
///
/// These are chains of calls between Python objects, so they are Python, compiled at the import:
/// its loop is entered once for a chain, not once for each call.
namespace tessaly::host {

/// `stored_vectors(self.db).encode(embedding)`.
inline py::Owned encode(const Call& call, py::Handle embedding) {
  return py::call(call.functions().encode, call.self(), embedding);
}

/// `stored_vectors(self.db).encode(chunk["embedding"])`.
inline py::Owned encode_chunk(const Call& call, py::Handle chunk) {
  return py::call(call.functions().encode_chunk, call.self(), chunk);
}

/// `stored_vectors(self.db).decode(row[position])`.
inline py::Owned decode(const Call& call, py::Handle row, Py_ssize_t position) {
  return py::call(call.functions().decode, call.self(), row, py::integer(position));
}

/// Sets these functions in the module's state.
void define_codec(ModuleState& state);

}  // namespace tessaly::host
