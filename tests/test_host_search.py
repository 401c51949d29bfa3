"""The reference host's search: codec, cosine index, word index and their fusion."""

from __future__ import annotations

import contextlib
import gc
import math
import random
import sqlite3
import struct
import sys
import unittest
from array import array
from collections.abc import Iterable
from concurrent.futures import ThreadPoolExecutor
from typing import Any
from unittest import mock

from tessaly.storage import wiki_chunk_words
from tessaly.storage.vector_codec import stored_vectors
from tessaly.storage.vector_index import EmbeddingIndex
from tessaly.storage.wiki_chunk_words import ChunkWords, WikiChunkIndex

TOLERANCE = 1e-6
INSERT = "INSERT INTO plain (rowid, heading, text) VALUES (?, ?, ?)"
ORDER = "SELECT rowid FROM plain WHERE plain MATCH ? ORDER BY rank, rowid LIMIT ?"
SEED = random.randrange(2**32)  # of every random test; a failure prints it


def index_of(vectors: Iterable[Any], dimension: int) -> EmbeddingIndex:
    index = EmbeddingIndex(dimension)
    index.load(vectors)
    return index


def cosine(a: Any, b: Any) -> float:
    lengths = math.hypot(*a) * math.hypot(*b)
    return sum(map(float.__mul__, map(float, a), map(float, b))) / lengths if lengths else 0.0


class Codec(unittest.TestCase):
    codec = stored_vectors(None)  # all databases share one form

    def test_every_kind_of_vector_is_stored_as_little_endian_floats(self) -> None:
        numbers = [1.0, -2.5, 0.1]
        blob = struct.pack("<3f", *numbers)
        strided = memoryview(array("f", [1.0, 9.0, -2.5, 9.0, 0.1, 9.0]))[::2]
        for vector in (numbers, tuple(numbers), array("f", numbers), array("d", numbers), strided):
            self.assertEqual(self.codec.encode(vector), blob)
        self.assertEqual(list(self.codec.decode(blob)), list(struct.unpack("<3f", blob)))
        self.assertEqual(self.codec.encode([2, True]), struct.pack("<2f", 2, 1))
        self.assertEqual((self.codec.encode([]), len(self.codec.decode(b""))), (b"", 0))

    def test_what_is_no_vector_is_named(self) -> None:
        encode, decode = self.codec.encode, self.codec.decode
        for value in (["x"], "12", b"1234", {1.0: 2.0}, (x for x in (1.0,))):
            self.assertRaisesRegex(TypeError, "is a sequence of numbers: .*not", encode, value)
        for call, value, words in (
            (encode, [10**400], "too large"),
            (encode, [1e39, -1e39], "finite"),
            (encode, [0.0, math.nan], "finite"),
            (decode, b"12345", "5 bytes"),
            (decode, None, "a BLOB, not NoneType"),
        ):
            self.assertRaisesRegex(ValueError, words, call, value)


class Cosine(unittest.TestCase):
    def test_ranks_as_plain_python_does(self) -> None:
        rng = random.Random(SEED)
        # Lengths around the widths of the vector loops, and numbers around the block of the scan.
        for dimension, count in ((1, 5), (3, 127), (17, 129), (64, 300), (131, 40), (0, 3)):
            with self.subTest(seed=SEED, dimension=dimension):
                scale = 10.0 ** rng.randrange(-30, 30)
                vectors = {
                    7 * i - 20: array("f", (rng.gauss(0, scale) for _ in range(dimension)))
                    for i in range(count)
                }
                index = index_of(vectors.items(), dimension)
                query = [rng.gauss(0, 1) for _ in range(dimension)]
                expected = {chunk_id: cosine(v, query) for chunk_id, v in vectors.items()}
                for top_k in (1, 20, count, 10**30):
                    hits = index.nearest(query, top_k)
                    self.assertEqual(len(hits), min(top_k, count))
                    self.assertEqual(hits, sorted(hits, key=lambda hit: (-hit[1], hit[0])))
                    for chunk_id, similarity in hits:
                        self.assertAlmostEqual(similarity, expected[chunk_id], delta=TOLERANCE)
                    missed = [expected[i] for i in expected.keys() - dict(hits).keys()]
                    self.assertLessEqual(max(missed, default=-1), hits[-1][1] + 2 * TOLERANCE)
                ids, similarities = zip(*hits)
                self.assertEqual(index.similarities(query, ids), list(similarities))
                self.assertEqual((index.nearest(query, 0), index.nearest(query, -1)), ([], []))

    def test_ties_extremes_and_vectors_without_direction(self) -> None:
        tiny, infinite = array("f", [1e-45, 1e-45]), array("f", [math.inf, 1.0])
        vectors = {-5: [0.0, 0.0], 1: [3e38, 3e38], 2: tiny, 3: (1e300, 1e300)}
        vectors |= {4: [math.nan, 1.0], 5: infinite, 6: [-2, -2]}
        index = index_of(vectors.items(), 2)
        hits = index.nearest([1e-200, 1e-200], 7)
        self.assertEqual([chunk_id for chunk_id, _ in hits], [1, 2, 3, -5, 4, 5, 6])
        for (_, found), exact in zip(hits, (1, 1, 1, 0, 0, 0, -1)):
            self.assertAlmostEqual(found, exact, delta=TOLERANCE)
        rng = random.Random(1)
        for _ in range(300):
            vector = [rng.gauss(0, 1) for _ in range(9)]
            pair = index_of([(1, vector), (2, [-x for x in vector])], 9)
            (_, same), (_, opposite) = pair.nearest(vector, 2)
            self.assertTrue(-1.0 <= opposite < -1 + TOLERANCE and 1 - TOLERANCE < same <= 1.0)
        self.assertEqual(index.nearest([math.nan, 1.0], 3), [(-5, 0.0), (1, 0.0), (2, 0.0)])
        self.assertEqual(index.similarities([1.0, 1.0], [0, 99, -5]), [0.0, 0.0, 0.0])
        self.assertRaisesRegex(ValueError, "3 components, the index 2", index.nearest, [1] * 3, 1)

    def test_other_lengths_are_left_out_with_one_warning(self) -> None:
        zero = memoryview(bytes(8)).cast("f")
        vectors = [(1, [1.0]), (2, [1.0, 0.0]), (3, array("f")), (4, zero)]
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
        class Hostile:
            def __float__(self) -> float:
                pairs.clear()
                embedding.clear()
                index.load([(9, [1.0, 1.0])])
                gc.collect()
                return 1.0

        index = EmbeddingIndex(2)
        embedding: list[Any] = [Hostile(), 0.0]
        pairs: list[Any] = [[1, embedding], [2, [0.0, 1.0]], (3, array("f", [1.0, 0.0]))]
        index.load(pairs)
        self.assertEqual([chunk_id for chunk_id, _ in index.nearest([1.0, 0.0], 9)], [1, 3, 2])

    def test_searches_go_on_while_other_threads_load(self) -> None:
        # The scan takes longer than the load that drops the matrix under it.
        vectors = [(i, array("f", [1.0] * 64)) for i in range(20000)]
        index = index_of(vectors, 64)
        with ThreadPoolExecutor(1) as loader:
            for _ in range(40):
                loading = loader.submit(lambda: [index.load(some) for some in ([], vectors) * 4])
                while not loading.done():
                    hits = index.nearest([1.0] * 64, 30)
                    self.assertIn(hits, ([], [(i, 1.0) for i in range(30)]))


class Words(unittest.TestCase):
    def test_terms_are_words_and_never_syntax(self) -> None:
        items = [
            (1, None, "alpha beta\0gamma a_snake_case"),
            (2, "AND", "delta \ud800 epsilon café"),
            (3, "star", "x" * 1_000_000),
        ]
        words = ChunkWords.build(iter(items))
        syntax = ["al*", "alpha OR delta", "heading:alpha", "alpha NOT beta", "NEAR(alpha beta)"]
        no_word = ["", '"', "*", "\0", "\ud800", "--", "\N{COMBINING ACUTE ACCENT}"]
        many = [*(f"none{i}" for i in range(3000)), "alpha"]
        for expected, *searches in (
            ([1], ["alpha"], ["GAMMA", "gamma"], ["snake_case"], many),
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
        # Words that nearly every chunk holds, rare ones, and some that only long chunks hold, where
        # they weigh less than a common word does in a short one.
        vocabulary = [*(f"word{i}" for i in range(400)), "a_b", "NOT"]
        weights = [1 / (i + 1) for i in range(len(vocabulary))]
        items = [(1, "word0", "rare other words"), (2, None, "rare word0 words")]
        for chunk_id in range(3, 1500):
            far = chunk_id % 60 == 0
            words = rng.choices(vocabulary, weights, k=2000 if far else rng.randrange(1, 40))
            items.append((chunk_id, rng.choice(vocabulary), " ".join(words + ["far"] * far)))
        plain = self.enterContext(contextlib.closing(sqlite3.connect(":memory:")))
        plain.execute("CREATE VIRTUAL TABLE plain USING fts5(heading, text)")
        for count in (500, len(items)):
            plain.execute("DELETE FROM plain")
            plain.executemany(INSERT, items[:count])
            index = ChunkWords.build(items[:count])
            searches = [rng.choices(vocabulary, weights, k=rng.randrange(1, 9)) for _ in range(60)]
            for terms in (["word0", "rare"], ["far", "word4"], ["far", "far", "word9"], *searches):
                for top_k in (1, 20, 10_000):
                    with self.subTest(seed=SEED, count=count, terms=terms, top_k=top_k):
                        query = " OR ".join(f'"{term}"' for term in terms)
                        expected = plain.execute(ORDER, (query, top_k)).fetchall()
                        self.assertEqual(index.best(terms, top_k), [row[0] for row in expected])


def ranking_of(vectors: dict[int, list[float]], texts: dict[int, str]) -> WikiChunkIndex:
    chunks = {chunk_id: (1, None, text, None) for chunk_id, text in texts.items()}
    words = ChunkWords.build((i, None, text) for i, text in texts.items())
    index = index_of(vectors.items(), 2)
    return WikiChunkIndex(generation=1, dimension=2, index=index, chunks=chunks, words=words)


class Ranked(unittest.TestCase):
    def test_fuses_by_reciprocal_rank(self) -> None:
        rng = random.Random(SEED)
        colours = ["red", "green", "blue", "grey"]
        texts = {i: " ".join(rng.choices(colours, k=4)) for i in range(1, 80)}
        # Some chunks have no vector: only their words can find them.
        vectors = {i: [rng.gauss(0, 1), rng.gauss(0, 1)] for i in texts if rng.random() < 0.8}
        index = ranking_of(vectors, texts)
        query = [1.0, 0.5]
        for top_k in (1, 3, 20, 1000):
            with self.subTest(seed=SEED, top_k=top_k):
                meaning = [chunk_id for chunk_id, _ in index.index.nearest(query, top_k)]
                scores: dict[int, float] = {}
                for ranking in (meaning, index.words.best(["red", "blue"], top_k)):
                    for rank, chunk_id in enumerate(ranking, 1):
                        scores[chunk_id] = scores.get(chunk_id, 0) + 1 / (60 + rank)
                order = sorted(scores, key=lambda i: (-scores[i], i))[:top_k]
                hits = index.ranked(query, top_k, ("red", "blue"))
                self.assertEqual([(i, s) for i, _, s in hits], [(i, scores[i]) for i in order])
                for chunk_id, similarity, _ in hits:
                    exact = cosine(vectors.get(chunk_id, [0.0, 0.0]), query)
                    self.assertAlmostEqual(similarity, exact, delta=TOLERANCE)

    def test_falls_back_to_the_similarity(self) -> None:
        vectors, texts = {1: [1.0, 0.0], 2: [0.0, 1.0], 3: [1.0, 0.0]}, {1: "", 2: "red", 3: "red"}
        index = ranking_of(vectors, texts)
        with mock.patch.object(wiki_chunk_words, "has_fts5", return_value=False):
            without_fts5 = ranking_of(vectors, texts)
        for case, terms in ((index, ()), (index, ["", "*"]), (without_fts5, ["red"])):
            self.assertEqual(case.ranked([1.0, 0.0], 2, terms), [(1, 1.0, None), (3, 1.0, None)])
        self.assertEqual(index.ranked([1.0, 0.0], -1, ["red"]), [])
