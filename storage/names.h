#pragma once

#include <Python.h>

#include "py/reference.h"

/// Every name that the module looks up or passes by keyword, once: the members of Names, their
/// creation and their end are all made from these lists.
// clang-format off
#define TESSALY_NAMES(X)                                                                     \
  /* the repository, its database, and its index cache */                                    \
  X(db) X(transaction) X(execute) X(executemany) X(fetchone) X(fetchall) X(rowcount)         \
  X(index_generation) X(_wiki_chunk_index_cache) X(_wiki_chunk_indexes) X(_wiki_chunk_index) \
  /* the other host objects, mappings and strings */                                         \
  X(encode) X(decode) X(load) X(build) X(ranked) X(warning) X(dumps) X(loads)                \
  X(get) X(pop) X(clear) X(replace)                                                          \
  /* the module's own namespace, and builtins */                                             \
  X(json) X(logger) X(Database) X(EmbeddingIndex) X(ChunkWords)                              \
  X(WikiChunkIndex) X(WIKI_PAGE_COLUMNS) X(moved_citation) X(row_to_wiki_page) X(WikiStore)  \
  X(round)                                                                                   \
  /* keys and attributes of chunk indexes, chunks, hits and states */                        \
  X(generation) X(dimension) X(index) X(chunks) X(words)                                     \
  X(anchor) X(heading) X(content) X(citations) X(token_count)                   \
  X(page_id) X(title) X(rel_path) X(similarity) X(score)                                     \
  X(branch) X(last_built_at) X(last_commit) X(changed_since_build) X(model) X(page_count)    \
  X(manifest_hash)

/// Likewise, with two underscores on each side.
#define TESSALY_DUNDERS(X)                                                                   \
  X(enter) X(exit) X(dict) X(import)                                                         \
  X(name) X(module) X(doc) X(qualname) X(annotations) X(firstlineno) X(static_attributes)
// clang-format on

namespace tessaly {

/// The interned names of one module object. Strings take no part in garbage collection, so there is
/// nothing here to visit.
struct Names {
#define TESSALY_DECLARE(name) py::Member name;
#define TESSALY_DECLARE_DUNDER(name) py::Member dunder_##name;
  TESSALY_NAMES(TESSALY_DECLARE)
  TESSALY_DUNDERS(TESSALY_DECLARE_DUNDER)
#undef TESSALY_DECLARE
#undef TESSALY_DECLARE_DUNDER

  void create() {
    const auto intern = [](py::Member& member, const char* text) {
      member.set(py::Owned::steal(PyUnicode_InternFromString(text)));
    };
#define TESSALY_CREATE(name) intern(name, #name);
#define TESSALY_CREATE_DUNDER(name) intern(dunder_##name, "__" #name "__");
    TESSALY_NAMES(TESSALY_CREATE)
    TESSALY_DUNDERS(TESSALY_CREATE_DUNDER)
#undef TESSALY_CREATE
#undef TESSALY_CREATE_DUNDER
  }
};

}  // namespace tessaly
