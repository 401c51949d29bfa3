#pragma once

#include <array>

#include "docstrings.h"
#include "native_method.h"
#include "wiki/methods.h"

namespace tessaly {

/// The class WikiStore: its methods in class order, each declared once. The signature is Python and
/// is evaluated in the module's namespace when the class is built; defaults and annotations are
/// what it gives. The body takes the parameters after `self` in their order.
#define TESSALY_METHOD(name, signature) method<wiki::name>(#name, signature, doc::name)
inline constexpr std::array kWikiStoreMethods{
    TESSALY_METHOD(_wiki_chunk_indexes, "(self) -> dict[str, WikiChunkIndex]"),
    TESSALY_METHOD(invalidate_wiki_chunk_index, "(self) -> None"),
    TESSALY_METHOD(upsert_wiki_page,
                   "(self, branch: str, page_id: str, title: str, *, description: str = '',"
                   " importance: str = 'medium', level: str = 'module',"
                   " parent_section: str | None = None, rel_path: str = '',"
                   " source_files: list[str] | None = None,"
                   " source_hashes: dict[str, str] | None = None, symbols: list[str] | None = None,"
                   " related_pages: list[str] | None = None,"
                   " citations: list[dict[str, Any]] | None = None,"
                   " content_hash: str | None = None, model: str | None = None,"
                   " status: str = 'built', summary: str = '', build_cache: str | None = None,"
                   " page_type: str = '') -> int"),
    TESSALY_METHOD(replace_wiki_chunks,
                   "(self, page_fk: int, branch: str, chunks: list[dict[str, Any]],"
                   " model_name: str) -> int"),
    TESSALY_METHOD(wiki_chunk_headings, "(self, branch: str) -> list[tuple[str, str]]"),
    TESSALY_METHOD(wiki_chunk_texts, "(self, branch: str) -> list[tuple[int, str, str, str, str]]"),
    TESSALY_METHOD(update_wiki_chunk_embeddings,
                   "(self, branch: str, embeddings: list[tuple[int, list[float]]],"
                   " model_name: str) -> int"),
    TESSALY_METHOD(wiki_chunk_dimension, "(self, branch: str) -> int | None"),
    TESSALY_METHOD(search_wiki_chunks,
                   "(self, query_embedding: list[float], branch: str, top_k: int = 20, *,"
                   " terms: Sequence[str] = ()) -> list[dict[str, Any]]"),
    TESSALY_METHOD(_wiki_chunk_index, "(self, branch: str) -> WikiChunkIndex | None"),
    TESSALY_METHOD(get_wiki_pages, "(self, branch: str) -> list[dict[str, Any]]"),
    TESSALY_METHOD(wiki_pages_citing,
                   "(self, branch: str, paths: list[str]) -> list[dict[str, Any]]"),
    TESSALY_METHOD(get_wiki_page, "(self, branch: str, page_id: str) -> dict[str, Any] | None"),
    TESSALY_METHOD(update_wiki_page_citations,
                   "(self, branch: str, page_id: str, *, citations: list[dict[str, Any]],"
                   " content_hash: str | None, build_cache: str | None,"
                   " rewrite: Callable[[str], str],"
                   " moves: dict[tuple[str, int, int], tuple[int, int]]) -> None"),
    TESSALY_METHOD(delete_wiki_page, "(self, branch: str, page_id: str) -> bool"),
    TESSALY_METHOD(get_wiki_state, "(self, branch: str) -> dict[str, Any] | None"),
    TESSALY_METHOD(upsert_wiki_state,
                   "(self, branch: str, *, last_built_at: str | None = None,"
                   " last_commit: str | None = None, changed_since_build: int = 0,"
                   " model: str | None = None, page_count: int = 0,"
                   " manifest_hash: str | None = None) -> None"),
    TESSALY_METHOD(bump_wiki_changed, "(self, branch: str, count: int) -> int"),
};
#undef TESSALY_METHOD

/// The file that the lines of the rows are in, for tracebacks.
inline constexpr char kMethodTable[] = __FILE__;

/// Builds the class from the table, in the namespace of `module`, whose names the annotations read.
py::Owned create_wiki_store(ModuleState& state, py::Handle module);

}  // namespace tessaly
