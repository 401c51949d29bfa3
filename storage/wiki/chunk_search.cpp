#include "wiki/chunk_search.h"

#include "host.h"

namespace tessaly::wiki {

using py::Handle;
using py::Owned;

std::array<Handle, 7> hit_keys(const Names& names) {
  return {names.page_id, names.title,     names.rel_path,  names.heading,
          names.content, names.citations, names.similarity};
}

namespace {

constexpr py::Text kMismatch{
    "wiki chunks for '%s' are %d-dim but the query embedding is %d-dim — the embedding backend "
    "changed since the wiki was built; searches return nothing until the wiki is rebuilt"};

void warn_of_mismatch(const Call& call, Handle branch, Handle cached, Handle query_embedding) {
  const Owned logger = call.global(call.names().logger);
  const Owned warning = py::attribute(logger, call.names().warning);
  const Owned dimension = py::attribute(cached, call.names().dimension);
  const Owned length = py::integer(py::length(query_embedding));
  py::drop(py::call(warning, call.text(kMismatch), branch, dimension, length));
}

/// `cached.chunks[chunk_id]`.
Owned chunk_of(const Call& call, Handle cached, Handle chunk_id) {
  const Owned chunks = py::attribute(cached, call.names().chunks);
  return py::item(chunks, chunk_id);
}

/// The distinct page row ids of the hits, ascending: a tuple, as the statement takes them.
Owned pages_of_hits(const Call& call, Handle cached, Handle hits) {
  py::SortedSet distinct;
  py::for_each(hits, [&](const Owned& hit) {
    const auto [chunk_id, similarity, fused] = py::unpack<3>(hit);
    distinct.add(py::item(chunk_of(call, cached, chunk_id), 0));
  });
  return Owned::steal(PyList_AsTuple(distinct.sorted().ptr()));
}

constexpr StatementShape kReadPages{
    .head{"SELECT id, page_id, title, rel_path FROM wiki_pages WHERE id IN ("}, .tail{")"}};

/// Page row id to page row, for all hits by one statement.
Owned read_pages(const Call& call, const Owned& page_fks) {
  const Owned statement =
      call.state().statements.get(kReadPages, nullptr, PyTuple_GET_SIZE(page_fks.ptr()));
  const Owned rows = host::fetchall(call, statement, page_fks);
  Owned pages = Owned::steal(PyDict_New());
  py::for_each(rows, [&](const Owned& row) {
    const Owned id = py::to_int(py::item(row, 0));
    py::checked(PyDict_SetItem(pages.ptr(), id.ptr(), row.ptr()));
  });
  return pages;
}

Owned parse_citations(const Call& call, Handle stored) {
  if (!py::truth(stored)) return Owned::steal(PyList_New(0));
  const Owned json = call.global(call.names().json);
  const Owned loads = py::attribute(json, call.names().loads);
  return call.state().json.loads(loads, stored);
}

}  // namespace

Owned search_wiki_chunks(const Call& call, Handle query_embedding, Handle branch, Handle top_k,
                         Handle terms) {
  const Names& names = call.names();
  const Owned cached = py::call_method(call.self(), names.wiki_chunk_index, branch);
  if (cached.is_none()) return Owned::steal(PyList_New(0));
  const Owned length = py::integer(py::length(query_embedding));
  if (py::compare(length, py::attribute(cached, names.dimension), Py_NE)) {
    warn_of_mismatch(call, branch, cached, query_embedding);
    return Owned::steal(PyList_New(0));
  }

  const Owned hits = py::call_method(cached, names.ranked, query_embedding, top_k, terms);
  const Owned pages = read_pages(call, pages_of_hits(call, cached, hits));
  py::ListBuilder output(py::expected_length(hits));
  py::for_each(hits, [&](const Owned& hit) {
    const auto [chunk_id, similarity, fused] = py::unpack<3>(hit);
    auto [page_fk, heading, text, stored] = py::unpack<4>(chunk_of(call, cached, chunk_id));
    const Owned page = py::mapping_get(pages, names.get, page_fk);
    if (page.is_none()) return;  // deleted since the index was built
    Owned record =
        py::record(call.state().hit_record, hit_keys(names),
                   std::array{py::item(page, 1), py::item(page, 2), py::item(page, 3),
                              std::move(heading), std::move(text), parse_citations(call, stored),
                              call.round_to_4_digits(similarity)});
    if (!fused.is_none()) py::mapping_set(record, names.score, fused);
    output.append(std::move(record));
  });
  return std::move(output).take();
}

}  // namespace tessaly::wiki
