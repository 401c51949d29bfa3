#pragma once

#include "call.h"

/// The host's indexes of a branch's chunks: EmbeddingIndex, ChunkWords, and WikiChunkIndex, which
/// holds both with the chunks themselves.
namespace tessaly::host {

/// `EmbeddingIndex(dimension)`, loaded with the pairs of chunk id and embedding.
py::Owned embedding_index(const Call& call, py::Handle dimension, py::Handle vectors);

/// `ChunkWords.build` of a generator of (chunk id, heading, text), a triple a row.
py::Owned chunk_words(const Call& call, py::Handle rows);

/// `WikiChunkIndex(generation=..., dimension=..., index=..., chunks=..., words=...)`.
py::Owned chunk_index(const Call& call, py::Handle generation, py::Handle dimension,
                      py::Handle index, py::Handle chunks, py::Handle words);

/// `cached.generation` and `cached.dimension`.
inline py::Owned generation(const Call& call, py::Handle cached) {
  return py::attribute(cached, call.names().generation);
}
inline py::Owned dimension(const Call& call, py::Handle cached) {
  return py::attribute(cached, call.names().dimension);
}

/// `cached.chunks[chunk_id]`.
inline py::Owned chunk(const Call& call, py::Handle cached, py::Handle chunk_id) {
  return py::item(py::attribute(cached, call.names().chunks), chunk_id);
}

/// `cached.ranked(query_embedding, top_k, terms)`: the hits, best first.
inline py::Owned ranked(const Call& call, py::Handle cached, py::Handle query_embedding,
                        py::Handle top_k, py::Handle terms) {
  return py::call_method(cached, call.names().ranked, query_embedding, top_k, terms);
}

/// `{cached.chunks[chunk_id][0] for chunk_id, similarity, fused in hits}`: a set.
inline py::Owned page_row_ids(const Call& call, py::Handle cached, py::Handle hits) {
  return py::call(call.functions().page_row_ids, cached, hits);
}

/// Sets what is Python here in the module's state.
void define_chunk_index(ModuleState& state);

}  // namespace tessaly::host
