#include "wiki/chunks.h"

#include "host.h"
#include "wiki/chunk_index_cache.h"

namespace tessaly::wiki {

using py::Handle;
using py::Owned;

namespace {

constexpr py::Text kDeleteChunks{"DELETE FROM wiki_chunks WHERE page_fk = ?"};

constexpr py::Text kInsertChunk{R"(
    INSERT INTO wiki_chunks (page_fk, branch, anchor, heading, content, citations, embedding,
                             model_name, token_count)
    VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?))"};

/// The values of a chunk's row, computed in the order of the columns.
Owned chunk_values(const Call& call, Handle json, Handle page_fk, Handle branch, Handle chunk,
                   Handle model_name) {
  const Names& names = call.names();
  Owned anchor = py::mapping_get(chunk, names.get, names.anchor);
  Owned heading = py::mapping_get(chunk, names.get, names.heading);
  Owned content = py::item(chunk, names.content);
  const Owned dumps = py::attribute(json, names.dumps);
  const Owned citations =
      py::mapping_get(chunk, names.get, names.citations, Owned::steal(PyList_New(0)));
  Owned citations_text = call.state().json.dumps(dumps, citations);
  const Owned codec = host::codec(call);
  const Owned encode = py::attribute(codec, names.encode);
  Owned embedding = py::call(encode, py::item(chunk, names.embedding));
  const Owned zero = py::integer(0);
  Owned token_count = py::to_int(py::mapping_get(chunk, names.get, names.token_count, zero));
  return py::tuple(page_fk, branch, std::move(anchor), std::move(heading), std::move(content),
                   std::move(citations_text), std::move(embedding), model_name,
                   std::move(token_count));
}

}  // namespace

Owned replace_wiki_chunks(const Call& call, Handle page_fk, Handle branch, Handle chunks,
                          Handle model_name) {
  const Owned json = call.import_json();
  host::transaction(call, [&](const host::Cursor& cursor) {
    cursor.execute(call.text(kDeleteChunks), call.parameters(page_fk));
    py::for_each(chunks, [&](const Owned& chunk) {
      const host::Execution insert = cursor.prepare(call.text(kInsertChunk));
      insert.run(chunk_values(call, json, page_fk, branch, chunk, model_name));
    });
  });
  drop_chunk_index(call, branch);
  return py::integer(py::length(chunks));
}

namespace {

/// Whether a row is a tuple of just these types already: converting it would make its equal.
template <PyTypeObject*... Types>
bool is_exact_tuple(Handle row) {
  if (!PyTuple_CheckExact(row.ptr()) || PyTuple_GET_SIZE(row.ptr()) != sizeof...(Types))
    return false;
  Py_ssize_t i = 0;
  return (Py_IS_TYPE(PyTuple_GET_ITEM(row.ptr(), i++), Types) && ...);
}

}  // namespace

constexpr py::Text kReadHeadings{R"(
    SELECT DISTINCT p.page_id, c.heading
    FROM wiki_chunks c JOIN wiki_pages p ON p.id = c.page_fk
    WHERE c.branch = ? AND c.heading IS NOT NULL AND c.heading != '')"};

Owned wiki_chunk_headings(const Call& call, Handle branch) {
  const Owned rows = host::fetchall(call, call.text(kReadHeadings), call.parameters(branch));
  return py::list_of(rows, [](Owned row) {
    if (is_exact_tuple<&PyUnicode_Type, &PyUnicode_Type>(row)) return row;
    Owned page_id = py::to_str(py::item(row, 0));
    return py::tuple(std::move(page_id), py::to_str(py::item(row, 1)));
  });
}

constexpr py::Text kReadTexts{R"(
    SELECT c.id, p.page_id, p.title, COALESCE(c.heading, ''), c.content
    FROM wiki_chunks c JOIN wiki_pages p ON p.id = c.page_fk
    WHERE c.branch = ? ORDER BY c.page_fk, c.id)"};

constexpr py::Text kNoTitle{""};

Owned wiki_chunk_texts(const Call& call, Handle branch) {
  const Owned rows = host::fetchall(call, call.text(kReadTexts), call.parameters(branch));
  return py::list_of(rows, [&](Owned row) {
    if (is_exact_tuple<&PyLong_Type, &PyUnicode_Type, &PyUnicode_Type, &PyUnicode_Type,
                       &PyUnicode_Type>(row))
      return row;
    Owned id = py::to_int(py::item(row, 0));
    Owned page_id = py::to_str(py::item(row, 1));
    const Owned stored_title = py::item(row, 2);
    Owned title = py::to_str(py::truth(stored_title) ? Handle(stored_title) : call.text(kNoTitle));
    Owned heading = py::to_str(py::item(row, 3));
    return py::tuple(std::move(id), std::move(page_id), std::move(title), std::move(heading),
                     py::to_str(py::item(row, 4)));
  });
}

constexpr py::Text kUpdateEmbedding{
    "UPDATE wiki_chunks SET embedding = ?, model_name = ? WHERE id = ? AND branch = ?"};

Owned update_wiki_chunk_embeddings(const Call& call, Handle branch, Handle embeddings,
                                   Handle model_name) {
  host::transaction(call, [&](const host::Cursor& cursor) {
    // Every row is made before any statement runs.
    const Owned rows = py::list_of(embeddings, [&](const Owned& pair) {
      auto [chunk_id, embedding] = py::unpack<2>(pair);
      Owned stored = py::call_method(host::codec(call), call.names().encode, embedding);
      return py::tuple(std::move(stored), model_name, std::move(chunk_id), branch);
    });
    cursor.executemany(call.text(kUpdateEmbedding), rows);
  });
  drop_chunk_index(call, branch);
  return py::integer(py::length(embeddings));
}

constexpr py::Text kReadOneEmbedding{"SELECT embedding FROM wiki_chunks WHERE branch = ? LIMIT 1"};

Owned wiki_chunk_dimension(const Call& call, Handle branch) {
  const Owned row = host::fetchone(call, call.text(kReadOneEmbedding), call.parameters(branch));
  if (row.is_none()) return Owned::none();
  const Owned vector = host::decode(call, row, 0);
  return py::integer(py::length(vector));
}

}  // namespace tessaly::wiki
