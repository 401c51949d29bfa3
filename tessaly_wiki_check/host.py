"""The host under check: its repository, and a branch of its own for the rows of a check."""

from __future__ import annotations

import uuid
from collections.abc import Sequence
from typing import Any

_TABLES = ("wiki_chunks", "wiki_pages", "wiki_state")


class Host:
    """A repository object and a scratch branch, whose name no repository has.

    Args:
        repository: The object under check.
        dimension: Length of the embeddings that are stored, 2 or more.
    """

    def __init__(self, repository: Any, dimension: int = 8) -> None:
        self.repository = repository
        self.dimension = dimension
        self.branch = f"tessaly-wiki-check-{uuid.uuid4().hex[:12]}"

    @property
    def db(self) -> Any:
        return self.repository.db

    def codec(self) -> Any:
        """The codec of the host's embeddings."""
        # Imported late: a host that lacks it is a finding, not a failure of this program.
        from tessaly.storage.vector_codec import stored_vectors

        return stored_vectors(self.db)

    def embedding(self, first: float, second: float) -> list[float]:
        """An embedding in the plane of the first two axes."""
        return [first, second] + [0.0] * (self.dimension - 2)

    def page(self, page_id: str = "page", **fields: Any) -> int:
        """Stores a page; its row id."""
        title = f"Title of {page_id}"
        return self.repository.upsert_wiki_page(self.branch, page_id, title, **fields)

    def page_with_chunks(self) -> int:
        """Stores a page with three chunks, the row id of which is returned.

        Seen from the first axis the first chunk has cosine 1, the second 0.71 though it is the
        longest, and the third 0; only the third holds the word "charlie".
        """
        page = self.page()
        texts = ("alpha walks home", "bravo sleeps late", "charlie sings at night")
        embeddings = (self.embedding(1, 0), self.embedding(4, 4), self.embedding(0, 2))
        chunks = [
            {"content": text, "embedding": embedding, "heading": text.split()[0]}
            for text, embedding in zip(texts, embeddings)
        ]
        self.repository.replace_wiki_chunks(page, self.branch, chunks, "check")
        return page

    def write(self, statement: str, parameters: tuple[Any, ...]) -> None:
        """Runs a statement in a transaction of its own."""
        with self.db.transaction() as cursor:
            cursor.execute(statement, parameters)

    def rows(self, statement: str, *parameters: Any) -> Sequence[Any]:
        """All rows of a statement, read outside a transaction."""
        return self.db.fetchall(statement, parameters)

    def count(self, table: str) -> int:
        """How many rows of a table the scratch branch has."""
        rows = self.rows(f"SELECT count(*) FROM {table} WHERE branch = ?", self.branch)
        return list(rows)[0][0]

    def clear(self) -> None:
        """Deletes the scratch branch's rows, with statements that rely on no key or cascade."""
        with self.db.transaction() as cursor:
            for table in _TABLES:
                cursor.execute(f"DELETE FROM {table} WHERE branch = ?", (self.branch,))
        self.repository.invalidate_wiki_chunk_index()

    def left_behind(self) -> dict[str, int]:
        """Rows of the scratch branch that are still there, by table."""
        return {table: count for table in _TABLES if (count := self.count(table))}
