"""Searches a built wiki by meaning and by words; what is found are files."""

import math
from collections import Counter
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


Hit = dict[str, Any]  # a file found: what ``search --json`` prints
_Found = tuple[float, dict[str, Any], list[str]]  # a chunk's weight, its record, words it holds


class Searcher:
    """Asks one wiki; the first question loads the branch's chunk index, the next ones reuse it."""

    def __init__(self, wiki: Wiki, embedder: Embedder) -> None:
        """UserError when the wiki is empty or its embeddings are not of this embedder."""
        self._wiki = wiki
        self._embedder = embedder
        self._look()

    def _look(self) -> None:
        branch, self._built = self._wiki.branch, self._wiki.state()
        self._pages: dict[str, tuple[list[set[str]], float]] = {}
        if self._wiki.repository.wiki_chunk_dimension(branch) is None:
            how = "is being built" if self._wiki.is_being_built else "is not finished ('build')"
            raise UserError(f"the wiki of branch '{branch}' {how} and has no chunks yet")
        model = self._built.get("model")
        if model != self._embedder.model:
            built = f"branch '{branch}' was built with '{model}', which cannot be compared with"
            advice = "leave --embedder out, or 'build' with it"
            raise UserError(f"{built} '{self._embedder.model}': {advice}")

    def note(self) -> str | None:
        """What the user should know of the answers: None, or that files are still missing."""
        if self._built["last_built_at"] is not None:
            return None
        how = "still building" if self._wiki.is_being_built else "the first build stopped"
        return f"{how}; up to {self._built['changed_since_build']:,} files may be missing"

    def ask(self, question: str, top_k: int) -> list[Hit]:
        """The best files, best first; a build since the last question is noticed."""
        repository = self._wiki.repository
        if self._wiki.state() != self._built:
            self._look()
            repository.invalidate_wiki_chunk_index()
        (vector,) = self._embedder.embed([question])
        terms = search_terms(question)
        if not terms and not any(vector):
            return []
        depth = max(DEPTH, 3 * top_k)
        records = repository.search_wiki_chunks(vector, self._wiki.branch, depth, terms=terms)
        rarity: dict[str, float] = {}
        if self._embedder.compares_words:
            chunks = _by_words(records, question, rarity)
        else:
            chunks = [(one.get("score", one["similarity"]), one, []) for one in records]
        files: dict[str, list[_Found]] = {}
        for found in chunks:
            files.setdefault(found[1]["page_id"], []).append(found)
        hits = [self._hit(page_id, found, rarity) for page_id, found in files.items()]
        return sorted(hits, key=lambda hit: -hit["score"])[:top_k]

    def _hit(self, page_id: str, chunks: list[_Found], rarity: dict[str, float]) -> Hit:
        """A file by its best chunks, and by the words in them, in its name and description."""
        chunks.sort(key=lambda chunk: -chunk[0])
        places, worth = self._page(page_id)
        places = [*places, {word for _weight, _record, words in chunks for word in words}]
        score = sum(part * weight for part, (weight, *_) in zip(PARTS, chunks))
        score += sum(rarity[word] * sum(word in place for place in places) for word in rarity)
        record = chunks[0][1]
        (citation,) = record["citations"]
        return {
            "score": round(score * worth, 4),
            "similarity": record["similarity"],
            "page": page_id,
            "title": record["title"],
            "heading": record["heading"],
            **citation,
            "text": record["content"].partition("\n")[2],
            "more": len(chunks) - 1,
        }

    def _page(self, page_id: str) -> tuple[list[set[str]], float]:
        """The stems of a page's path, description and symbols, and what its score is worth."""
        if page_id not in self._pages:
            page = self._wiki.repository.get_wiki_page(self._wiki.branch, page_id) or {}
            texts = (page_id, page.get("description", ""), " ".join(page.get("symbols", ())))
            worth = LOW if page.get("importance") == "low" else 1.0
            worth /= 1 + SIZE * math.log(1 + len(page.get("citations", ())))
            self._pages[page_id] = ([set(stems(text)) for text in texts], worth)
        return self._pages[page_id]


def _by_words(
    records: list[dict[str, Any]], question: str, rarity: dict[str, float]
) -> list[_Found]:
    """The chunks that share words with the question: by BM25 among them, and the store's order.

    Fills in how rare each word is.
    """
    texts = (f"{one['heading']} {one['heading']}\n{one['content']}" for one in records)
    counts = [Counter(stems(text)) for text in texts]
    for word in telling_stems(question):
        held = sum(word in count for count in counts)
        rarity[word] = math.log(1 + (len(counts) - held + 0.5) / (held + 0.5))
    mean = sum(count.total() for count in counts) / max(1, len(counts))
    found = []
    for rank, (record, count) in enumerate(zip(records, counts, strict=True), 1):
        damping = _K1 * (1 - _B + _B * count.total() / mean)
        words = [word for word in rarity if word in count]
        each = (rarity[word] * count[word] / (count[word] + damping) for word in words)
        if words:
            found.append(((_K1 + 1) * sum(each) + FUSED * 60 / (60 + rank), record, words))
    return found
