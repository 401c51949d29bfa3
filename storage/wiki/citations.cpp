#include "wiki/citations.h"

#include "host.h"
#include "wiki/chunk_index_cache.h"
#include "wiki/pages.h"

namespace tessaly::wiki {

using py::Handle;
using py::Owned;

namespace {

constexpr py::Text kUpdatePage{
    "UPDATE wiki_pages SET citations = ?, content_hash = ?, build_cache = ? WHERE id = ?"};

constexpr py::Text kReadChunks{"SELECT id, content, citations FROM wiki_chunks WHERE page_fk = ?"};

constexpr py::Text kUpdateChunk{"UPDATE wiki_chunks SET content = ?, citations = ? WHERE id = ?"};

constexpr py::Text kEmptyList{"[]"};

/// `json.dumps(value)` with the module's json.
Owned dump(const Call& call, Handle value) {
  const Owned json = call.global(call.names().json);
  return call.state().json.dumps(py::attribute(json, call.names().dumps), value);
}

/// `[moved_citation(citation, moves) for citation in json.loads(stored or "[]")]`.
Owned move_citations(const Call& call, Handle stored, Handle moves) {
  const Owned json = call.global(call.names().json);
  const Owned loads = py::attribute(json, call.names().loads);
  const Handle text = py::truth(stored) ? stored : call.text(kEmptyList);
  const Owned citations = call.state().json.loads(loads, text);
  return py::list_of(citations, [&](const Owned& citation) {
    const Owned moved_citation = call.global(call.names().moved_citation);
    return py::call(moved_citation, citation, moves);
  });
}

}  // namespace

Owned update_wiki_page_citations(const Call& call, Handle branch, Handle page_id, Handle citations,
                                 Handle content_hash, Handle build_cache, Handle rewrite,
                                 Handle moves) {
  bool unknown_page = false;
  host::transaction(call, [&](const host::Cursor& cursor) {
    const Owned page = cursor.query_one(call.text(kReadPageId), call.parameters(branch, page_id));
    unknown_page = page.is_none();
    if (unknown_page) return;
    const host::Execution update_page = cursor.prepare(call.text(kUpdatePage));
    Owned citations_text = dump(call, citations);
    update_page.run(
        call.parameters(std::move(citations_text), content_hash, build_cache, py::item(page, 0)));
    // All rows are read before the first is changed.
    const Owned chunks =
        cursor.query_all(call.text(kReadChunks), call.parameters(py::item(page, 0)));
    py::for_each(chunks, [&](const Owned& chunk) {
      auto [chunk_id, content, stored] = py::unpack<3>(chunk);
      const Owned moved = move_citations(call, stored, moves);
      const host::Execution update_chunk = cursor.prepare(call.text(kUpdateChunk));
      Owned rewritten = py::call(rewrite, content);
      update_chunk.run(
          call.parameters(std::move(rewritten), dump(call, moved), std::move(chunk_id)));
    });
  });
  if (!unknown_page) drop_chunk_index(call, branch);
  return Owned::none();
}

}  // namespace tessaly::wiki
