"""The reference host's search: codec, cosine index, word index and their fusion."""

import functools
import itertools
import random
import sqlite3
import struct
import sys
import unittest
from array import array
from collections.abc import Iterable
from concurrent.futures import ThreadPoolExecutor
from math import hypot, inf, nan, sumprod
from typing import Any
from unittest import mock

from tessaly.storage.vector_codec import stored_vectors
from tessaly.storage.vector_index import EmbeddingIndex
from tessaly.storage.wiki_chunk_words import ChunkWords, WikiChunkIndex

TOLERANCE = 1e-6
SEED = random.randrange(2**32)  # of every random test; a failure prints it
ORDER = "SELECT rowid FROM plain WHERE plain MATCH ? ORDER BY rank, rowid LIMIT ?"


def index_of(vectors: Iterable[Any], dimension: int) -> EmbeddingIndex:
    index = EmbeddingIndex(dimension)
    index.load(vectors)
    return index


class HostSearch(unittest.TestCase):
    codec = stored_vectors(None)  # all databases share one form

    def test_every_kind_of_vector_is_stored_as_little_endian_floats(self) -> None:
        blob = struct.pack("<3f", *(numbers := [1.0, -2.5, 0.1]))
        strided = memoryview(array("d", [1.0, 9.0, -2.5, 9.0, 0.1, 9.0]))[::2]
        for vector in (numbers, tuple(numbers), array("f", numbers), array("d", numbers), strided):
            self.assertEqual(self.codec.encode(vector), blob)
        self.assertEqual(list(self.codec.decode(blob)), list(struct.unpack("<3f", blob)))
        mixed = [0.5, 2, True, 3.4028234e38, 1e-45, memoryview(b"7")[0]]
        self.assertEqual(self.codec.encode(mixed), struct.pack("<6f", *mixed))
        self.assertEqual((self.codec.encode([]), len(self.codec.decode(b""))), (b"", 0))

    def test_what_is_no_vector_is_named(self) -> None:
        encode, decode, not_finite = self.codec.encode, self.codec.decode, [0.0] * 40 + [nan]
        for kind, words, call, *values in (
            (TypeError, "sequence of numbers: .*not", encode, ["x"], (1.0, None), "12", b"1234"),
            (TypeError, "sequence of numbers: .*not", encode, {1.0: 2.0}, (x for x in (1.0,))),
            (ValueError, "finite", encode, [1e39, -1e39], not_finite, array("f", not_finite)),
            (ValueError, "too large", encode, [10**400]),
            (ValueError, "5 bytes", decode, b"12345"),
            (ValueError, "a BLOB, not NoneType", decode, None),
        ):
            for value in values:
                self.assertRaisesRegex(kind, words, call, value)

    def test_ranks_as_plain_python_does(self) -> None:
        rng = random.Random(SEED)
        # Lengths around the widths of the vector loops, and numbers around the block of the scan.
        for dimension, count in ((1, 5), (3, 127), (17, 129), (64, 300), (131, 40), (0, 3)):
            scale, sizes = 10.0 ** rng.randrange(-30, 30), [dimension] * count
            vectors = [array("f", (rng.gauss(0, scale) for _ in range(n))) for n in sizes]
            index = index_of([(7 * i - 20, vector) for i, vector in enumerate(vectors)], dimension)
            query = [rng.gauss(0, 1) for _ in range(dimension)]
            hits = index.nearest(query, 10**30)
            with self.subTest(seed=SEED, dimension=dimension):
                self.assertEqual(hits, sorted(hits, key=lambda hit: (-hit[1], hit[0])))
                self.assertEqual(sorted(i for i, _ in hits), [7 * i - 20 for i in range(count)])
                for chunk_id, similarity in hits:
                    vector = vectors[(chunk_id + 20) // 7]
                    exact = sumprod(vector, query) / (hypot(*vector) * hypot(*query) or 1.0)
                    self.assertAlmostEqual(similarity, exact, delta=TOLERANCE)
                    self.assertEqual(index.similarities(query, [chunk_id]), [similarity])
                for top_k in (-1, 0, 1, 20, count):
                    for same in (query, array("d", query), memoryview(array("d", query))):
                        self.assertEqual(index.nearest(same, top_k), hits[: max(0, top_k)])

    def test_ties_extremes_and_vectors_without_direction(self) -> None:
        tiny, infinite = array("f", [1e-45, 1e-45]), array("f", [inf, 1.0])
        vectors = {-5: [0.0, 0.0], 1: [3e38, 3e38], 2: tiny, 3: (1e300, 1e300)}
        index = index_of([*vectors.items(), (4, [nan, 1.0]), (5, infinite), (6, [-2, -2])], 2)
        hits = index.nearest([1e-200, 1e-200], 7)
        self.assertEqual([chunk_id for chunk_id, _ in hits], [1, 2, 3, -5, 4, 5, 6])
        for (_, found), exact in zip(hits, (1, 1, 1, 0, 0, 0, -1)):
            self.assertAlmostEqual(found, exact, delta=TOLERANCE)
        for vector in ([1 / (i + j) for j in range(1, 10)] for i in range(300)):
            pair = index_of([(1, vector), (2, [-x for x in vector])], 9)
            (_, same), (_, other) = pair.nearest(vector, 2)
            self.assertTrue(-1.0 <= other < -1 + TOLERANCE and 1 - TOLERANCE < same <= 1.0)
        self.assertEqual(index.nearest([nan, 1.0], 3), [(-5, 0.0), (1, 0.0), (2, 0.0)])
        self.assertEqual(index.similarities([1.0, 1.0], [0, 99, -5]), [0.0, 0.0, 0.0])
        for size in (1, 3):
            self.assertRaisesRegex(ValueError, f"{size} comp.* 2", index.nearest, [1] * size, 1)

    def test_other_lengths_are_left_out_with_one_warning(self) -> None:
        vectors = [(1, [1.0]), (2, [1.0, 0.0]), (3, array("f")), (4, array("d", [0.0, 0.0]))]
        with self.assertLogs("tessaly.storage.vector_index", "WARNING") as logs:
            index = index_of(vectors, 2)
        self.assertRegex("|".join(logs.output), "^[^|]*2 of 4 embeddings are not 2-dim[^|]*$")
        self.assertEqual([chunk_id for chunk_id, _ in index.nearest([1.0, 0.0], 9)], [2, 4])

    def test_a_load_that_fails_keeps_the_old_contents(self) -> None:
        number = mock.MagicMock(**{"__float__.side_effect": KeyboardInterrupt})
        buffer = type("B", (), {"__buffer__": mock.Mock(side_effect=ZeroDivisionError)})()
        index = index_of([(1, [1.0, 0.0])], 2)
        for kind, *loads in (
            (KeyboardInterrupt, [(2, [1.0, number])]),
            (ZeroDivisionError, [(2, buffer)]),
            (TypeError, [(2, ["x", 1.0])], [(2, {1.0, 2.0})], [("2", [1.0, 0.0])], [2], 5),
            (OverflowError, [(2**70, [1.0, 0.0])]),
            (ValueError, [(2, [1.0, 0.0]), (2, [1.0, 0.0])], [(2, [1.0, 0.0], 3)]),
        ):
            for vectors in loads:
                self.assertRaises(kind, index.load, vectors)
                self.assertEqual(index.nearest([1.0, 0.0], 9), [(1, 1.0)], vectors)
        self.assertRaises(ValueError, EmbeddingIndex, -1)
        self.assertRaises(MemoryError, EmbeddingIndex(sys.maxsize).load, [(1, [1.0])] * 8)

    def test_python_that_runs_during_a_load_may_change_what_is_read(self) -> None:
        def hostile() -> float:
            pairs.clear()
            embedding.clear()
            index.load([(9, [1.0, 1.0])])
            return 1.0

        index = EmbeddingIndex(2)
        embedding: list[Any] = [mock.MagicMock(**{"__float__.side_effect": hostile}), 0.0]
        pairs: list[Any] = [[1, embedding], [2, [0.0, 1.0]], (3, array("f", [1.0, 0.0]))]
        index.load(pairs)
        self.assertEqual([chunk_id for chunk_id, _ in index.nearest([1.0, 0.0], 9)], [1, 3, 2])

    def test_searches_go_on_while_other_threads_load(self) -> None:
        # The scan takes longer than the load that drops the matrix under it.
        vectors = [(i, array("f", [1.0] * 64)) for i in range(20000)]
        index, expected = index_of(vectors, 64), ([], [(i, 1.0) for i in range(30)])
        with ThreadPoolExecutor(1) as loader:
            for _ in range(40):
                loading = loader.submit(lambda: [index.load(some) for some in ([], vectors) * 4])
                while not loading.done():
                    self.assertIn(index.nearest([1.0] * 64, 30), expected)

    def test_terms_are_words_and_never_syntax(self) -> None:
        items = [(1, None, "alpha beta\0gamma a_snake_case"), (3, "star", "x" * 1_000_000)]
        items.insert(1, (2, "AND", "delta \ud800 epsilon café"))
        words = ChunkWords.build(iter(items))
        syntax = ["al*", "alpha OR delta", "heading:alpha", "alpha NOT beta", "NEAR(alpha beta)"]
        no_word = ["", '"', "*", "\0", "\ud800", "--", "\N{COMBINING ACUTE ACCENT}"]
        for expected, *searches in (
            ([1], ["alpha"], ["GAMMA", "gamma"], ["snake_case"], [*map(str, range(3000)), "alpha"]),
            ([2], ["AND"], ["cafe"], ["delta\udfff"]),
            ([1, 2, 3], ["alpha\0", '"delta"', ")", "^star"]),
            ([], ["case_snake"], ["sta*"], ['alpha" OR "delta'], syntax, ["y" * 1_000_000]),
            (None, no_word),
        ):
            for terms in searches:
                found = words.best(terms, 10)
                self.assertEqual(found and sorted(found), expected, ascii(terms)[:80])
        self.assertRaises(TypeError, words.best, [b"alpha"], 10)

    def test_order_is_that_of_fts5_over_all_terms(self) -> None:
        rng = random.Random(SEED)
        # "far" stands in long chunks only: it weighs less there than a common word in a short one.
        vocabulary = [*(f"word{i}" for i in range(400)), "a_b", "NOT"]
        weights = [1 / (i + 1) for i in range(len(vocabulary))]
        items = [(1, "word0", "rare other words"), (2, None, "rare word0 words")]
        for i in range(3, 1500):
            words = rng.choices(vocabulary, weights, k=rng.randrange(1, 40) if i % 60 else 2000)
            items.append((i, rng.choice(vocabulary), " ".join(words) + ("" if i % 60 else " far")))
        searches = [rng.choices(vocabulary, weights, k=rng.randrange(1, 9)) for _ in range(60)]
        searches += [["word0", "rare"], ["far", "word4"], ["far", "far", "word9"]]
        plain = sqlite3.connect(":memory:")
        self.addCleanup(plain.close)
        plain.execute("CREATE VIRTUAL TABLE plain USING fts5(heading, text)")
        plain.executemany("INSERT INTO plain (rowid, heading, text) VALUES (?, ?, ?)", items)
        index = ChunkWords.build(iter(items))
        for terms, top_k in itertools.product(searches, (1, 20, 10_000)):
            query = " OR ".join(f'"{term}"' for term in terms)
            expected = [row[0] for row in plain.execute(ORDER, (query, top_k))]
            self.assertEqual(index.best(terms, top_k), expected, (SEED, terms, top_k))

    def test_fused_by_reciprocal_rank_or_else_by_similarity(self) -> None:
        rng = random.Random(SEED)
        texts = {i: " ".join(rng.choices(["red", "green", "blue"], k=4)) for i in range(1, 80)}
        # Some chunks have no vector: only their words can find them.
        vectors = [(i, [rng.gauss(0, 1), rng.gauss(0, 1)]) for i in texts if rng.random() < 0.8]
        words = ChunkWords.build((i, None, text) for i, text in texts.items())
        embeddings, query, chunks = index_of(vectors, 2), [1.0, 0.5], dict.fromkeys(texts)
        make = functools.partial(WikiChunkIndex, generation=1, dimension=2, index=embeddings)
        index = make(chunks=chunks, words=words)
        for top_k in (1, 3, 20, 1000):
            nearest = embeddings.nearest(query, top_k)
            both = [i for i, _ in nearest], words.best(["red", "blue"], top_k)
            scores = {i: sum(1 / (61 + r.index(i)) for r in both if i in r) for i in sum(both, [])}
            order = sorted(scores, key=lambda i: (-scores[i], i))[:top_k]
            similarities = embeddings.similarities(query, order)
            expected = [(i, similarity, scores[i]) for i, similarity in zip(order, similarities)]
            self.assertEqual(index.ranked(query, top_k, ("red", "blue")), expected, (SEED, top_k))
            with mock.patch("tessaly.storage.wiki_chunk_words.has_fts5", return_value=False):
                wordless = make(chunks=chunks, words=ChunkWords.build(()))
            for case, terms in ((index, ()), (index, ["", "*"]), (wordless, ["red"])):
                expected = [(*hit, None) for hit in nearest]
                self.assertEqual(case.ranked(query, top_k, terms), expected)
        self.assertEqual(index.ranked(query, -1, ["red"]), [])
