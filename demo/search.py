"""Searches a built wiki by meaning and by words; what is found are files."""

from __future__ import annotations

import math
from collections import Counter
from collections.abc import Iterator
from dataclasses import dataclass
from typing import Any

from demo.embedder import Embedder
from demo.errors import UserError
from demo.hashed_features import search_terms, stems, telling_stems
from demo.wiki import Wiki

DEPTH = 150  # chunks asked of the store
PARTS = (1.0, 0.5, 0.25)  # what the best, second and third chunk of a file count
LOW = 0.7  # what a page of low importance counts
SIZE = 0.15  # how far a page of many sections is held back: it has a word of everything
FUSED = 10.0  # weight of the store's own ranking beside the words: about that of two rare words
_K1, _B = 1.2, 0.5  # of BM25: how soon repeating a word counts no more; how far length counts


@dataclass(frozen=True, slots=True)
class Hit:
    """One file found, by its best chunk; ``more`` others of its chunks were found, too.

    ``similarity`` is the chunk's cosine, -1 to 1.
    """

    score: float
    similarity: float
    page: str
    title: str
    heading: str
    path: str
    start: int
    end: int
    text: str
    more: int

    def excerpt(self, words: set[str], count: int) -> list[str]:
        """The ``count`` lines after one another that hold the most stems of ``words``."""
        lines = [line for line in self.text.split("\n") if line.strip()]
        weights = [len(words.intersection(stems(line))) for line in lines]
        starts = range(max(1, len(lines) - count + 1))
        best = max(starts, key=lambda start: (sum(weights[start : start + count]), -start))
        return lines[best : best + count]


@dataclass(frozen=True, slots=True)
class _Found:
    """One chunk, and which of the question's words it holds."""

    weight: float
    record: dict[str, Any]
    rarity: dict[str, float]
    words: list[str]


class Searcher:
    """Asks one wiki; the first question loads the branch's chunk index, the next ones reuse it."""

    def __init__(self, wiki: Wiki, embedder: Embedder) -> None:
        """UserError when the wiki is empty or its embeddings are not of this embedder."""
        self._wiki = wiki
        self._embedder = embedder
        self._pages: dict[str, tuple[list[set[str]], float]] = {}
        explain_mismatch(wiki, embedder)
        self._built = wiki.state()

    def ask(self, question: str, top_k: int) -> list[Hit]:
        """The best files, best first; a build since the last question is noticed."""
        state = self._wiki.state()
        if state != self._built:
            explain_mismatch(self._wiki, self._embedder)
            self._wiki.repository.invalidate_wiki_chunk_index()
            self._built = state
            self._pages.clear()
        (vector,) = self._embedder.embed([question])
        terms = search_terms(question)
        if not terms and not any(vector):
            return []
        records = self._wiki.repository.search_wiki_chunks(
            vector, self._wiki.branch, max(DEPTH, 3 * top_k), terms=terms
        )
        weigh = self._by_words if self._embedder.compares_words else _by_store
        files: dict[str, list[_Found]] = {}
        for found in weigh(records, question):
            files.setdefault(found.record["page_id"], []).append(found)
        hits = [self._hit(page_id, chunks) for page_id, chunks in files.items()]
        return sorted(hits, key=lambda hit: -hit.score)[:top_k]

    def note(self) -> str | None:
        """What the user should know of the answers: None, or that files are still missing."""
        if not self._built or self._built["last_built_at"] is not None:
            return None
        how = "still building" if self._wiki.is_being_built else "the first build stopped"
        return f"{how}; up to {self._built['changed_since_build']:,} files may be missing"

    def _by_words(self, records: list[dict[str, Any]], question: str) -> Iterator[_Found]:
        """The chunks that share words with the question, by stem, weighted by BM25.

        How rare a word is shows from the chunks at hand; the store's order adds its part.
        """
        texts = (f"{one['heading']} {one['heading']}\n{one['content']}" for one in records)
        counts = [Counter(stems(text)) for text in texts]
        rarity = {}
        for word in telling_stems(question):
            held = sum(word in count for count in counts)
            rarity[word] = math.log(1 + (len(counts) - held + 0.5) / (held + 0.5))
        mean = sum(count.total() for count in counts) / max(1, len(counts))
        for rank, (record, count) in enumerate(zip(records, counts, strict=True), 1):
            damping = _K1 * (1 - _B + _B * count.total() / mean)
            words = [word for word in rarity if word in count]
            each = (rarity[word] * count[word] / (count[word] + damping) for word in words)
            weight = (_K1 + 1) * sum(each) + FUSED * 60 / (60 + rank)
            if words:
                yield _Found(weight, record, rarity, words)

    def _hit(self, page_id: str, chunks: list[_Found]) -> Hit:
        """A file by its best chunks, and by the words in them, in its name and description."""
        chunks.sort(key=lambda chunk: -chunk.weight)
        places, worth = self._page(page_id)
        places = [*places, set().union(*(chunk.words for chunk in chunks))]
        score = sum(part * chunk.weight for part, chunk in zip(PARTS, chunks))
        rarity = chunks[0].rarity.items()
        score += sum(rare * sum(word in place for place in places) for word, rare in rarity)
        record = chunks[0].record
        citation = next(iter(record["citations"]), {})
        return Hit(
            score=round(score * worth, 4),
            similarity=record["similarity"],
            page=page_id,
            title=record["title"],
            heading=record["heading"] or "",
            path=citation.get("path", record["rel_path"]),
            start=citation.get("start", 0),
            end=citation.get("end", 0),
            text=record["content"].partition("\n")[2],
            more=len(chunks) - 1,
        )

    def _page(self, page_id: str) -> tuple[list[set[str]], float]:
        """The stems of a page's path, description and symbols, and what its score is worth."""
        if page_id not in self._pages:
            page = self._wiki.repository.get_wiki_page(self._wiki.branch, page_id) or {}
            size = len(page.get("citations") or ())
            texts = (page_id, page.get("description") or "", " ".join(page.get("symbols") or ()))
            worth = LOW if page.get("importance") == "low" else 1.0
            places = [set(stems(text)) for text in texts]
            self._pages[page_id] = (places, worth / (1 + SIZE * math.log(1 + size)))
        return self._pages[page_id]


def _by_store(records: list[dict[str, Any]], _question: str) -> Iterator[_Found]:
    for record in records:
        yield _Found(record.get("score", record["similarity"]), record, {}, [])


def explain_mismatch(wiki: Wiki, embedder: Embedder) -> None:
    """UserError that says why no question can be answered; nothing when one can."""
    if wiki.repository.wiki_chunk_dimension(wiki.branch) is None:
        what = "is being built and" if wiki.is_being_built else "is not finished ('build') and"
        raise UserError(f"the wiki of branch '{wiki.branch}' {what} has no chunks yet")
    model = wiki.state().get("model")
    if model != embedder.model:
        built = f"branch '{wiki.branch}' was built with '{model}', which cannot be compared with"
        raise UserError(f"{built} '{embedder.model}': leave --embedder out, or 'build' with it")
