#pragma once

#include <Python.h>

#include "py/reference.h"

/// Every name that the module looks up or passes by keyword, once: the members of Names, their
/// creation and their end are all made from this list. X(member, text).
#define TESSALY_NAMES(X)                                      \
  /* what is read from the repository and its database */     \
  X(db, "db")                                                 \
  X(transaction, "transaction")                               \
  X(dunder_enter, "__enter__")                                \
  X(dunder_exit, "__exit__")                                  \
  X(execute, "execute")                                       \
  X(executemany, "executemany")                               \
  X(fetchone, "fetchone")                                     \
  X(fetchall, "fetchall")                                     \
  X(rowcount, "rowcount")                                     \
  X(index_generation, "index_generation")                     \
  /* what is read from the other host objects */              \
  X(encode, "encode")                                         \
  X(decode, "decode")                                         \
  X(load, "load")                                             \
  X(build, "build")                                           \
  X(ranked, "ranked")                                         \
  X(warning, "warning")                                       \
  X(replace, "replace")                                       \
  X(dumps, "dumps")                                           \
  X(loads, "loads")                                           \
  /* mappings, and the chunk index cache */                   \
  X(get, "get")                                               \
  X(pop, "pop")                                               \
  X(dict_clear, "clear")                                      \
  X(dunder_dict, "__dict__")                                  \
  X(wiki_chunk_index_cache, "_wiki_chunk_index_cache")        \
  X(wiki_chunk_indexes, "_wiki_chunk_indexes")                \
  X(wiki_chunk_index, "_wiki_chunk_index")                    \
  /* the module's own namespace, and builtins */              \
  X(json, "json")                                             \
  X(logger, "logger")                                         \
  X(Database, "Database")                                     \
  X(stored_vectors, "stored_vectors")                         \
  X(EmbeddingIndex, "EmbeddingIndex")                         \
  X(ChunkWords, "ChunkWords")                                 \
  X(WikiChunkIndex, "WikiChunkIndex")                         \
  X(WIKI_PAGE_COLUMNS, "WIKI_PAGE_COLUMNS")                   \
  X(moved_citation, "moved_citation")                         \
  X(row_to_wiki_page, "row_to_wiki_page")                     \
  X(WikiStore, "WikiStore")                                   \
  X(dunder_import, "__import__")                              \
  X(round, "round")                                           \
  /* keys and attributes of chunk indexes, chunks, records */ \
  X(generation, "generation")                                 \
  X(dimension, "dimension")                                   \
  X(index, "index")                                           \
  X(chunks, "chunks")                                         \
  X(words, "words")                                           \
  X(anchor, "anchor")                                         \
  X(heading, "heading")                                       \
  X(content, "content")                                       \
  X(citations, "citations")                                   \
  X(embedding, "embedding")                                   \
  X(token_count, "token_count")                               \
  X(page_id, "page_id")                                       \
  X(title, "title")                                           \
  X(rel_path, "rel_path")                                     \
  X(similarity, "similarity")                                 \
  X(score, "score")                                           \
  X(branch, "branch")                                         \
  X(last_built_at, "last_built_at")                           \
  X(last_commit, "last_commit")                               \
  X(changed_since_build, "changed_since_build")               \
  X(model, "model")                                           \
  X(page_count, "page_count")                                 \
  X(manifest_hash, "manifest_hash")                           \
  /* classes and errors */                                    \
  X(dunder_name, "__name__")                                  \
  X(dunder_module, "__module__")                              \
  X(dunder_doc, "__doc__")                                    \
  X(dunder_qualname, "__qualname__")                          \
  X(dunder_annotations, "__annotations__")                    \
  X(dunder_firstlineno, "__firstlineno__")                    \
  X(dunder_static_attributes, "__static_attributes__")

namespace tessaly {

/// The interned names of one module object. Strings take no part in garbage collection, so there is
/// nothing here to visit.
struct Names {
#define TESSALY_DECLARE(member, text) py::Member member;
  TESSALY_NAMES(TESSALY_DECLARE)
#undef TESSALY_DECLARE

  void create() {
#define TESSALY_CREATE(member, text) member.set(py::Owned::steal(PyUnicode_InternFromString(text)));
    TESSALY_NAMES(TESSALY_CREATE)
#undef TESSALY_CREATE
  }

  void clear() noexcept {
#define TESSALY_CLEAR(member, text) member.clear();
    TESSALY_NAMES(TESSALY_CLEAR)
#undef TESSALY_CLEAR
  }
};

}  // namespace tessaly
