#pragma once

#include "call.h"

/// The bodies of the methods, a unit a subsystem. Each takes the call and the arguments after
/// `self`, and reads as the algorithm that it carries out: the host is called by host/, Python by
/// py/.
namespace tessaly::wiki {

using py::Handle;
using py::Owned;

// pages
Owned upsert_wiki_page(const Call& call, Handle branch, Handle page_id, Handle title,
                       Handle description, Handle importance, Handle level, Handle parent_section,
                       Handle rel_path, Handle source_files, Handle source_hashes, Handle symbols,
                       Handle related_pages, Handle citations, Handle content_hash, Handle model,
                       Handle status, Handle summary, Handle build_cache, Handle page_type);
Owned get_wiki_page(const Call& call, Handle branch, Handle page_id);
Owned get_wiki_pages(const Call& call, Handle branch);
Owned wiki_pages_citing(const Call& call, Handle branch, Handle paths);
Owned delete_wiki_page(const Call& call, Handle branch, Handle page_id);
Owned update_wiki_page_citations(const Call& call, Handle branch, Handle page_id, Handle citations,
                                 Handle content_hash, Handle build_cache, Handle rewrite,
                                 Handle moves);

// chunks
Owned replace_wiki_chunks(const Call& call, Handle page_fk, Handle branch, Handle chunks,
                          Handle model_name);
Owned wiki_chunk_headings(const Call& call, Handle branch);
Owned wiki_chunk_texts(const Call& call, Handle branch);
Owned update_wiki_chunk_embeddings(const Call& call, Handle branch, Handle embeddings,
                                   Handle model_name);
Owned wiki_chunk_dimension(const Call& call, Handle branch);
Owned search_wiki_chunks(const Call& call, Handle query_embedding, Handle branch, Handle top_k,
                         Handle terms);
Owned _wiki_chunk_indexes(const Call& call);
Owned invalidate_wiki_chunk_index(const Call& call);
Owned _wiki_chunk_index(const Call& call, Handle branch);

// build state
Owned get_wiki_state(const Call& call, Handle branch);
Owned upsert_wiki_state(const Call& call, Handle branch, Handle last_built_at, Handle last_commit,
                        Handle changed_since_build, Handle model, Handle page_count,
                        Handle manifest_hash);
Owned bump_wiki_changed(const Call& call, Handle branch, Handle count);

/// Drops a branch's index, for whoever wrote or deleted chunks; only after the transaction closed,
/// so that an index built from then on reads what was committed.
void drop_chunk_index(const Call& call, Handle branch);

}  // namespace tessaly::wiki
