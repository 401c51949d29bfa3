"""The reference host's search: codec, cosine index, word index and their fusion."""

from __future__ import annotations

import gc
import math
import random
import struct
import sys
import threading
import unittest
from array import array
from typing import Any
from unittest import mock

from tessaly.storage import wiki_chunk_words
from tessaly.storage.database import Database
from tessaly.storage.vector_codec import stored_vectors
from tessaly.storage.vector_index import EmbeddingIndex
from tessaly.storage.wiki_chunk_words import ChunkWords, WikiChunkIndex

TOLERANCE = 1e-6


def index_of(vectors: list[Any], dimension: int) -> EmbeddingIndex:
    index = EmbeddingIndex(dimension)
    index.load(vectors)
    return index


def cosine(a: Any, b: Any) -> float:
    lengths = math.hypot(*a) * math.hypot(*b)
    return sum(map(float.__mul__, map(float, a), map(float, b))) / lengths if lengths else 0.0


class Codec(unittest.TestCase):
    def setUp(self) -> None:
        with Database(":memory:") as database:
            self.codec = stored_vectors(database)

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
        for call, value, kind, words in (
            (encode, ["x"], TypeError, "not str"),
            (encode, [[1.0]], TypeError, "not list"),
            (encode, "12", TypeError, "not str"),
            (encode, b"1234", TypeError, "not bytes"),
            (encode, {1.0: 2.0}, TypeError, "not dict"),
            (encode, None, TypeError, "not NoneType"),
            (encode, (x for x in (1.0,)), TypeError, "not generator"),
            (encode, [10**400], ValueError, "too large"),
            (encode, [1e39, -1e39], ValueError, "finite"),
            (encode, [0.0, math.nan], ValueError, "finite"),
            (decode, b"12345", ValueError, "5 bytes"),
            (decode, "1234", ValueError, "a BLOB, not str"),
            (decode, None, ValueError, "a BLOB, not NoneType"),
        ):
            with self.subTest(call=call.__name__, value=value):
                self.assertRaisesRegex(kind, words, call, value)


class Cosine(unittest.TestCase):
    def test_ranks_as_plain_python_does(self) -> None:
        seed = random.randrange(2**32)
        rng = random.Random(seed)
        # Lengths around the widths of the vector loops, and numbers around the block of the scan.
        for dimension, count in ((1, 5), (3, 127), (17, 129), (64, 300), (131, 40), (0, 3)):
            with self.subTest(seed=seed, dimension=dimension):
                scale = 10.0 ** rng.randrange(-30, 30)
                vectors = {
                    7 * i - 20: array("f", (rng.gauss(0, scale) for _ in range(dimension)))
                    for i in range(count)
                }
                index = index_of(list(vectors.items()), dimension)
                query = [rng.gauss(0, 1) for _ in range(dimension)]
                expected = {chunk_id: cosine(v, query) for chunk_id, v in vectors.items()}
                for top_k in (1, 20, count, 10**30):
                    hits = index.nearest(query, top_k)
                    self.assertEqual(len(hits), min(top_k, count))
                    self.assertEqual(hits, sorted(hits, key=lambda hit: (-hit[1], hit[0])))
                    for chunk_id, similarity in hits:
                        self.assertAlmostEqual(similarity, expected[chunk_id], delta=TOLERANCE)
                    worst = hits[-1][1]
                    missed = expected.keys() - dict(hits).keys()
                    self.assertFalse([i for i in missed if expected[i] > worst + 2 * TOLERANCE])
                ids, similarities = zip(*hits)
                self.assertEqual(index.similarities(query, ids), list(similarities))
                self.assertEqual((index.nearest(query, 0), index.nearest(query, -1)), ([], []))

    def test_ties_extremes_and_vectors_without_direction(self) -> None:
        vectors = [
            (-5, [0.0, 0.0]),
            (1, [3e38, 3e38]),
            (2, array("f", [1e-45, 1e-45])),
            (3, (1e300, 1e300)),
            (4, [math.nan, 1.0]),
            (5, array("f", [math.inf, 1.0])),
            (6, [-2, -2]),
        ]
        index = index_of(vectors, 2)
        hits = index.nearest([1e-200, 1e-200], 7)
        self.assertEqual([chunk_id for chunk_id, _ in hits], [1, 2, 3, -5, 4, 5, 6])
        for (_, found), exact in zip(hits, (1, 1, 1, 0, 0, 0, -1)):
            self.assertAlmostEqual(found, exact, delta=TOLERANCE)
            self.assertLessEqual(abs(found), 1.0)
        rng = random.Random(1)
        for _ in range(300):
            vector = [rng.gauss(0, 1) for _ in range(9)]
            (_, same), (_, opposite) = index_of(
                [(1, vector), (2, [-x for x in vector])], 9
            ).nearest(vector, 2)
            self.assertTrue(-1.0 <= opposite < -1 + TOLERANCE and 1 - TOLERANCE < same <= 1.0)
        for query in ([0.0, 0.0], [math.nan, 1.0]):
            self.assertEqual(index.nearest(query, 3), [(-5, 0.0), (1, 0.0), (2, 0.0)])
        self.assertEqual(index.similarities([1.0, 1.0], [0, 99, -5]), [0.0, 0.0, 0.0])
        self.assertRaisesRegex(ValueError, "3 components, the index 2", index.nearest, [1] * 3, 1)

    def test_other_lengths_are_left_out_with_one_warning(self) -> None:
        zero = memoryview(bytes(8)).cast("f")
        vectors = [(1, [1.0]), (2, [1.0, 0.0]), (3, array("f")), (4, zero)]
        with self.assertLogs("tessaly.storage.vector_index", "WARNING") as logs:
            index = index_of(vectors, 2)
        self.assertEqual(len(logs.records), 1)
        self.assertIn("2 of 4 embeddings are not 2-dim", logs.output[0])
        self.assertEqual([chunk_id for chunk_id, _ in index.nearest([1.0, 0.0], 9)], [2, 4])

    def test_a_load_that_fails_keeps_the_old_contents(self) -> None:
        class Raising:
            def __float__(self) -> float:
                raise KeyboardInterrupt

        class Buffer:
            def __buffer__(self, _flags: int) -> memoryview:
                raise ZeroDivisionError

        index = index_of([(1, [1.0, 0.0])], 2)
        for vectors, kind in (
            ([(2, [1.0, Raising()])], KeyboardInterrupt),
            ([(2, Buffer())], ZeroDivisionError),
            ([(2, ["x", 1.0])], TypeError),
            ([(2, {1.0, 2.0})], TypeError),
            ([(2, None)], TypeError),
            ([("2", [1.0, 0.0])], TypeError),
            ([(2**70, [1.0, 0.0])], OverflowError),
            ([(2, [1.0, 0.0]), (2, [1.0, 0.0])], ValueError),
            ([(2, [1.0, 0.0], 3)], ValueError),
            ([2], TypeError),
            (5, TypeError),
        ):
            with self.subTest(vectors=vectors):
                self.assertRaises(kind, index.load, vectors)
                self.assertEqual(index.nearest([1.0, 0.0], 9), [(1, 1.0)])
        for dimension, kind in ((-1, ValueError), (1.5, TypeError), ("1", TypeError)):
            self.assertRaises(kind, EmbeddingIndex, dimension)
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
        self.assertEqual((pairs, embedding), ([], []))
        self.assertEqual([chunk_id for chunk_id, _ in index.nearest([1.0, 0.0], 9)], [1, 3, 2])

    def test_searches_go_on_while_other_threads_load(self) -> None:
        # The scan takes longer than the load that drops the matrix under it.
        vectors = [(i, array("f", [1.0] * 64)) for i in range(20000)]
        index = index_of(vectors, 64)
        done = threading.Event()

        def load() -> None:
            while not done.is_set():
                index.load([])
                index.load(vectors)

        loader = threading.Thread(target=load)
        loader.start()
        try:
            for _ in range(200):
                hits = index.nearest([1.0] * 64, 30)
                self.assertIn([chunk_id for chunk_id, _ in hits], ([], list(range(30))))
                self.assertLessEqual({similarity for _, similarity in hits}, {1.0})
        finally:
            done.set()
            loader.join()


class Words(unittest.TestCase):
    def test_terms_are_words_and_never_syntax(self) -> None:
        words = ChunkWords.build(
            (chunk_id, heading, text)
            for chunk_id, heading, text in (
                (1, None, "alpha beta\0gamma a_snake_case"),
                (2, "AND", "delta \ud800 epsilon café"),
                (3, "star", "x" * 1_000_000),
            )
        )
        for terms, expected in (
            (["alpha"], [1]),
            (["GAMMA", "gamma"], [1]),
            (["snake_case"], [1]),
            (["case_snake"], []),
            (["AND"], [2]),
            (["cafe"], [2]),
            (["delta\udfff"], [2]),
            (["alpha", "star"], [1, 3]),
            (["sta*"], []),
            (["al*", "alpha OR delta", "heading:alpha", "alpha NOT beta", "NEAR(alpha beta)"], []),
            (['alpha" OR "delta'], []),
            (["alpha\0", '"delta"', ")", "^star"], [1, 2, 3]),
            (["", '"', "*", "\0", "\ud800", "--", "\N{COMBINING ACUTE ACCENT}"], None),
            ([], None),
            ([f"none{i}" for i in range(3000)] + ["alpha"], [1]),
            (["y" * 1_000_000], []),
        ):
            with self.subTest(terms=ascii(terms)[:80]):
                found = words.best(terms, 10)
                self.assertEqual(found and sorted(found), expected)
        self.assertRaises(TypeError, words.best, [b"alpha"], 10)

    def test_common_words_left_out_cost_no_better_result(self) -> None:
        seed = random.randrange(2**32)
        rng = random.Random(seed)
        vocabulary = [f"word{i}" for i in range(400)]
        weights = [1 / (i + 1) for i in range(400)]
        items = []
        for chunk_id in range(1, 1501):
            text = rng.choices(vocabulary, weights, k=rng.randrange(5, 60))
            items.append((chunk_id, rng.choice(vocabulary), " ".join(text)))
        with mock.patch.object(wiki_chunk_words, "_MANY_CHUNKS", 10**9):
            whole = ChunkWords.build(items)
        words = ChunkWords.build(items)
        self.assertTrue(words._common and not whole._common)

        def scores(found: list[int], terms: list[str]) -> list[float]:
            by_id = dict(
                whole._connection.execute(
                    "SELECT rowid, rank FROM wiki_chunk_words WHERE wiki_chunk_words MATCH ?",
                    (" OR ".join(terms),),
                )
            )
            return [by_id[chunk_id] for chunk_id in found]

        for others in (["word9"], [], ["word10", "word100"], ["none"]):
            terms = ["word0", *others]
            with self.subTest(seed=seed, terms=terms):
                found, expected = words.best(terms, 20), whole.best(terms, 20)
                self.assertEqual((len(set(found)), len(expected)), (20, 20))
                # What has the same score but for the common word may stand in another order.
                for ours, theirs in zip(scores(found, terms), scores(expected, terms)):
                    self.assertAlmostEqual(ours, theirs, delta=1e-5)


class Ranked(unittest.TestCase):
    def index(self, vectors: dict[int, list[float]], texts: dict[int, str]) -> WikiChunkIndex:
        return WikiChunkIndex(
            generation=1,
            dimension=2,
            index=index_of(list(vectors.items()), 2),
            chunks={chunk_id: (1, None, text, None) for chunk_id, text in texts.items()},
            words=ChunkWords.build((i, None, text) for i, text in texts.items()),
        )

    def test_fuses_by_reciprocal_rank(self) -> None:
        seed = random.randrange(2**32)
        rng = random.Random(seed)
        colours = ["red", "green", "blue", "grey"]
        texts = {i: " ".join(rng.choices(colours, k=4)) for i in range(1, 80)}
        # Some chunks have no vector: only their words can find them.
        vectors = {i: [rng.gauss(0, 1), rng.gauss(0, 1)] for i in texts if rng.random() < 0.8}
        index = self.index(vectors, texts)
        query = [1.0, 0.5]
        for top_k in (1, 3, 20, 1000):
            with self.subTest(seed=seed, top_k=top_k):
                meaning = [chunk_id for chunk_id, _ in index.index.nearest(query, top_k)]
                by_words = index.words.best(["red", "blue"], top_k) or []
                scores: dict[int, float] = {}
                for ranking in (meaning, by_words):
                    for position, chunk_id in enumerate(ranking):
                        scores[chunk_id] = scores.get(chunk_id, 0) + 1 / (61 + position)
                order = sorted(scores, key=lambda i: (-scores[i], i))[:top_k]
                hits = index.ranked(query, top_k, ("red", "blue"))
                self.assertEqual([(i, s) for i, _, s in hits], [(i, scores[i]) for i in order])
                for chunk_id, similarity, _ in hits:
                    exact = cosine(vectors.get(chunk_id, [0.0, 0.0]), query)
                    self.assertAlmostEqual(similarity, exact, delta=TOLERANCE)

    def test_falls_back_to_the_similarity(self) -> None:
        vectors, texts = {1: [1.0, 0.0], 2: [0.0, 1.0], 3: [1.0, 0.0]}, {1: "", 2: "red", 3: "red"}
        index = self.index(vectors, texts)
        with mock.patch.object(wiki_chunk_words, "has_fts5", return_value=False):
            without_fts5 = self.index(vectors, texts)
        by_meaning = [(1, 1.0, None), (3, 1.0, None)]
        for case, terms in ((index, ()), (index, ["", "*"]), (without_fts5, ["red"])):
            self.assertEqual(case.ranked([1.0, 0.0], 2, terms), by_meaning)
        for top_k in (0, -1):
            self.assertEqual(index.ranked([1.0, 0.0], top_k, ["red"]), [])


if __name__ == "__main__":
    unittest.main()
