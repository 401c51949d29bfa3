#include "wiki/chunk_index_cache.h"

#include "host.h"
#include "wiki/chunk_rows.h"

namespace tessaly::wiki {

using py::Handle;
using py::Owned;

Owned wiki_chunk_indexes(const Call& call) {
  const Names& names = call.names();
  const Owned attributes = py::attribute(call.self(), names.dunder_dict);
  Owned indexes = py::mapping_get(attributes, names.get, names.wiki_chunk_index_cache);
  if (!indexes.is_none()) return indexes;
  Owned created = Owned::steal(PyDict_New());
  py::mapping_set(attributes, names.wiki_chunk_index_cache, created);
  return created;
}

Owned invalidate_wiki_chunk_index(const Call& call) {
  const Owned indexes = py::call_method(call.self(), call.names().wiki_chunk_indexes);
  if (PyDict_CheckExact(indexes.ptr()))
    PyDict_Clear(indexes.ptr());
  else
    py::drop(py::call_method(indexes, call.names().dict_clear));
  return Owned::none();
}

namespace {

void pop(const Call& call, py::Target indexes, Handle branch) {
  if (PyDict_CheckExact(indexes.ptr()))
    py::checked(PyDict_Pop(indexes.ptr(), branch.ptr(), nullptr), indexes.where);
  else
    py::drop(py::call_method(indexes, call.names().pop, branch, Handle(Py_None)));
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
  Owned chunks = py::dict_for(py::expected_length(rows));
  py::for_each(rows, [&](const Owned& row) {
    const Owned id = py::to_int(py::item(row, 0));
    Owned page_fk = py::to_int(py::item(row, 1));
    Owned heading = py::item(row, 2);
    Owned text = py::to_str(py::item(row, 3));
    const Owned chunk =
        py::tuple(std::move(page_fk), std::move(heading), std::move(text), py::item(row, 4));
    py::checked(PyDict_SetItem(chunks.ptr(), id.ptr(), chunk.ptr()));
  });
  return chunks;
}

}  // namespace

void drop_chunk_index(const Call& call, Handle branch, py::Where where) {
  const Owned indexes =
      py::call_method(py::Target(call.self(), where), call.names().wiki_chunk_indexes);
  pop(call, py::Target(indexes, where), branch);
}

Owned chunk_index_keywords(const Names& names) {
  return py::tuple(Handle(names.generation), Handle(names.dimension), Handle(names.index),
                   Handle(names.chunks), Handle(names.words));
}

constexpr py::Text kReadChunks{R"(
    SELECT c.id, c.page_fk, c.heading, c.content, c.citations, c.embedding
    FROM wiki_chunks c JOIN wiki_pages p ON c.page_fk = p.id
    WHERE c.branch = ? ORDER BY c.id)"};

Owned wiki_chunk_index(const Call& call, Handle branch) {
  const Names& names = call.names();
  // Asked before any row is read: an index built while the generation moves on is built again.
  const Owned generation = host::index_generation(call);
  const Owned indexes = py::call_method(call.self(), names.wiki_chunk_indexes);
  Owned cached = py::mapping_get(indexes, names.get, branch);
  if (!cached.is_none()) {
    const Owned built_at = py::attribute(cached, names.generation);
    if (py::compare(built_at, generation, Py_EQ)) return cached;
  }

  const Owned rows = host::fetchall(call, call.text(kReadChunks), call.parameters(branch));
  if (!py::truth(rows)) {
    pop(call, indexes, branch);
    return Owned::none();
  }
  const Owned vectors = decode_embeddings(call, rows);
  const Owned first = py::item(vectors, 0);
  const Owned dimension = py::integer(py::length(py::item(first, 1)));
  const Owned index = py::call(call.global(names.EmbeddingIndex), dimension);
  py::drop(py::call_method(index, names.load, vectors));
  const Owned chunks = collect_chunks(rows);
  const Owned word_index = call.global(names.ChunkWords);
  const Owned build = py::attribute(word_index, names.build);
  const Owned words = py::call(build, make_chunk_rows(call.state(), rows));
  const Owned make = call.global(names.WikiChunkIndex);
  PyObject* fields[] = {nullptr,     generation.ptr(), dimension.ptr(),
                        index.ptr(), chunks.ptr(),     words.ptr()};
  Owned built =
      Owned::steal(PyObject_Vectorcall(make.ptr(), fields + 1, 0 | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                       call.state().chunk_index_keywords.ptr()));
  py::mapping_set(indexes, branch, built);
  return built;
}

}  // namespace tessaly::wiki
