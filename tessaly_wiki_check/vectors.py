"""Embeddings: the codec, a branch's index, and the ranking of a search."""

from __future__ import annotations

import math
from collections.abc import Sequence
from typing import Any

from tessaly_wiki_check.checks import CheckList, expect
from tessaly_wiki_check.host import Host

VECTORS = CheckList()

# Cosines of stored embeddings may be off by this much: a codec may keep fewer bits.
_TOLERANCE = 0.02


@VECTORS.check(
    "the codec gives back what it stored",
    "Let stored_vectors(db).decode return, for what encode returned and the database kept, a"
    " sequence of as many floats in the same direction.",
)
def _codec(host: Host) -> None:
    host.page_with_chunks()
    dimension = host.repository.wiki_chunk_dimension(host.branch)
    expect(dimension == host.dimension, f"len() is {dimension!r} and not {host.dimension}")
    statement = "SELECT embedding FROM wiki_chunks WHERE branch = ? ORDER BY id"
    codec = host.codec()
    decoded = [codec.decode(row[0]) for row in host.rows(statement, host.branch)]
    cosines = [_cosine(vector, host.embedding(1, 0)) for vector in decoded]
    expect(_close(cosines, [1.0, math.sqrt(0.5), 0.0]), f"the directions changed: {decoded!r}")


@VECTORS.check(
    "index_generation stays equal while nothing replaces the index",
    "Let index_generation() return a stored value that only a wholesale replacement of the index"
    " changes, and that compares equal to itself when read again.",
)
def _generation(host: Host) -> None:
    before = host.db.index_generation()
    host.page_with_chunks()
    after = host.db.index_generation()
    expect(bool(before == after), f"storing a page moved it from {before!r} to {after!r}")


@VECTORS.check(
    "a branch's index is built, carries its fields and is kept",
    "Let WikiChunkIndex take generation, dimension, index, chunks and words by keyword and keep"
    " them as attributes, and let instances of the repository's class have a __dict__.",
)
def _index(host: Host) -> None:
    page = host.page_with_chunks()
    index = host.repository._wiki_chunk_index(host.branch)
    seen = (index.dimension, index.generation == host.db.index_generation())
    expect(seen == (host.dimension, True), "dimension or generation is not what was given")
    chunks = [(fk, heading, text) for fk, heading, text, _ in index.chunks.values()]
    expect(chunks[:1] == [(page, "alpha", "alpha walks home")], f"chunks reads {chunks!r}")
    again = host.repository._wiki_chunk_index(host.branch)
    expect(again is index, "it was built again though nothing changed")


@VECTORS.check(
    "ranked orders by cosine when there are no terms",
    "Let ranked(query, top_k, terms) return a list of (chunk id, cosine, None), nearest first, at"
    " most top_k of them, when terms is empty.",
)
def _by_meaning(host: Host) -> None:
    host.page_with_chunks()
    for top_k in (1, 2, 20):
        hits = _hits(host, top_k, ())
        expected = [("alpha", 1.0), ("bravo", math.sqrt(0.5)), ("charlie", 0.0)][:top_k]
        names = [name for name, _ in expected]
        expect([hit[0] for hit in hits] == names, f"top_k={top_k} gave {hits!r}, not {names!r}")
        cosines = [hit[1] for hit in hits]
        expect(
            _close(cosines, [cosine for _, cosine in expected]), f"the cosines read {cosines!r}"
        )
        expect(all(hit[2] is None for hit in hits), f"a fused score is not None: {hits!r}")


@VECTORS.check(
    "ranked fuses meaning and words when there are terms",
    "Let ranked return a fused score (a float) with every hit when terms are given, the highest"
    " first, and the cosine also of a chunk that only the words found; without FTS5, None.",
)
def _by_words(host: Host) -> None:
    host.page_with_chunks()
    hits = _hits(host, 2, ("charlie",))
    scores = [hit[2] for hit in hits]
    if all(score is None for score in scores) and not has_fts5(host):
        return
    expect(all(type(score) is float for score in scores), f"the fused scores read {scores!r}")
    expect(scores == sorted(scores, reverse=True), f"the order is not theirs: {scores!r}")
    cosines = {hit[0]: hit[1] for hit in hits}
    expect("charlie" in cosines, f"the only chunk with the word is not among the hits: {hits!r}")
    expect(len(hits) <= 2, f"top_k=2 gave {len(hits)} hits")
    expect(_close([cosines["charlie"]], [0.0]), f"its cosine reads {cosines['charlie']!r}")


@VECTORS.check(
    "ranked takes any words",
    "Quote each term for FTS5, so that none of its characters is query syntax.",
)
def _any_words(host: Host) -> None:
    host.page_with_chunks()
    for terms in (['"'], ["AND", "NOT"], ["a*", "(b", "c:d"], [""], ["\u00fc\u4e2d"]):
        _hits(host, 3, terms)


@VECTORS.check(
    "a search gives records",
    "Mend what the checks above name; a search puts these pieces together.",
)
def _search(host: Host) -> None:
    host.page_with_chunks()
    found = host.repository.search_wiki_chunks(host.embedding(3, 0), host.branch, 2)
    contents = [record["content"] for record in found]
    expect(contents == ["alpha walks home", "bravo sleeps late"], f"it found {contents!r}")
    expect(found[0]["page_id"] == "page", f"the page is {found[0]['page_id']!r}")


def has_fts5(host: Host) -> bool:
    """Whether the host's SQLite has full-text search."""
    return bool(host.rows("SELECT 1 FROM pragma_module_list WHERE name = ?", "fts5"))


def _hits(host: Host, top_k: int, terms: Sequence[str]) -> list[tuple[Any, Any, Any]]:
    """What ranked gives for a query along the first axis, with the heading for the chunk id."""
    index = host.repository._wiki_chunk_index(host.branch)
    ranked = index.ranked(host.embedding(3, 0), top_k, terms)
    expect(isinstance(ranked, list), f"ranked gave a {type(ranked).__name__}, which is no list")
    hits = []
    for hit in ranked:
        expect(len(hit) == 3, f"a hit has not three items: {hit!r}")
        expect(hit[0] in index.chunks, f"{hit[0]!r} is no key of chunks")
        expect(isinstance(hit[1], float), f"a similarity is {hit[1]!r}, which is no float")
        hits.append((index.chunks[hit[0]][1], hit[1], hit[2]))
    return hits


def _cosine(one: Sequence[float], other: Sequence[float]) -> float:
    return sum(x * y for x, y in zip(one, other)) / (math.hypot(*one) * math.hypot(*other) or 1.0)


def _close(found: Sequence[float], expected: Sequence[float]) -> bool:
    return len(found) == len(expected) and all(
        abs(x - y) <= _TOLERANCE for x, y in zip(found, expected)
    )
