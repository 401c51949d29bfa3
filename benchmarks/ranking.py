"""The ranking of the reference host, and how it grows with the number of chunks."""

from __future__ import annotations

import random
import time
from array import array
from collections.abc import Callable
from typing import Any

from benchmarks.timing import fastest, progress, readable
from tessaly.storage._vector_index import UnitMatrix
from tessaly.storage.vector_codec import stored_vectors
from tessaly.storage.vector_index import EmbeddingIndex
from tessaly.storage.wiki_chunk_words import ChunkWords, WikiChunkIndex

DIMENSION = 384
SIZES = (1_000, 10_000, 100_000)
WORD_CHUNKS = 20_000
NAMES = ["ranking growth", "word index"]


def _vectors(count: int) -> list[tuple[int, Any]]:
    """Embeddings as the codec decodes them."""
    rng = random.Random(count)
    pool = [rng.uniform(-1, 1) for _ in range(20_000)]
    codec = stored_vectors(None)  # type: ignore[arg-type]
    vectors = []
    for i in range(1, count + 1):
        start = rng.randrange(len(pool) - DIMENSION)
        vectors.append((i, codec.decode(array("f", pool[start : start + DIMENSION]).tobytes())))
    return vectors


def _growth(quick: bool) -> None:
    print(f"\nRanking the 20 nearest, {DIMENSION} dimensions")
    print(f"{'chunks':>8}{'load':>10}{'copy':>10}{'ratio':>7}{'rank':>10}{'sum':>10}{'ratio':>7}")
    for count in SIZES[:2] if quick else SIZES:
        progress(f"ranking {count} chunks")
        vectors = _vectors(count)
        index = EmbeddingIndex(DIMENSION)
        target = bytearray(4 * DIMENSION * count)
        seconds = 0.05 if quick else 1.0

        def copy() -> None:
            view = memoryview(target)
            for i, (_chunk_id, vector) in enumerate(vectors):
                view[4 * DIMENSION * i : 4 * DIMENSION * (i + 1)] = vector.cast("B")

        load = fastest(lambda: index.load(vectors), seconds)
        copied = fastest(copy, seconds)
        query = list(vectors[0][1])
        rank = fastest(lambda: index.nearest(query, 20), seconds)
        read = fastest(index.sum, seconds)
        progress("")
        print(
            f"{count:8}{readable(load):>10}{readable(copied):>10}{load / copied:7.2f}"
            f"{readable(rank):>10}{readable(read):>10}{rank / read:7.2f}"
        )
    print(f"{'at most':>28}{2.0:7.2f}{'1.50 at 100000':>27}")


def _words(quick: bool) -> None:
    count = 2_000 if quick else WORD_CHUNKS
    progress(f"word index over {count} chunks")
    rng = random.Random(7)
    vocabulary = [f"word{i}" for i in range(5_000)]
    weights = [1 / (i + 1) for i in range(len(vocabulary))]

    def text(words: int) -> str:
        return " ".join(rng.choices(vocabulary, weights, k=words))

    rows = [(i, text(4), text(80)) for i in range(1, count + 1)]
    start = time.perf_counter()
    words = ChunkWords.build(iter(rows))
    built = time.perf_counter() - start
    vectors = _vectors(count)
    index = EmbeddingIndex(DIMENSION)
    index.load(vectors)
    branch = WikiChunkIndex(
        generation=1,
        dimension=DIMENSION,
        index=index,
        chunks={i: (1, heading, text, None) for i, heading, text in rows},
        words=words,
    )
    query = list(vectors[0][1])
    terms = ["word3", "word40", "word700"]
    search = fastest(lambda: branch.ranked(query, 20, terms), 0.05 if quick else 1.0)
    progress("")
    print(f"\nWords and meaning fused, {count} chunks")
    print(f"build the word index {readable(built):>10}   (seconds, not minutes)")
    print(f"fused search of 20   {readable(search):>10}   (10 ms at most)")


def table(names: list[str], quick: bool) -> None:
    runs: dict[str, Callable[[bool], None]] = dict(zip(NAMES, (_growth, _words)))
    for name in names:
        runs[name](quick)
