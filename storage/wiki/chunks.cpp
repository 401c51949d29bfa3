#include "host/codec.h"
#include "host/database.h"
#include "wiki/json_columns.h"
#include "wiki/methods.h"

namespace tessaly::wiki {

namespace {

const py::Text kDeleteChunks{"DELETE FROM wiki_chunks WHERE page_fk = ?"};

const py::Text kInsertChunk{
    R"(INSERT INTO wiki_chunks (page_fk, branch, anchor, heading, content, citations, embedding,
                             model_name, token_count)
    VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?))"};

/// The values of a chunk's row, computed in the order of the columns.
Owned chunk_values(const Call& call, Handle json, Handle page_fk, Handle branch, Handle chunk,
                   Handle model_name) {
  const Names& names = call.names();
  Owned anchor = py::mapping_get(chunk, names.get, names.anchor);
  Owned heading = py::mapping_get(chunk, names.get, names.heading);
  Owned content = py::item(chunk, names.content);
  Owned citations = dump(call, json, [&] {
    return py::mapping_get(chunk, names.get, names.citations, py::new_list());
  });
  Owned embedding = host::encode_chunk(call, chunk);
  Owned token_count =
      py::to_int(py::mapping_get(chunk, names.get, names.token_count, py::integer(0)));
  return py::tuple(page_fk, branch, std::move(anchor), std::move(heading), std::move(content),
                   std::move(citations), std::move(embedding), model_name, std::move(token_count));
}

}  // namespace

Owned replace_wiki_chunks(const Call& call, Handle page_fk, Handle branch, Handle chunks,
                          Handle model_name) {
  const Owned json = call.import_json();
  host::transaction(call, [&](const host::Cursor& cursor) {
    py::drop(cursor.execute(kDeleteChunks, py::tuple(page_fk)));
    py::for_each(chunks, [&](const Owned& chunk) {
      py::drop(cursor.execute(kInsertChunk, [&] {
        return chunk_values(call, json, page_fk, branch, chunk, model_name);
      }));
    });
  });
  drop_chunk_index(call, branch);
  return py::length(chunks);
}

const py::Text kReadHeadings{R"(SELECT DISTINCT p.page_id, c.heading
    FROM wiki_chunks c JOIN wiki_pages p ON p.id = c.page_fk
    WHERE c.branch = ? AND c.heading IS NOT NULL AND c.heading != '')"};

Owned wiki_chunk_headings(const Call& call, Handle branch) {
  const Owned rows = host::fetchall(call, call.text(kReadHeadings), py::tuple(branch));
  if (std::optional<Owned> exact = py::copy_if_exact(rows, {py::Exact::Str, py::Exact::Str}))
    return std::move(*exact);
  return py::list_of(rows, [](const Owned& row) {
    Owned page_id = py::to_str(py::item(row, 0));
    return py::tuple(std::move(page_id), py::to_str(py::item(row, 1)));
  });
}

const py::Text kReadTexts{R"(SELECT c.id, p.page_id, p.title, COALESCE(c.heading, ''), c.content
    FROM wiki_chunks c JOIN wiki_pages p ON p.id = c.page_fk
    WHERE c.branch = ? ORDER BY c.page_fk, c.id)"};

const py::Text kNoTitle{""};

Owned wiki_chunk_texts(const Call& call, Handle branch) {
  using enum py::Exact;
  const Owned rows = host::fetchall(call, call.text(kReadTexts), py::tuple(branch));
  if (std::optional<Owned> exact = py::copy_if_exact(rows, {Int, Str, Str, Str, Str}))
    return std::move(*exact);
  return py::list_of(rows, [&](const Owned& row) {
    Owned id = py::to_int(py::item(row, 0));
    Owned page_id = py::to_str(py::item(row, 1));
    Owned stored_title = py::item(row, 2);
    Owned title = py::to_str(py::truth(stored_title) ? std::move(stored_title)
                                                     : Owned::borrow(call.text(kNoTitle)));
    Owned heading = py::to_str(py::item(row, 3));
    return py::tuple(std::move(id), std::move(page_id), std::move(title), std::move(heading),
                     py::to_str(py::item(row, 4)));
  });
}

const py::Text kUpdateEmbedding{
    "UPDATE wiki_chunks SET embedding = ?, model_name = ? WHERE id = ? AND branch = ?"};

Owned update_wiki_chunk_embeddings(const Call& call, Handle branch, Handle embeddings,
                                   Handle model_name) {
  host::transaction(call, [&](const host::Cursor& cursor) {
    // Every row is made before any statement runs.
    const Owned rows = py::list_of(embeddings, [&](const Owned& pair) {
      auto [chunk_id, embedding] = py::unpack<2>(pair);
      Owned stored = host::encode(call, embedding);
      return py::tuple(std::move(stored), model_name, std::move(chunk_id), branch);
    });
    cursor.executemany(kUpdateEmbedding, rows);
  });
  drop_chunk_index(call, branch);
  return py::length(embeddings);
}

const py::Text kReadOneEmbedding{"SELECT embedding FROM wiki_chunks WHERE branch = ? LIMIT 1"};

Owned wiki_chunk_dimension(const Call& call, Handle branch) {
  const Owned row = host::fetchone(call, call.text(kReadOneEmbedding), py::tuple(branch));
  if (row.is_none()) return Owned::none();
  return py::length(host::decode(call, row, 0));
}

}  // namespace tessaly::wiki
