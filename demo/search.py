"""Searches a built wiki by meaning and by words; what is found are files."""

from __future__ import annotations

import math
from collections import Counter
from dataclasses import dataclass
from typing import Any

from demo.embedder import Embedder
from demo.errors import UserError
from demo.hashed_features import search_terms, stems, telling_stems
from demo.wiki import Wiki

DEPTH = 100  # chunks asked of the store
PARTS = (1.0, 0.5, 0.25)  # what the best, second and third chunk of a file count
LOW = 0.7  # what a page of low importance counts
FUSED = 8.0  # weight of the store's own ranking beside the words: about that of one rare word
SYMBOLS = 0.5  # weight of a word in the names that a file defines; in its path it counts 1
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


class Searcher:
    """Asks one wiki; the first question loads the branch's chunk index, the next ones reuse it."""

    def __init__(self, wiki: Wiki, embedder: Embedder) -> None:
        """UserError when the wiki is empty or its embeddings are not of this embedder."""
        self._wiki = wiki
        self._embedder = embedder
        self._pages: dict[str, dict[str, Any]] = {}
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
        files: dict[str, list[tuple[float, dict[str, Any]]]] = {}
        rank = self._by_words if self._embedder.compares_words else self._by_store
        weights = rank(records, question)
        for record, weight in zip(records, weights, strict=True):
            if weight:
                files.setdefault(record["page_id"], []).append((weight, record))
        hits = [self._hit(page_id, chunks, question) for page_id, chunks in files.items()]
        return sorted(hits, key=lambda hit: -hit.score)[:top_k]

    def note(self) -> str | None:
        """What the user should know of the answers: None, or that files are still missing."""
        if not self._built or self._built["last_built_at"] is not None:
            return None
        how = "is still being built" if self._wiki.is_being_built else "was stopped"
        missing = self._built["changed_since_build"]
        return f"the first build {how}; up to {missing:,} files may be missing"

    def _by_store(self, records: list[dict[str, Any]], _question: str) -> list[float]:
        return [record.get("score", record["similarity"]) for record in records]

    def _by_words(self, records: list[dict[str, Any]], question: str) -> list[float]:
        """Weights by the words shared with the question, by stem (BM25); 0 where none is.

        How rare a word is shows from the chunks at hand; the store's order adds its part.
        """
        counts = [Counter(stems(f"{one['heading']}\n{one['heading']}\n{one['content']}"))
                  for one in records]  # fmt: skip
        self._rarity = {}
        for word in telling_stems(question):
            held = sum(word in count for count in counts)
            self._rarity[word] = math.log(1 + (len(counts) - held + 0.5) / (held + 0.5))
        mean = sum(count.total() for count in counts) / max(1, len(counts))
        weights = []
        for rank, count in enumerate(counts, 1):
            damping = _K1 * (1 - _B + _B * count.total() / mean)
            found = sum(
                rarity * count[word] * (_K1 + 1) / (count[word] + damping)
                for word, rarity in self._rarity.items()
            )
            weights.append(found and found + FUSED * 60 / (60 + rank))
        return weights

    def _hit(
        self, page_id: str, chunks: list[tuple[float, dict[str, Any]]], question: str
    ) -> Hit:
        """A file by its chunks' weights, and by what it is called and says of itself."""
        page = self._pages.get(page_id)
        if page is None:
            page = self._wiki.repository.get_wiki_page(self._wiki.branch, page_id) or {}
            page = self._pages[page_id] = {
                "low": page.get("importance") == "low",
                "path": set(stems(page_id)),
                "description": set(stems(page.get("description") or "")),
                "symbols": set(stems(" ".join(page.get("symbols") or ()))),
            }
        chunks = sorted(chunks, key=lambda chunk: -chunk[0])
        score = sum(part * chunk[0] for part, chunk in zip(PARTS, chunks))
        if self._embedder.compares_words:
            for word, rarity in self._rarity.items():
                score += rarity * (word in page["path"]) + rarity * (word in page["description"])
                score += SYMBOLS * rarity * (word in page["symbols"])
        record = chunks[0][1]
        citation = next(iter(record["citations"]), {})
        return Hit(
            score=round(score * (LOW if page["low"] else 1), 4),
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


def explain_mismatch(wiki: Wiki, embedder: Embedder) -> None:
    """UserError that says why no question can be answered; nothing when one can."""
    if wiki.repository.wiki_chunk_dimension(wiki.branch) is None:
        what = "is being built and" if wiki.is_being_built else "is not finished ('build') and"
        raise UserError(f"the wiki of branch '{wiki.branch}' {what} has no chunks yet")
    model = wiki.state().get("model")
    if model != embedder.model:
        raise UserError(
            f"branch '{wiki.branch}' was built with '{model}', which '{embedder.model}' cannot be"
            " compared with: leave --embedder out, or 'build' with it first"
        )
