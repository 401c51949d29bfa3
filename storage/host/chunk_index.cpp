#include "host/chunk_index.h"

#include "py/source.h"

namespace tessaly::host {

using py::Handle;
using py::Owned;

Owned embedding_index(const Call& call, Handle dimension, Handle vectors) {
  Owned index = py::call(call.global(call.names().EmbeddingIndex), dimension);
  py::drop(py::call_method(index, call.names().load, vectors));
  return index;
}

Owned chunk_words(const Call& call, Handle rows) {
  const Owned words = call.global(call.names().ChunkWords);
  const Owned build = py::attribute(words, call.names().build);
  return py::call(build, py::call(call.functions().chunk_rows, rows));
}

Owned chunk_index(const Call& call, Handle generation, Handle dimension, Handle index,
                  Handle chunks, Handle words) {
  const Owned type = call.global(call.names().WikiChunkIndex);
  const Names& names = call.names();
  const Owned fields =
      py::record<5>({names.generation, names.dimension, names.index, names.chunks, names.words},
                    {Owned::borrow(generation), Owned::borrow(dimension), Owned::borrow(index),
                     Owned::borrow(chunks), Owned::borrow(words)});
  return Owned::steal(PyObject_Call(type.ptr(), py::tuple().ptr(), fields.ptr()));
}

void define_chunk_index(ModuleState& state) {
  static constexpr char kSource[] = R"(def define(int, str):
    def chunk_rows(rows):
        return ((int(row[0]), row[2], str(row[3])) for row in rows)
    def page_row_ids(cached, hits):
        return {cached.chunks[chunk_id][0] for chunk_id, similarity, fused in hits}
    return chunk_rows, page_row_ids
)";
  const Owned define = py::define("define", kSource, __FILE__, __LINE__ - 7, state.globals.names);
  const Owned made = py::call(define, reinterpret_cast<PyObject*>(&PyLong_Type),
                              reinterpret_cast<PyObject*>(&PyUnicode_Type));
  state.functions.chunk_rows.set(py::item(made, 0));
  state.functions.page_row_ids.set(py::item(made, 1));
}

}  // namespace tessaly::host
