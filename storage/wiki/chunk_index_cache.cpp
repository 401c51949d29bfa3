#include "host/chunk_index.h"
#include "host/codec.h"
#include "host/database.h"
#include "wiki/methods.h"

namespace tessaly::wiki {

Owned _wiki_chunk_indexes(const Call& call) {
  const Names& names = call.names();
  const Owned attributes = py::attribute(call.self(), names.dunder_dict);
  Owned indexes = py::mapping_get(attributes, names.get, names._wiki_chunk_index_cache);
  if (!indexes.is_none()) return indexes;
  Owned created = py::new_dict();
  py::mapping_set(attributes, names._wiki_chunk_index_cache, created);
  return created;
}

namespace {

/// `self._wiki_chunk_indexes()`, which a subclass may have made its own.
Owned indexes_of(const Call& call) {
  return py::call_method(call.self(), call.names()._wiki_chunk_indexes);
}

/// `(chunk id, embedding)` of every row.
Owned decode_embeddings(const Call& call, Handle rows) {
  return py::list_of(rows, [&](const Owned& row) {
    Owned id = py::to_int(py::item(row, 0));
    return py::tuple(std::move(id), host::decode(call, row, 5));
  });
}

/// Chunk id to `(page row id, heading, text, stored citations)`, in the order of the rows.
Owned collect_chunks(Handle rows) {
  Owned chunks = py::new_dict();
  py::for_each(rows, [&](const Owned& row) {
    const Owned id = py::to_int(py::item(row, 0));
    Owned page_fk = py::to_int(py::item(row, 1));
    Owned heading = py::item(row, 2);
    Owned text = py::to_str(py::item(row, 3));
    const Owned chunk =
        py::tuple(std::move(page_fk), std::move(heading), std::move(text), py::item(row, 4));
    py::dict_set(chunks, id, chunk);
  });
  return chunks;
}

}  // namespace

Owned invalidate_wiki_chunk_index(const Call& call) {
  py::mapping_clear(indexes_of(call), call.names().clear);
  return Owned::none();
}

void drop_chunk_index(const Call& call, Handle branch) {
  py::mapping_pop(indexes_of(call), call.names().pop, branch);
}

const py::Text kReadChunks{R"(SELECT c.id, c.page_fk, c.heading, c.content, c.citations, c.embedding
    FROM wiki_chunks c JOIN wiki_pages p ON c.page_fk = p.id
    WHERE c.branch = ? ORDER BY c.id)"};

Owned _wiki_chunk_index(const Call& call, Handle branch) {
  // Asked before any row is read: an index built while the generation moves on is built again.
  const Owned generation = host::index_generation(call);
  const Owned indexes = indexes_of(call);
  Owned cached = py::mapping_get(indexes, call.names().get, branch);
  if (!cached.is_none() && py::equal(host::generation(call, cached), generation)) return cached;

  const Owned rows = host::fetchall(call, call.text(kReadChunks), py::tuple(branch));
  if (!py::truth(rows)) {
    py::mapping_pop(indexes, call.names().pop, branch);
    return Owned::none();
  }
  const Owned vectors = decode_embeddings(call, rows);
  const Owned dimension = py::length(py::item(py::item(vectors, 0), 1));
  const Owned index = host::embedding_index(call, dimension, vectors);
  const Owned chunks = collect_chunks(rows);
  const Owned words = host::chunk_words(call, rows);
  Owned built = host::chunk_index(call, generation, dimension, index, chunks, words);
  py::mapping_set(indexes, branch, built);
  return built;
}

}  // namespace tessaly::wiki
