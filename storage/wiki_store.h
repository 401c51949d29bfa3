#pragma once

#include <array>

#include "docstrings.h"
#include "native_method.h"
#include "wiki/build_state.h"
#include "wiki/chunk_index_cache.h"
#include "wiki/chunk_search.h"
#include "wiki/chunks.h"
#include "wiki/citations.h"
#include "wiki/pages.h"

namespace tessaly {

/// The class WikiStore: its methods in class order, each declared once. The signature is Python and
/// is evaluated in the module's namespace when the class is built; defaults and annotations are
/// what it gives. The body takes the parameters after `self` in their order.
inline constexpr std::array kWikiStoreMethods{
    method<wiki::wiki_chunk_indexes>("_wiki_chunk_indexes", "(self) -> dict[str, WikiChunkIndex]",
                                     doc::wiki_chunk_indexes),

    method<wiki::invalidate_wiki_chunk_index>("invalidate_wiki_chunk_index", "(self) -> None",
                                              doc::invalidate_wiki_chunk_index),

    method<wiki::upsert_wiki_page>("upsert_wiki_page",
                                   "(self, branch: str, page_id: str, title: str, *,"
                                   " description: str = '', importance: str = 'medium',"
                                   " level: str = 'module', parent_section: str | None = None,"
                                   " rel_path: str = '', source_files: list[str] | None = None,"
                                   " source_hashes: dict[str, str] | None = None,"
                                   " symbols: list[str] | None = None,"
                                   " related_pages: list[str] | None = None,"
                                   " citations: list[dict[str, Any]] | None = None,"
                                   " content_hash: str | None = None, model: str | None = None,"
                                   " status: str = 'built', summary: str = '',"
                                   " build_cache: str | None = None, page_type: str = '') -> int",
                                   doc::upsert_wiki_page),

    method<wiki::replace_wiki_chunks>("replace_wiki_chunks",
                                      "(self, page_fk: int, branch: str,"
                                      " chunks: list[dict[str, Any]], model_name: str) -> int",
                                      doc::replace_wiki_chunks),

    method<wiki::wiki_chunk_headings>("wiki_chunk_headings",
                                      "(self, branch: str) -> list[tuple[str, str]]",
                                      doc::wiki_chunk_headings),

    method<wiki::wiki_chunk_texts>("wiki_chunk_texts",
                                   "(self, branch: str) -> list[tuple[int, str, str, str, str]]",
                                   doc::wiki_chunk_texts),

    method<wiki::update_wiki_chunk_embeddings>(
        "update_wiki_chunk_embeddings",
        "(self, branch: str, embeddings: list[tuple[int, list[float]]], model_name: str) -> int",
        doc::update_wiki_chunk_embeddings),

    method<wiki::wiki_chunk_dimension>("wiki_chunk_dimension", "(self, branch: str) -> int | None",
                                       doc::wiki_chunk_dimension),

    method<wiki::search_wiki_chunks>("search_wiki_chunks",
                                     "(self, query_embedding: list[float], branch: str,"
                                     " top_k: int = 20, *, terms: Sequence[str] = ())"
                                     " -> list[dict[str, Any]]",
                                     doc::search_wiki_chunks),

    method<wiki::wiki_chunk_index>(
        "_wiki_chunk_index", "(self, branch: str) -> WikiChunkIndex | None", doc::wiki_chunk_index),

    method<wiki::get_wiki_pages>("get_wiki_pages", "(self, branch: str) -> list[dict[str, Any]]",
                                 doc::get_wiki_pages),

    method<wiki::wiki_pages_citing>("wiki_pages_citing",
                                    "(self, branch: str, paths: list[str])"
                                    " -> list[dict[str, Any]]",
                                    doc::wiki_pages_citing),

    method<wiki::get_wiki_page>("get_wiki_page",
                                "(self, branch: str, page_id: str) -> dict[str, Any] | None",
                                doc::get_wiki_page),

    method<wiki::update_wiki_page_citations>(
        "update_wiki_page_citations",
        "(self, branch: str, page_id: str, *, citations: list[dict[str, Any]],"
        " content_hash: str | None, build_cache: str | None, rewrite: Callable[[str], str],"
        " moves: dict[tuple[str, int, int], tuple[int, int]]) -> None",
        doc::update_wiki_page_citations),

    method<wiki::delete_wiki_page>("delete_wiki_page", "(self, branch: str, page_id: str) -> bool",
                                   doc::delete_wiki_page),

    method<wiki::get_wiki_state>("get_wiki_state", "(self, branch: str) -> dict[str, Any] | None",
                                 doc::get_wiki_state),

    method<wiki::upsert_wiki_state>("upsert_wiki_state",
                                    "(self, branch: str, *, last_built_at: str | None = None,"
                                    " last_commit: str | None = None,"
                                    " changed_since_build: int = 0, model: str | None = None,"
                                    " page_count: int = 0, manifest_hash: str | None = None)"
                                    " -> None",
                                    doc::upsert_wiki_state),

    method<wiki::bump_wiki_changed>("bump_wiki_changed", "(self, branch: str, count: int) -> int",
                                    doc::bump_wiki_changed),
};

/// Builds the class from the table, in the namespace of `module`, whose names the annotations read.
py::Owned create_wiki_store(ModuleState& state, py::Handle module);

}  // namespace tessaly
