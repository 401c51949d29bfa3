#include "host/codec.h"

#include "py/source.h"

namespace tessaly::host {

void define_codec(ModuleState& state) {
  static constexpr char kSource[] = R"(def encode(self, embedding):
    return stored_vectors(self.db).encode(embedding)
def encode_chunk(self, chunk):
    return stored_vectors(self.db).encode(chunk["embedding"])
def decode(self, row, position):
    return stored_vectors(self.db).decode(row[position])
)";
  const py::Owned made = py::new_dict();
  py::run_source(kSource, __FILE__, __LINE__ - 8, state.globals.names, made);
  state.functions.encode.set(py::item(made, state.names.encode));
  state.functions.encode_chunk.set(py::item(made, py::text("encode_chunk")));
  state.functions.decode.set(py::item(made, state.names.decode));
}

}  // namespace tessaly::host
