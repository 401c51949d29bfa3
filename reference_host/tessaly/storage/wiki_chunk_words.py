"""Search of a branch's chunks: by words (BM25), and by words and meaning together."""

from __future__ import annotations

import sqlite3
import threading
import weakref
from collections.abc import Iterable, Iterator, Sequence
from dataclasses import dataclass
from typing import Any

from tessaly.storage.vector_index import EmbeddingIndex

# Reciprocal rank fusion (Cormack, Clarke and Buettcher, SIGIR 2009): a hit's score is the sum of
# 1 / (k + rank) over the rankings that found it; k damps the lead of the first few.
_FUSION_K = 60

# From this many chunks on, words that nearly every chunk holds are worth leaving out of a search.
_MANY_CHUNKS = 1000


class ChunkWords:
    """A word index over chunk headings and texts, in memory; made by ``build``.

    Safe to use from several threads, which search in turns.
    """

    def __init__(self, connection: sqlite3.Connection | None) -> None:
        self._connection = connection
        self._common: frozenset[str] = frozenset()
        self._lock = threading.Lock()

    @classmethod
    def build(cls, items: Iterable[tuple[int, str | None, str]]) -> ChunkWords:
        """Index ``(chunk id, heading, text)`` triples, read once and one at a time.

        Where SQLite has no FTS5 the result ranks nothing.
        """
        connection = sqlite3.connect(":memory:", isolation_level=None, check_same_thread=False)
        words = cls(connection)
        weakref.finalize(words, connection.close)
        if not has_fts5(connection):
            words.close()
            return words
        connection.execute("PRAGMA journal_mode = OFF")
        # Contentless: the chunks' texts are kept by their users, not here once more.
        connection.execute(
            "CREATE VIRTUAL TABLE wiki_chunk_words USING fts5(heading, text, content='')"
        )
        connection.execute(
            "INSERT INTO wiki_chunk_words (wiki_chunk_words, rank) VALUES ('hashsize', 16777216)"
        )
        connection.execute("BEGIN")
        connection.executemany(
            "INSERT INTO wiki_chunk_words (rowid, heading, text) VALUES (?, ?, ?)", _storable(items)
        )
        connection.execute("COMMIT")
        words._common = _common_words(connection)
        return words

    def best(self, terms: Sequence[str], top_k: int) -> list[int] | None:
        """The ids of the ``top_k`` best chunks that hold any of the terms, best first.

        Each term is a word (or a phrase, such as ``a_b``, whose words then stand side by side),
        whatever characters it holds. None when there is nothing to rank by: no term holds a word,
        or there is no FTS5.

        Raises:
            TypeError: A term is no string.
        """
        phrases = _phrases(terms)
        if not phrases or self._connection is None:
            return None
        # A word that most chunks hold has no weight in BM25 (it could only settle ties), but going
        # through all those chunks takes time: it is left to searches that find too little without.
        telling = [phrase for word, phrase in phrases.items() if word not in self._common]
        if len(telling) < len(phrases):
            found = self._search(telling, top_k)
            if len(found) == top_k:
                return found
        return self._search(list(phrases.values()), top_k)

    def _search(self, phrases: list[str], top_k: int) -> list[int]:
        with self._lock:
            if not phrases or self._connection is None:
                return []
            rows = self._connection.execute(
                "SELECT rowid FROM wiki_chunk_words WHERE wiki_chunk_words MATCH ?"
                " ORDER BY rank, rowid LIMIT ?",
                (" OR ".join(phrases), top_k),
            ).fetchall()
        return [row[0] for row in rows]

    def close(self) -> None:
        """Give the memory back; afterwards nothing is ranked."""
        with self._lock:
            connection, self._connection = self._connection, None
            if connection is not None:
                connection.close()


@dataclass(slots=True, kw_only=True, eq=False)
class WikiChunkIndex:
    """One branch's chunks as they were loaded at an index generation.

    ``chunks`` maps the chunk id to page row id, heading, text and the stored citations.
    """

    generation: Any
    dimension: int
    index: EmbeddingIndex
    chunks: dict[int, tuple[int, str | None, str, str | None]]
    words: ChunkWords

    def ranked(
        self, query_embedding: Sequence[float], top_k: int, terms: Sequence[str]
    ) -> list[tuple[int, float, float | None]]:
        """At most ``top_k`` hits ``(chunk id, similarity, fused score)``, best first.

        Without terms the order is the cosine's and the fused score None. With terms the ``top_k``
        nearest and the ``top_k`` best by words are fused by reciprocal rank. Ties go by chunk id.
        A chunk whose embedding is not in the index has similarity 0.0.

        Raises:
            ValueError: The query's length is not ``dimension``.
        """
        top_k = min(top_k, len(self.chunks))
        if top_k <= 0:
            return []
        nearest = self.index.nearest(query_embedding, top_k)
        by_words = self.words.best(terms, top_k) if terms else None
        if by_words is None:
            return [(chunk_id, similarity, None) for chunk_id, similarity in nearest]
        similarities = dict(nearest)
        fused: dict[int, float] = {}
        for ranking in (similarities, by_words):
            for rank, chunk_id in enumerate(ranking, 1):
                fused[chunk_id] = fused.get(chunk_id, 0.0) + 1.0 / (_FUSION_K + rank)
        best = sorted(fused.items(), key=lambda hit: (-hit[1], hit[0]))[:top_k]
        others = [chunk_id for chunk_id, _score in best if chunk_id not in similarities]
        similarities.update(zip(others, self.index.similarities(query_embedding, others)))
        return [(chunk_id, similarities[chunk_id], score) for chunk_id, score in best]


def has_fts5(connection: sqlite3.Connection) -> bool:
    """Whether this SQLite was built with full-text search."""
    return connection.execute(
        "SELECT 1 FROM pragma_module_list WHERE name = 'fts5'"
    ).fetchone() is not None  # fmt: skip


def _storable(
    items: Iterable[tuple[int, str | None, str]],
) -> Iterator[tuple[int, str, str]]:
    for chunk_id, heading, text in items:
        yield chunk_id, _valid(heading or ""), _valid(text)


def _common_words(connection: sqlite3.Connection) -> frozenset[str]:
    """The words, as the tokenizer writes them, that more than half of many chunks hold."""
    # One row a chunk stands in the table of their sizes, which counts faster than the index.
    count = connection.execute("SELECT count(*) FROM wiki_chunk_words_docsize").fetchone()[0]
    if count < _MANY_CHUNKS:
        return frozenset()
    connection.execute("CREATE VIRTUAL TABLE vocabulary USING fts5vocab(wiki_chunk_words, row)")
    rows = connection.execute("SELECT term FROM vocabulary WHERE doc > ?", (count // 2,)).fetchall()
    connection.execute("DROP TABLE vocabulary")
    return frozenset(row[0] for row in rows)


def _phrases(terms: Sequence[str]) -> dict[str, str]:
    """Each term that holds a word, once, in lower case, with the quoted string to search for."""
    phrases: dict[str, str] = {}
    for term in terms:
        if not isinstance(term, str):
            raise TypeError(f"a term must be a string, not {type(term).__name__}")
        if any(map(str.isalnum, term)):
            # A quoted string is never syntax. FTS5 reads its query up to the first NUL.
            word = _valid(term).replace("\0", " ")
            phrases[word.lower()] = '"' + word.replace('"', '""') + '"'
    return phrases


def _valid(text: str) -> str:
    """The text with a question mark for each lone surrogate, which SQLite could not store."""
    return text if text.isascii() else text.encode("utf-8", "replace").decode("utf-8")
