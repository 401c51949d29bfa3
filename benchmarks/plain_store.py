"""The wiki store as a plain Python class: the yardstick that the native one is measured against.

It takes the same steps in the same order, so it also serves the tests as a second opinion.
"""

from __future__ import annotations

import json
import logging
from collections.abc import Callable, Sequence
from typing import Any

from tessaly.storage.database import Database
from tessaly.storage.vector_codec import stored_vectors
from tessaly.storage.vector_index import EmbeddingIndex
from tessaly.storage.wiki_chunk_words import ChunkWords, WikiChunkIndex
from tessaly.storage.wiki_rows import WIKI_PAGE_COLUMNS, moved_citation, row_to_wiki_page

logger = logging.getLogger(__name__)


class PlainWikiStore:
    """What ``WikiStore`` does, written as its users would write it."""

    db: Database

    def _wiki_chunk_indexes(self) -> dict[str, WikiChunkIndex]:
        attributes = self.__dict__
        indexes = attributes.get("_wiki_chunk_index_cache")
        if indexes is None:
            indexes = {}
            attributes["_wiki_chunk_index_cache"] = indexes
        return indexes

    def invalidate_wiki_chunk_index(self) -> None:
        self._wiki_chunk_indexes().clear()

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
    ) -> int:
        import json

        with self.db.transaction() as cursor:
            cursor.execute(
                """INSERT INTO wiki_pages (branch, page_id, title, description, importance, level,
                    parent_section, rel_path, source_files, source_hashes, symbols,
                    related_pages, citations, content_hash, model, status, summary, build_cache,
                    page_type, generated_at)
                VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, datetime('now'))
                ON CONFLICT(branch, page_id) DO UPDATE SET
                    title=excluded.title, description=excluded.description,
                    importance=excluded.importance, level=excluded.level,
                    parent_section=excluded.parent_section, rel_path=excluded.rel_path,
                    source_files=excluded.source_files, source_hashes=excluded.source_hashes,
                    symbols=excluded.symbols, related_pages=excluded.related_pages,
                    citations=excluded.citations, content_hash=excluded.content_hash,
                    model=excluded.model, status=excluded.status, summary=excluded.summary,
                    build_cache=excluded.build_cache, page_type=excluded.page_type,
                    generated_at=datetime('now')""",
                (
                    branch,
                    page_id,
                    title,
                    description,
                    importance,
                    level,
                    parent_section,
                    rel_path,
                    json.dumps(source_files or []),
                    json.dumps(source_hashes or {}),
                    json.dumps(symbols or []),
                    json.dumps(related_pages or []),
                    json.dumps(citations or []),
                    content_hash,
                    model,
                    status,
                    summary,
                    build_cache,
                    page_type,
                ),
            )
            row = cursor.execute(
                "SELECT id FROM wiki_pages WHERE branch = ? AND page_id = ?", (branch, page_id)
            ).fetchone()
            return int(row[0]) if row else 0

    def replace_wiki_chunks(
        self, page_fk: int, branch: str, chunks: list[dict[str, Any]], model_name: str
    ) -> int:
        import json

        with self.db.transaction() as cursor:
            cursor.execute("DELETE FROM wiki_chunks WHERE page_fk = ?", (page_fk,))
            for chunk in chunks:
                cursor.execute(
                    """INSERT INTO wiki_chunks (page_fk, branch, anchor, heading, content, citations,
                        embedding, model_name, token_count)
                    VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)""",
                    (
                        page_fk,
                        branch,
                        chunk.get("anchor"),
                        chunk.get("heading"),
                        chunk["content"],
                        json.dumps(chunk.get("citations", [])),
                        stored_vectors(self.db).encode(chunk["embedding"]),
                        model_name,
                        int(chunk.get("token_count", 0)),
                    ),
                )
        self._wiki_chunk_indexes().pop(branch, None)
        return len(chunks)

    def wiki_chunk_headings(self, branch: str) -> list[tuple[str, str]]:
        rows = self.db.fetchall(
            "SELECT DISTINCT p.page_id, c.heading FROM wiki_chunks c"
            " JOIN wiki_pages p ON p.id = c.page_fk"
            " WHERE c.branch = ? AND c.heading IS NOT NULL AND c.heading != ''",
            (branch,),
        )
        return [(str(row[0]), str(row[1])) for row in rows]

    def wiki_chunk_texts(self, branch: str) -> list[tuple[int, str, str, str, str]]:
        rows = self.db.fetchall(
            "SELECT c.id, p.page_id, p.title, COALESCE(c.heading, ''), c.content"
            " FROM wiki_chunks c JOIN wiki_pages p ON p.id = c.page_fk"
            " WHERE c.branch = ? ORDER BY c.page_fk, c.id",
            (branch,),
        )
        return [
            (int(row[0]), str(row[1]), str(row[2] or ""), str(row[3]), str(row[4])) for row in rows
        ]

    def update_wiki_chunk_embeddings(
        self, branch: str, embeddings: list[tuple[int, list[float]]], model_name: str
    ) -> int:
        with self.db.transaction() as cursor:
            rows = [
                (stored_vectors(self.db).encode(embedding), model_name, chunk_id, branch)
                for chunk_id, embedding in embeddings
            ]
            cursor.executemany(
                "UPDATE wiki_chunks SET embedding = ?, model_name = ? WHERE id = ? AND branch = ?",
                rows,
            )
        self._wiki_chunk_indexes().pop(branch, None)
        return len(embeddings)

    def wiki_chunk_dimension(self, branch: str) -> int | None:
        row = self.db.fetchone(
            "SELECT embedding FROM wiki_chunks WHERE branch = ? LIMIT 1", (branch,)
        )
        if row is None:
            return None
        return len(stored_vectors(self.db).decode(row[0]))

    def search_wiki_chunks(
        self,
        query_embedding: list[float],
        branch: str,
        top_k: int = 20,
        *,
        terms: Sequence[str] = (),
    ) -> list[dict[str, Any]]:
        cached = self._wiki_chunk_index(branch)
        if cached is None:
            return []
        if len(query_embedding) != cached.dimension:
            logger.warning(
                "wiki chunks for '%s' are %d-dim but the query embedding is %d-dim — the embedding"
                " backend changed since the wiki was built; searches return nothing until the wiki"
                " is rebuilt",
                branch,
                cached.dimension,
                len(query_embedding),
            )
            return []
        hits = cached.ranked(query_embedding, top_k, terms)
        page_fks = sorted({cached.chunks[chunk_id][0] for chunk_id, _similarity, _fused in hits})
        placeholders = ",".join("?" for _ in page_fks)
        statement = (
            f"SELECT id, page_id, title, rel_path FROM wiki_pages WHERE id IN ({placeholders})"
        )
        pages = {int(row[0]): row for row in self.db.fetchall(statement, tuple(page_fks))}
        output = []
        for chunk_id, similarity, fused in hits:
            page_fk, heading, text, citations = cached.chunks[chunk_id]
            page = pages.get(page_fk)
            if page is None:
                continue
            record = {
                "page_id": page[1],
                "title": page[2],
                "rel_path": page[3],
                "heading": heading,
                "content": text,
                "citations": json.loads(citations) if citations else [],
                "similarity": round(similarity, 4),
            }
            if fused is not None:
                record["score"] = fused
            output.append(record)
        return output

    def _wiki_chunk_index(self, branch: str) -> WikiChunkIndex | None:
        generation = self.db.index_generation()
        indexes = self._wiki_chunk_indexes()
        cached = indexes.get(branch)
        if cached is not None and cached.generation == generation:
            return cached
        rows = self.db.fetchall(
            "SELECT c.id, c.page_fk, c.heading, c.content, c.citations, c.embedding"
            " FROM wiki_chunks c JOIN wiki_pages p ON c.page_fk = p.id"
            " WHERE c.branch = ? ORDER BY c.id",
            (branch,),
        )
        if not rows:
            indexes.pop(branch, None)
            return None
        vectors = [(int(row[0]), stored_vectors(self.db).decode(row[5])) for row in rows]
        dimension = len(vectors[0][1])
        index = EmbeddingIndex(dimension)
        index.load(vectors)
        chunks = {int(row[0]): (int(row[1]), row[2], str(row[3]), row[4]) for row in rows}
        words = ChunkWords.build((int(row[0]), row[2], str(row[3])) for row in rows)
        cached = WikiChunkIndex(
            generation=generation, dimension=dimension, index=index, chunks=chunks, words=words
        )
        indexes[branch] = cached
        return cached

    def get_wiki_pages(self, branch: str) -> list[dict[str, Any]]:
        statement = (
            f"SELECT {WIKI_PAGE_COLUMNS} FROM wiki_pages WHERE branch = ?"
            " ORDER BY CASE importance WHEN 'high' THEN 0 WHEN 'medium' THEN 1"
            " WHEN 'low' THEN 2 ELSE 3 END, title"
        )
        rows = self.db.fetchall(statement, (branch,))
        return [row_to_wiki_page(row) for row in rows]

    def wiki_pages_citing(self, branch: str, paths: list[str]) -> list[dict[str, Any]]:
        wanted = sorted({path.replace("\\", "/") for path in paths if path})
        if not wanted:
            return []
        placeholders = ",".join("?" for _ in wanted)
        statement = (
            f"SELECT {WIKI_PAGE_COLUMNS} FROM wiki_pages WHERE branch = ? AND id IN ("
            "SELECT p.id FROM wiki_pages p, json_each(p.source_files) j"
            f" WHERE p.branch = ? AND replace(j.value, char(92), '/') IN ({placeholders}))"
            " ORDER BY CASE importance WHEN 'high' THEN 0 WHEN 'medium' THEN 1"
            " WHEN 'low' THEN 2 ELSE 3 END, title"
        )
        rows = self.db.fetchall(statement, (branch, branch, *wanted))
        return [row_to_wiki_page(row) for row in rows]

    def get_wiki_page(self, branch: str, page_id: str) -> dict[str, Any] | None:
        statement = f"SELECT {WIKI_PAGE_COLUMNS} FROM wiki_pages WHERE branch = ? AND page_id = ?"
        row = self.db.fetchone(statement, (branch, page_id))
        return row_to_wiki_page(row) if row else None

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
    ) -> None:
        with self.db.transaction() as cursor:
            page = cursor.execute(
                "SELECT id FROM wiki_pages WHERE branch = ? AND page_id = ?", (branch, page_id)
            ).fetchone()
            if page is None:
                return
            cursor.execute(
                "UPDATE wiki_pages SET citations = ?, content_hash = ?, build_cache = ?"
                " WHERE id = ?",
                (json.dumps(citations), content_hash, build_cache, page[0]),
            )
            chunks = cursor.execute(
                "SELECT id, content, citations FROM wiki_chunks WHERE page_fk = ?", (page[0],)
            ).fetchall()
            for chunk_id, content, stored in chunks:
                moved = [moved_citation(one, moves) for one in json.loads(stored or "[]")]
                cursor.execute(
                    "UPDATE wiki_chunks SET content = ?, citations = ? WHERE id = ?",
                    (rewrite(content), json.dumps(moved), chunk_id),
                )
        self._wiki_chunk_indexes().pop(branch, None)

    def delete_wiki_page(self, branch: str, page_id: str) -> bool:
        with self.db.transaction() as cursor:
            cursor.execute(
                "DELETE FROM wiki_pages WHERE branch = ? AND page_id = ?", (branch, page_id)
            )
            removed = cursor.rowcount > 0
        self._wiki_chunk_indexes().pop(branch, None)
        return removed

    def get_wiki_state(self, branch: str) -> dict[str, Any] | None:
        row = self.db.fetchone(
            "SELECT branch, last_built_at, last_commit, changed_since_build, model, page_count,"
            " manifest_hash FROM wiki_state WHERE branch = ?",
            (branch,),
        )
        if not row:
            return None
        return {
            "branch": row[0],
            "last_built_at": row[1],
            "last_commit": row[2],
            "changed_since_build": row[3],
            "model": row[4],
            "page_count": row[5],
            "manifest_hash": row[6],
        }

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
    ) -> None:
        with self.db.transaction() as cursor:
            cursor.execute(
                """INSERT INTO wiki_state (branch, last_built_at, last_commit, changed_since_build,
                    model, page_count, manifest_hash)
                VALUES (?, ?, ?, ?, ?, ?, ?)
                ON CONFLICT(branch) DO UPDATE SET
                    last_built_at=excluded.last_built_at, last_commit=excluded.last_commit,
                    changed_since_build=excluded.changed_since_build, model=excluded.model,
                    page_count=excluded.page_count, manifest_hash=excluded.manifest_hash""",
                (
                    branch,
                    last_built_at,
                    last_commit,
                    changed_since_build,
                    model,
                    page_count,
                    manifest_hash,
                ),
            )

    def bump_wiki_changed(self, branch: str, count: int) -> int:
        with self.db.transaction() as cursor:
            cursor.execute(
                """INSERT INTO wiki_state (branch, changed_since_build) VALUES (?, ?)
                ON CONFLICT(branch) DO UPDATE SET
                    changed_since_build = changed_since_build + excluded.changed_since_build""",
                (branch, count),
            )
            row = cursor.execute(
                "SELECT changed_since_build FROM wiki_state WHERE branch = ?", (branch,)
            ).fetchone()
            return int(row[0]) if row else 0
