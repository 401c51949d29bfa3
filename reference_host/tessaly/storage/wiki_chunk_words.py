"""Search of a branch's chunks: by words (BM25), and by words and meaning together."""

from __future__ import annotations

import math
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

_COUNT = "SELECT count(*) FROM wiki_chunk_words WHERE wiki_chunk_words MATCH ?"
_BEST = """
    SELECT rowid FROM wiki_chunk_words WHERE wiki_chunk_words MATCH ?
    ORDER BY rank, rowid LIMIT ?"""
# The unary plus keeps SQLite from looking the ids up one at a time.
_BEST_WITHIN = """
    SELECT rowid, bm25(wiki_chunk_words) AS score FROM wiki_chunk_words
    WHERE wiki_chunk_words MATCH ? AND +rowid IN (
        SELECT rowid FROM wiki_chunk_words WHERE wiki_chunk_words MATCH ?)
    ORDER BY score, rowid LIMIT ?"""

# From this many chunks on it pays to look how common the words of a search are.
_MANY_CHUNKS = 1000


class ChunkWords:
    """A word index over chunk headings and texts, in memory; made by ``build``.

    Safe to use from several threads, which search in turns.
    """

    def __init__(self, connection: sqlite3.Connection | None) -> None:
        self._connection = connection
        self._size = 0
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
        create_word_table(connection)
        connection.execute("BEGIN")
        words._size = connection.executemany(
            "INSERT INTO wiki_chunk_words (rowid, heading, text) VALUES (?, ?, ?)", _storable(items)
        ).rowcount
        connection.execute("COMMIT")
        return words

    def best(self, terms: Sequence[str], top_k: int) -> list[int] | None:
        """The ids of the ``top_k`` best chunks that hold any of the terms, best first.

        The order is FTS5's: ``bm25`` over all the terms, ties by id. Each term is a word (or a
        phrase, such as ``a_b``, whose words then stand side by side), whatever characters it holds.
        None when there is nothing to rank by: no term holds a word, or there is no FTS5.

        Raises:
            TypeError: A term is no string.
        """
        phrases = _phrases(terms)
        with self._lock:
            if not phrases or self._connection is None:
                return None
            if self._size >= _MANY_CHUNKS and top_k > 0:
                found = self._best_of_rarest(self._connection, phrases, top_k)
                if found is not None:
                    return found
            rows = self._connection.execute(_BEST, (" OR ".join(phrases), top_k)).fetchall()
            return [row[0] for row in rows]

    def _best_of_rarest(
        self, connection: sqlite3.Connection, phrases: list[str], top_k: int
    ) -> list[int] | None:
        """The best hits, or None where this way is slow or cannot tell them.

        To score a chunk takes ten times as long as to see that it holds a phrase. So only chunks
        with a rare phrase are scored, by all phrases, and the worst hit's score then shows whether
        a chunk without a rare one could have come before it.
        """
        hits = {text: connection.execute(_COUNT, (text,)).fetchone()[0] for text in phrases}
        rarest = sorted(filter(hits.get, phrases), key=hits.__getitem__)
        weights = [_weight(hits[text], self._size) for text in rarest]
        found = 0
        for i, text in enumerate(rarest[:-1], 1):
            found += hits[text]
            # A chunk without any of the i rarest phrases has less than this.
            limit = _MOST * sum(weights[i:])
            if found >= top_k and limit < weights[0]:
                break
        else:
            return None
        if 2 * found > sum(map(hits.__getitem__, rarest)):
            return None
        within = " OR ".join(rarest[:i])
        rows = connection.execute(_BEST_WITHIN, (" OR ".join(phrases), within, top_k)).fetchall()
        if len(rows) < top_k or -rows[-1][1] <= limit:
            return None
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
        by_words = self.words.best(terms, top_k) if terms else None
        if by_words is None:
            return self.index.nearest(query_embedding, top_k, None)
        similarities = dict(self.index.nearest(query_embedding, top_k))
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


def create_word_table(connection: sqlite3.Connection) -> None:
    """Create ``wiki_chunk_words`` in a new database in memory, with options for filling it once."""
    connection.execute("PRAGMA journal_mode = OFF")
    connection.execute("PRAGMA page_size = 16384")  # in smaller pages their headers tell
    # Contentless: the chunks' texts are kept by their users, not here once more.
    connection.execute(
        "CREATE VIRTUAL TABLE wiki_chunk_words USING fts5(heading, text, content='')"
    )
    # It is written in parts of three megabytes, merged when they are many: with smaller ones it
    # takes longer, larger ones leave a hole of their size in memory.
    for option in (("hashsize", 3 << 20), ("automerge", 0)):
        connection.execute(
            "INSERT INTO wiki_chunk_words (wiki_chunk_words, rank) VALUES (?, ?)", option
        )


def _storable(
    items: Iterable[tuple[int, str | None, str]],
) -> Iterator[tuple[int, str | None, str]]:
    for item in items:
        chunk_id, heading, text = item
        if (heading is None or heading.isascii()) and text.isascii():
            yield item
        else:
            yield chunk_id, _valid(heading or ""), _valid(text)


# By FTS5's BM25 a phrase adds its weight to the score of a chunk of mean length that has it once,
# and less than k1 + 1 times its weight to any (k1 = 1.2).
_MOST = 2.2


def _weight(hits: int, size: int) -> float:
    """The weight (inverse document frequency) of a phrase that ``hits`` of ``size`` chunks hold."""
    return max(math.log((size - hits + 0.5) / (hits + 0.5)), 1e-6)


def _phrases(terms: Sequence[str]) -> list[str]:
    """A quoted string to search for, of each term that holds a word."""
    phrases: list[str] = []
    for term in terms:
        if not isinstance(term, str):
            raise TypeError(f"a term must be a string, not {type(term).__name__}")
        if any(map(str.isalnum, term)):
            # A quoted string is never syntax. FTS5 reads its query up to the first NUL.
            phrases.append('"' + _valid(term).replace("\0", " ").replace('"', '""') + '"')
    return phrases


def _valid(text: str) -> str:
    """The text with a question mark for each lone surrogate, which SQLite could not store."""
    return text.encode("utf-8", "replace").decode("utf-8")
