#include "wiki/pages.h"

#include "host.h"
#include "wiki/chunk_index_cache.h"

namespace tessaly::wiki {

using py::Handle;
using py::Owned;

namespace {

/// `json.dumps(value or empty)`, with the `json` that the caller imported.
Owned dump_or_empty(const Call& call, py::Target json, Handle value, const py::Text& empty_text,
                    PyObject* (*make_empty)()) {
  const Owned dumps = py::attribute(json, call.names().dumps);
  const bool given = py::truth(py::Target(value, json.where));
  py::Json& coder = call.state().json;
  if (given) return coder.dumps(py::Target(dumps, json.where), value);
  if (coder.is_genuine_dumps(dumps)) return Owned::borrow(call.text(empty_text));
  return coder.dumps(py::Target(dumps, json.where), Owned::steal(make_empty()));
}

constexpr py::Text kEmptyList{"[]"};
constexpr py::Text kEmptyObject{"{}"};

Owned dump_list(const Call& call, py::Target json, Handle value) {
  return dump_or_empty(call, json, value, kEmptyList, [] { return PyList_New(0); });
}

Owned dump_object(const Call& call, py::Target json, Handle value) {
  return dump_or_empty(call, json, value, kEmptyObject, PyDict_New);
}

/// A statement over full page rows: `WIKI_PAGE_COLUMNS` as it is now goes into its place.
Owned page_statement(const Call& call, const StatementShape& shape, Py_ssize_t marks = 0,
                     py::Where where = py::Where::current()) {
  Owned columns = call.global(call.names().WIKI_PAGE_COLUMNS, where);
  if (!PyUnicode_CheckExact(columns.ptr())) {
    const Owned formatted = Owned::steal(PyObject_Format(columns.ptr(), nullptr), where);
    columns = Owned::steal(PyUnicode_FromObject(formatted.ptr()), where);
  }
  return call.state().statements.get(shape, columns.ptr(), marks);
}

Owned to_page(const Call& call, py::Target row) {
  const Owned convert = call.global(call.names().row_to_wiki_page, row.where);
  return py::call(py::Target(convert, row.where), row.object);
}

}  // namespace

constexpr py::Text kUpsertPage{R"(
    INSERT INTO wiki_pages (branch, page_id, title, description, importance, level,
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
    const host::Execution upsert = cursor.prepare(call.text(kUpsertPage));
    Owned source_files_text = dump_list(call, json, source_files);
    Owned source_hashes_text = dump_object(call, json, source_hashes);
    Owned symbols_text = dump_list(call, json, symbols);
    Owned related_pages_text = dump_list(call, json, related_pages);
    Owned citations_text = dump_list(call, json, citations);
    upsert.run(py::tuple(branch, page_id, title, description, importance, level, parent_section,
                         rel_path, std::move(source_files_text), std::move(source_hashes_text),
                         std::move(symbols_text), std::move(related_pages_text),
                         std::move(citations_text), content_hash, model, status, summary,
                         build_cache, page_type));
    const Owned row = cursor.query_one(call.text(kReadPageId), call.parameters(branch, page_id));
    row_id = py::truth(row) ? py::to_int(py::item(row, 0)) : py::integer(0);
  });
  return row_id;
}

constexpr StatementShape kReadPage{.head{"SELECT "},
                                   .middle{" FROM wiki_pages WHERE branch = ? AND page_id = ?"}};

Owned get_wiki_page(const Call& call, Handle branch, Handle page_id) {
  const Owned statement = page_statement(call, kReadPage);
  const Owned row = host::fetchone(call, statement, call.parameters(branch, page_id));
  return py::truth(row) ? to_page(call, row) : Owned::none();
}

/// The order of every listing: what matters most first, then by title.
#define TESSALY_ORDER_BY_IMPORTANCE                                   \
  " ORDER BY CASE importance WHEN 'high' THEN 0 WHEN 'medium' THEN 1" \
  " WHEN 'low' THEN 2 ELSE 3 END, title"

constexpr StatementShape kListPages{
    .head{"SELECT "}, .middle{" FROM wiki_pages WHERE branch = ?" TESSALY_ORDER_BY_IMPORTANCE}};

Owned get_wiki_pages(const Call& call, Handle branch) {
  const Owned statement = page_statement(call, kListPages);
  const Owned rows = host::fetchall(call, statement, call.parameters(branch));
  return py::list_of(rows, [&](const Owned& row) { return to_page(call, row); });
}

namespace {

/// The distinct paths with forward slashes, sorted; items that are false are left out.
Owned normalise_paths(const Call& call, py::Target paths) {
  constexpr static py::Text kBackslash{"\\"};
  constexpr static py::Text kSlash{"/"};
  py::SortedSet distinct;
  py::for_each(paths, [&](const Owned& path) {
    if (!py::truth(path)) return;
    const Handle backslash = call.text(kBackslash);
    const Handle slash = call.text(kSlash);
    const Owned normal =
        PyUnicode_CheckExact(path.ptr())
            ? Owned::steal(PyUnicode_Replace(path.ptr(), backslash.ptr(), slash.ptr(), -1))
            : py::call_method(path, call.names().replace, backslash, slash);
    distinct.add(normal);
  });
  return distinct.sorted();
}

constexpr StatementShape kReadCitingPages{
    .head{"SELECT "},
    .middle{" FROM wiki_pages WHERE branch = ? AND id IN ("
            "SELECT p.id FROM wiki_pages p, json_each(p.source_files) j"
            " WHERE p.branch = ? AND replace(j.value, char(92), '/') IN ("},
    .tail{"))" TESSALY_ORDER_BY_IMPORTANCE}};

}  // namespace

Owned wiki_pages_citing(const Call& call, Handle branch, Handle paths) {
  const Owned wanted = normalise_paths(call, paths);
  const Py_ssize_t count = PyList_GET_SIZE(wanted.ptr());
  if (count == 0) return Owned::steal(PyList_New(0));
  const Owned statement = page_statement(call, kReadCitingPages, count);
  const Owned parameters = Owned::steal(PySequence_Concat(
      py::tuple(branch, branch).ptr(), Owned::steal(PyList_AsTuple(wanted.ptr())).ptr()));
  const Owned rows = host::fetchall(call, statement, parameters);
  return py::list_of(rows, [&](const Owned& row) { return to_page(call, row); });
}

constexpr py::Text kDeletePage{"DELETE FROM wiki_pages WHERE branch = ? AND page_id = ?"};

Owned delete_wiki_page(const Call& call, Handle branch, Handle page_id) {
  std::optional<Owned> removed;
  host::transaction(call, [&](const host::Cursor& cursor) {
    cursor.execute(call.text(kDeletePage), call.parameters(branch, page_id));
    const Owned zero = py::integer(0);
    removed = py::rich_compare(cursor.rowcount(), zero, Py_GT);
  });
  drop_chunk_index(call, branch);
  if (!removed)  // the exit swallowed an error, and there is nothing to answer
    py::raise(PyExc_UnboundLocalError,
              "cannot access local variable 'removed' where it is not associated with a value");
  return std::move(*removed);
}

}  // namespace tessaly::wiki
