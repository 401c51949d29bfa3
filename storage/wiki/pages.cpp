#include "host/database.h"
#include "host/wiki_rows.h"
#include "wiki/json_columns.h"
#include "wiki/methods.h"

namespace tessaly::wiki {

const py::Text kReadPageId{"SELECT id FROM wiki_pages WHERE branch = ? AND page_id = ?"};

const py::Text kUpsertPage{
    R"(INSERT INTO wiki_pages (branch, page_id, title, description, importance, level,
        parent_section, rel_path, source_files, source_hashes, symbols, related_pages, citations,
        content_hash, model, status, summary, build_cache, page_type, generated_at)
    VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, datetime('now'))
    ON CONFLICT(branch, page_id) DO UPDATE SET
        title=excluded.title, description=excluded.description, importance=excluded.importance,
        level=excluded.level, parent_section=excluded.parent_section, rel_path=excluded.rel_path,
        source_files=excluded.source_files, source_hashes=excluded.source_hashes,
        symbols=excluded.symbols, related_pages=excluded.related_pages,
        citations=excluded.citations, content_hash=excluded.content_hash, model=excluded.model,
        status=excluded.status, summary=excluded.summary, build_cache=excluded.build_cache,
        page_type=excluded.page_type, generated_at=datetime('now'))"};

Owned upsert_wiki_page(const Call& call, Handle branch, Handle page_id, Handle title,
                       Handle description, Handle importance, Handle level, Handle parent_section,
                       Handle rel_path, Handle source_files, Handle source_hashes, Handle symbols,
                       Handle related_pages, Handle citations, Handle content_hash, Handle model,
                       Handle status, Handle summary, Handle build_cache, Handle page_type) {
  const Owned json = call.import_json();
  Owned row_id = Owned::none();  // stays so when the exit swallows an error
  host::transaction(call, [&](const host::Cursor& cursor) {
    py::drop(cursor.execute(kUpsertPage, [&] {
      Owned source_files_text = dump_list(call, json, source_files);
      Owned source_hashes_text = dump_object(call, json, source_hashes);
      Owned symbols_text = dump_list(call, json, symbols);
      Owned related_pages_text = dump_list(call, json, related_pages);
      Owned citations_text = dump_list(call, json, citations);
      return py::tuple(branch, page_id, title, description, importance, level, parent_section,
                       rel_path, std::move(source_files_text), std::move(source_hashes_text),
                       std::move(symbols_text), std::move(related_pages_text),
                       std::move(citations_text), content_hash, model, status, summary, build_cache,
                       page_type);
    }));
    const Owned row = cursor.one(cursor.execute(kReadPageId, py::tuple(branch, page_id)));
    row_id = py::truth(row) ? py::to_int(py::item(row, 0)) : py::integer(0);
  });
  return row_id;
}

const py::Text kReadPage{"SELECT ", " FROM wiki_pages WHERE branch = ? AND page_id = ?", ""};

Owned get_wiki_page(const Call& call, Handle branch, Handle page_id) {
  const Owned statement = call.text(kReadPage, host::page_columns(call), 0);
  const Owned row = host::fetchone(call, statement, py::tuple(branch, page_id));
  return py::truth(row) ? host::page_record(call, row) : Owned::none();
}

/// The order of every listing: what matters most first, then by title.
#define TESSALY_ORDER_BY_IMPORTANCE                                   \
  " ORDER BY CASE importance WHEN 'high' THEN 0 WHEN 'medium' THEN 1" \
  " WHEN 'low' THEN 2 ELSE 3 END, title"

const py::Text kListPages{"SELECT ",
                          " FROM wiki_pages WHERE branch = ?" TESSALY_ORDER_BY_IMPORTANCE, ""};

Owned get_wiki_pages(const Call& call, Handle branch) {
  const Owned statement = call.text(kListPages, host::page_columns(call), 0);
  const Owned rows = host::fetchall(call, statement, py::tuple(branch));
  return py::list_of(rows, [&](const Owned& row) { return host::page_record(call, row); });
}

namespace {

const py::Text kBackslash{"\\"};
const py::Text kSlash{"/"};

/// The distinct paths with forward slashes, sorted, in a tuple; items that are false are left out.
Owned normalise_paths(const Call& call, Handle paths) {
  const Owned distinct = py::new_set();
  py::for_each(paths, [&](const Owned& path) {
    if (py::truth(path))
      py::add(distinct,
              py::replaced(path, call.names().replace, call.text(kBackslash), call.text(kSlash)));
  });
  return py::sorted_tuple(distinct);
}

const py::Text kReadCitingPages{"SELECT ",
                                " FROM wiki_pages WHERE branch = ? AND id IN ("
                                "SELECT p.id FROM wiki_pages p, json_each(p.source_files) j"
                                " WHERE p.branch = ? AND replace(j.value, char(92), '/') IN (",
                                "))" TESSALY_ORDER_BY_IMPORTANCE};

}  // namespace

Owned wiki_pages_citing(const Call& call, Handle branch, Handle paths) {
  const Owned wanted = normalise_paths(call, paths);
  const std::size_t count = py::tuple_size(wanted);
  if (count == 0) return py::new_list();
  const Owned statement = call.text(kReadCitingPages, host::page_columns(call), count);
  const Owned rows = host::fetchall(call, statement, py::joined(py::tuple(branch, branch), wanted));
  return py::list_of(rows, [&](const Owned& row) { return host::page_record(call, row); });
}

namespace {

const py::Text kUpdatePage{
    "UPDATE wiki_pages SET citations = ?, content_hash = ?, build_cache = ? WHERE id = ?"};

const py::Text kReadChunks{"SELECT id, content, citations FROM wiki_chunks WHERE page_fk = ?"};

const py::Text kUpdateChunk{"UPDATE wiki_chunks SET content = ?, citations = ? WHERE id = ?"};

/// The stored citations of a chunk, each moved.
Owned move_citations(const Call& call, Handle stored, Handle moves) {
  return py::list_of(load_citations(call, stored), [&](const Owned& citation) {
    return host::moved_citation(call, citation, moves);
  });
}

}  // namespace

Owned update_wiki_page_citations(const Call& call, Handle branch, Handle page_id, Handle citations,
                                 Handle content_hash, Handle build_cache, Handle rewrite,
                                 Handle moves) {
  bool unknown_page = false;
  host::transaction(call, [&](const host::Cursor& cursor) {
    const Owned page = cursor.one(cursor.execute(kReadPageId, py::tuple(branch, page_id)));
    unknown_page = page.is_none();
    if (unknown_page) return;
    py::drop(cursor.execute(kUpdatePage, [&] {
      Owned citations_text = dump_citations(call, citations);
      return py::tuple(std::move(citations_text), content_hash, build_cache, py::item(page, 0));
    }));
    // All rows are read before the first is changed.
    const Owned chunks =
        cursor.all(cursor.execute(kReadChunks, [&] { return py::tuple(py::item(page, 0)); }));
    py::for_each(chunks, [&](const Owned& chunk) {
      auto [chunk_id, content, stored] = py::unpack<3>(chunk);
      const Owned moved = move_citations(call, stored, moves);
      py::drop(cursor.execute(kUpdateChunk, [&, id = Handle(chunk_id), text = Handle(content)] {
        Owned rewritten = py::call(rewrite, text);
        Owned moved_text = dump_citations(call, moved);
        return py::tuple(std::move(rewritten), std::move(moved_text), id);
      }));
    });
  });
  if (!unknown_page) drop_chunk_index(call, branch);
  return Owned::none();
}

const py::Text kDeletePage{"DELETE FROM wiki_pages WHERE branch = ? AND page_id = ?"};

Owned delete_wiki_page(const Call& call, Handle branch, Handle page_id) {
  std::optional<Owned> removed;
  host::transaction(call, [&](const host::Cursor& cursor) {
    py::drop(cursor.execute(kDeletePage, py::tuple(branch, page_id)));
    removed = py::greater(cursor.rowcount(), py::integer(0));
  });
  drop_chunk_index(call, branch);
  if (!removed) py::raise_unbound_local("removed");  // the exit swallowed an error
  return std::move(*removed);
}

}  // namespace tessaly::wiki
