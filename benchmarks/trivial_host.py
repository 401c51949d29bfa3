"""A host whose objects do next to nothing, so that what is timed over it is the store itself."""

from __future__ import annotations

import json
from collections.abc import Iterator
from contextlib import ExitStack, contextmanager
from types import ModuleType
from typing import Any
from unittest import mock

PAGE_ROW = (1, "main", "page", "A title", "A description")
STATE_ROW = ("main", "2026-01-01", "abc", 3, "model", 20, "hash")
CITATION = json.dumps([{"path": "src/module.py", "start": 10, "end": 42}])


class Cursor:
    """Answers every statement with the rows it was given."""

    rowcount = 1

    def __init__(self, row: Any, rows: list[Any]) -> None:
        self.row = row
        self.rows = rows

    def execute(self, statement: str, parameters: tuple[Any, ...]) -> Cursor:
        return self

    def executemany(self, statement: str, rows: list[tuple[Any, ...]]) -> Cursor:
        return self

    def fetchone(self) -> Any:
        return self.row

    def fetchall(self) -> list[Any]:
        return self.rows


class Transaction:
    def __init__(self, cursor: Cursor) -> None:
        self.cursor = cursor

    def __enter__(self) -> Cursor:
        return self.cursor

    def __exit__(self, kind: Any, error: Any, traceback: Any) -> bool:
        return False


class Database:
    """Answers every read with ``row`` and ``rows``, whatever was asked."""

    def __init__(self, row: Any = None, rows: list[Any] | None = None) -> None:
        self.row = row
        self.rows = rows if rows is not None else []
        self.block = Transaction(Cursor(row, self.rows))

    def transaction(self) -> Transaction:
        return self.block

    def fetchone(self, statement: str, parameters: tuple[Any, ...]) -> Any:
        return self.row

    def fetchall(self, statement: str, parameters: tuple[Any, ...]) -> list[Any]:
        return self.rows

    def index_generation(self) -> int:
        return 1


class Codec:
    def encode(self, embedding: Any) -> Any:
        return embedding

    def decode(self, stored: Any) -> Any:
        return stored


_CODEC = Codec()


def stored_vectors(db: Any) -> Codec:
    return _CODEC


class EmbeddingIndex:
    def __init__(self, dimension: int) -> None:
        self.dimension = dimension

    def load(self, vectors: list[Any]) -> None:
        pass


class ChunkWords:
    @classmethod
    def build(cls, items: Any) -> ChunkWords:
        for _item in items:
            pass
        return cls()


class WikiChunkIndex:
    def __init__(self, *, generation: Any, dimension: int, index: Any, chunks: Any, words: Any):
        self.generation = generation
        self.dimension = dimension
        self.index = index
        self.chunks = chunks
        self.words = words

    def ranked(self, query_embedding: Any, top_k: int, terms: Any) -> list[Any]:
        return [
            (chunk_id, 0.987654321 - chunk_id / 1000, None)
            for chunk_id in range(1, min(top_k, len(self.chunks)) + 1)
        ]


def row_to_wiki_page(row: Any) -> dict[str, Any]:
    return {"id": row[0]}


def moved_citation(citation: Any, moves: Any) -> Any:
    return citation


def chunk_rows(count: int) -> list[tuple[Any, ...]]:
    """Rows as the chunk index reads them, three chunks a page."""
    return [
        (i, 1 + i % 7, f"Heading {i}", f"Text of chunk {i}", CITATION, [0.5, 0.5])
        for i in range(1, count + 1)
    ]


@contextmanager
def installed(*modules: ModuleType) -> Iterator[None]:
    """The trivial host's objects in the place of the real ones in the stores' modules."""
    with ExitStack() as stack:
        for module in modules:
            for replacement in (
                stored_vectors, EmbeddingIndex, ChunkWords, WikiChunkIndex, row_to_wiki_page,
                moved_citation,
            ):  # fmt: skip
                stack.enter_context(
                    mock.patch.object(module, replacement.__name__, replacement)
                )
        yield
