"""Searches a built wiki by meaning and by words."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

from demo.embedder import Embedder
from demo.errors import UserError
from demo.hashed_features import search_terms, stem, word_parts
from demo.show import plural
from demo.wiki import Wiki

FUSED = 30  # hits asked of the store at least: the more of both rankings, the better they agree


@dataclass(frozen=True, slots=True)
class Hit:
    """One chunk found. ``score`` is the fused rank score; ``similarity`` the cosine, -1 to 1."""

    score: float
    similarity: float
    page: str
    title: str
    heading: str
    path: str
    start: int
    end: int
    text: str

    def excerpt(self, words: set[str], count: int) -> list[str]:
        """The ``count`` lines after one another that hold the most stems of ``words``."""
        lines = [line for line in self.text.split("\n") if line.strip()]
        weights = [_hits_of(line, words) for line in lines]
        starts = range(max(1, len(lines) - count + 1))
        best = max(starts, key=lambda start: (sum(weights[start : start + count]), -start))
        return lines[best : best + count]


class Searcher:
    """Asks one wiki; the first question loads the branch's chunk index, the next ones reuse it."""

    def __init__(self, wiki: Wiki, embedder: Embedder) -> None:
        """UserError when the wiki is empty or its embeddings are not of this embedder."""
        self._wiki = wiki
        self._embedder = embedder
        explain_mismatch(wiki, embedder)
        self._built = self._state()

    def ask(self, question: str, top_k: int) -> list[Hit]:
        """The best chunks, best first; a build since the last question is noticed."""
        if self._state() != self._built:
            explain_mismatch(self._wiki, self._embedder)
            self._wiki.repository.invalidate_wiki_chunk_index()
            self._built = self._state()
        (vector,) = self._embedder.embed([question])
        terms = search_terms(question)
        if not terms and not any(vector):
            return []
        records = self._wiki.repository.search_wiki_chunks(
            vector, self._wiki.branch, max(top_k, FUSED), terms=terms
        )
        return [_hit(record) for record in records[:top_k]]

    def note(self) -> str | None:
        """What the user should know of the answers: None, or that files are still missing."""
        if self._built is None or self._built["last_built_at"] is not None:
            return None
        missing = plural(self._built["changed_since_build"], "file")
        return f"the first build was stopped; up to {missing} may be missing"

    def _state(self) -> dict[str, Any] | None:
        return self._wiki.repository.get_wiki_state(self._wiki.branch)


def explain_mismatch(wiki: Wiki, embedder: Embedder) -> None:
    """UserError that says why no question can be answered; nothing when one can."""
    problem = mismatch(wiki, embedder)
    if problem is not None:
        raise UserError(problem)


def mismatch(wiki: Wiki, embedder: Embedder) -> str | None:
    """Why the wiki's embeddings do not fit the embedder; None when they do."""
    dimension = wiki.repository.wiki_chunk_dimension(wiki.branch)
    if dimension is None:
        return f"the wiki of branch '{wiki.branch}' has no chunks yet: finish it with 'build'"
    state = wiki.repository.get_wiki_state(wiki.branch) or {}
    model = state.get("model")
    if model == embedder.model and dimension == embedder.dimension:
        return None
    if model is None:
        return (
            f"the embeddings of branch '{wiki.branch}' are half replaced, the last build was"
            " stopped: finish it with 'build'"
        )
    if dimension != embedder.dimension:
        what = f"{dimension} numbers a chunk, embedder '{embedder.name}' gives {embedder.dimension}"
    else:
        what = f"vectors that embedder '{embedder.name}' cannot be compared with"
    return (
        f"branch '{wiki.branch}' was built with '{model.rpartition('/')[0]}': {what};"
        " search with its --embedder, or 'build' again with this one"
    )


def stems(text: str) -> set[str]:
    """Stems of the words of a text, identifiers split."""
    return {stem(part) for word in search_terms(text) for part in word_parts(word)}


def _hits_of(line: str, words: set[str]) -> int:
    return len(words & stems(line))


def _hit(record: dict[str, Any]) -> Hit:
    citation = next(iter(record["citations"]), {})
    return Hit(
        score=record.get("score", record["similarity"]),
        similarity=record["similarity"],
        page=record["page_id"],
        title=record["title"],
        heading=record["heading"] or "",
        path=citation.get("path", record["rel_path"]),
        start=citation.get("start", 0),
        end=citation.get("end", 0),
        text=record["content"].partition("\n")[2],
    )
