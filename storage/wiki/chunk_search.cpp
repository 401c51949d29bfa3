#include "host/chunk_index.h"
#include "host/database.h"
#include "host/log.h"
#include "wiki/json_columns.h"
#include "wiki/methods.h"

namespace tessaly::wiki {

namespace {

const py::Text kMismatch{
    "wiki chunks for '%s' are %d-dim but the query embedding is %d-dim — the embedding backend "
    "changed since the wiki was built; searches return nothing until the wiki is rebuilt"};

void warn_of_mismatch(const Call& call, Handle branch, Handle cached, Handle query_embedding) {
  const Owned warning = host::warning(call);
  const Owned dimension = host::dimension(call, cached);
  const Owned length = py::length(query_embedding);
  py::drop(py::call(warning, call.text(kMismatch), branch, dimension, length));
}

const py::Text kReadPages{"SELECT id, page_id, title, rel_path FROM wiki_pages WHERE id IN (", "",
                          ")"};

/// Page row id to page row, for all hits by one statement.
Owned read_pages(const Call& call, Handle page_fks) {
  const Owned statement = call.text(kReadPages, py::none(), py::tuple_size(page_fks));
  const Owned rows = host::fetchall(call, statement, page_fks);
  Owned pages = py::new_dict();
  py::for_each(rows, [&](const Owned& row) {
    const Owned id = py::to_int(py::item(row, 0));
    py::dict_set(pages, id, row);
  });
  return pages;
}

}  // namespace

Owned search_wiki_chunks(const Call& call, Handle query_embedding, Handle branch, Handle top_k,
                         Handle terms) {
  const Names& names = call.names();
  const Owned cached = py::call_method(call.self(), names._wiki_chunk_index, branch);
  if (cached.is_none()) return py::new_list();
  const Owned length = py::length(query_embedding);
  if (py::unequal(length, host::dimension(call, cached))) {
    warn_of_mismatch(call, branch, cached, query_embedding);
    return py::new_list();
  }

  const Owned hits = host::ranked(call, cached, query_embedding, top_k, terms);
  const Owned pages = read_pages(call, py::sorted_tuple(host::page_row_ids(call, cached, hits)));
  Owned output = py::new_list();
  py::for_each(hits, [&](const Owned& hit) {
    const auto [chunk_id, similarity, fused] = py::unpack<3>(hit);
    auto [page_fk, heading, text, stored] = py::unpack<4>(host::chunk(call, cached, chunk_id));
    const Owned page = py::mapping_get(pages, names.get, page_fk);
    if (page.is_none()) return;  // deleted since the index was built
    const Owned record = py::record<7>(
        {names.page_id, names.title, names.rel_path, names.heading, names.content, names.citations,
         names.similarity},
        {py::item(page, 1), py::item(page, 2), py::item(page, 3), std::move(heading),
         std::move(text), load_citations_if_any(call, stored), call.round_to_4_digits(similarity)});
    if (!fused.is_none()) py::dict_set(record, names.score, fused);
    py::append(output, record);
  });
  return output;
}

}  // namespace tessaly::wiki
