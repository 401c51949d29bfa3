import json
import logging
from collections.abc import Callable, Sequence
from typing import Any

from tessaly.storage.database import Database
from tessaly.storage.vector_codec import stored_vectors
from tessaly.storage.vector_index import EmbeddingIndex
from tessaly.storage.wiki_chunk_words import ChunkWords, WikiChunkIndex
from tessaly.storage.wiki_rows import WIKI_PAGE_COLUMNS, moved_citation, row_to_wiki_page

logger: logging.Logger

class WikiStore:
    db: Database

    def _wiki_chunk_indexes(self) -> dict[str, WikiChunkIndex]: ...
    def invalidate_wiki_chunk_index(self) -> None: ...
    def upsert_wiki_page(
        self,
        branch: str,
        page_id: str,
        title: str,
        *,
        description: str = "",
        importance: str = "medium",
        level: str = "module",
        parent_section: str | None = None,
        rel_path: str = "",
        source_files: list[str] | None = None,
        source_hashes: dict[str, str] | None = None,
        symbols: list[str] | None = None,
        related_pages: list[str] | None = None,
        citations: list[dict[str, Any]] | None = None,
        content_hash: str | None = None,
        model: str | None = None,
        status: str = "built",
        summary: str = "",
        build_cache: str | None = None,
        page_type: str = "",
    ) -> int: ...
    def replace_wiki_chunks(
        self, page_fk: int, branch: str, chunks: list[dict[str, Any]], model_name: str
    ) -> int: ...
    def wiki_chunk_headings(self, branch: str) -> list[tuple[str, str]]: ...
    def wiki_chunk_texts(self, branch: str) -> list[tuple[int, str, str, str, str]]: ...
    def update_wiki_chunk_embeddings(
        self, branch: str, embeddings: list[tuple[int, list[float]]], model_name: str
    ) -> int: ...
    def wiki_chunk_dimension(self, branch: str) -> int | None: ...
    def search_wiki_chunks(
        self,
        query_embedding: list[float],
        branch: str,
        top_k: int = 20,
        *,
        terms: Sequence[str] = (),
    ) -> list[dict[str, Any]]: ...
    def _wiki_chunk_index(self, branch: str) -> WikiChunkIndex | None: ...
    def get_wiki_pages(self, branch: str) -> list[dict[str, Any]]: ...
    def wiki_pages_citing(self, branch: str, paths: list[str]) -> list[dict[str, Any]]: ...
    def get_wiki_page(self, branch: str, page_id: str) -> dict[str, Any] | None: ...
    def update_wiki_page_citations(
        self,
        branch: str,
        page_id: str,
        *,
        citations: list[dict[str, Any]],
        content_hash: str | None,
        build_cache: str | None,
        rewrite: Callable[[str], str],
        moves: dict[tuple[str, int, int], tuple[int, int]],
    ) -> None: ...
    def delete_wiki_page(self, branch: str, page_id: str) -> bool: ...
    def get_wiki_state(self, branch: str) -> dict[str, Any] | None: ...
    def upsert_wiki_state(
        self,
        branch: str,
        *,
        last_built_at: str | None = None,
        last_commit: str | None = None,
        changed_since_build: int = 0,
        model: str | None = None,
        page_count: int = 0,
        manifest_hash: str | None = None,
    ) -> None: ...
    def bump_wiki_changed(self, branch: str, count: int) -> int: ...
