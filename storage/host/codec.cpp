#include "host/codec.h"

#include "host/database.h"

namespace tessaly::host {

using py::Handle;
using py::Owned;

namespace {

Owned codec(const Call& call) {
  const Owned stored_vectors = call.global(call.names().stored_vectors);
  return py::call(stored_vectors, database(call));
}

}  // namespace

Owned encode(const Call& call, Handle embedding) {
  return py::call_method(codec(call), call.names().encode, embedding);
}

Owned encode_item(const Call& call, Handle chunk, Handle key) {
  const Owned vectors = codec(call);
  const Owned method = py::attribute(vectors, call.names().encode);
  return py::call(method, py::item(chunk, key));
}

Owned decode(const Call& call, Handle row, Py_ssize_t position) {
  const Owned vectors = codec(call);
  const Handle name = call.names().decode;
  if (py::has_plain_item(row, position))
    return py::call_method(vectors, name, py::item(row, position));
  // Reading the row may run Python code, and comes after the method is looked up.
  const Owned method = py::attribute(vectors, name);
  return py::call(method, py::item(row, position));
}

}  // namespace tessaly::host
