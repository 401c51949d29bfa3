#pragma once

#include <Python.h>

#include "py/reference.h"

/// Embeddings as the database stores them: their components as 32-bit little-endian floats, nothing
/// else.
namespace tessaly::vectors {

/// The stored form of a sequence of numbers. Throws ErrorSet: ValueError when a component is not
/// finite as a 32-bit float, and what reading the numbers raises.
py::Owned encode(py::Handle embedding);

/// A new type `StoredEmbedding` of the module: the BLOB of a database row, bytes that can only be
/// read, or, once `floats` was asked, its components. They are made by `fetch`, which puts many of
/// them into one block of memory: BLOBs of their own, made in turns with the texts of their rows
/// and gone long before them, leave a hole beside every text.
py::Owned make_stored_embedding_type(py::Handle module);

}  // namespace tessaly::vectors
