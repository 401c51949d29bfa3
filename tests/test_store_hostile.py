"""Data and objects made to do harm: the outcome is plain Python's, and the tables stay sound."""

from __future__ import annotations

import gc
import json
import logging
import random
import sys
import types
import unittest
import weakref
from collections.abc import Callable
from typing import Any
from unittest import mock

from benchmarks import plain_store
from tessaly.storage import repository_wiki as native_store
from tessaly.storage.database import Database
from tests.support import CALLS_OF_THE_STORE, Run, StoreTestCase, describe, store_class
from tests.test_store_json import mutated, random_text

NASTY = ["'); DROP TABLE wiki_pages; --", 'a" OR 1=1 --', "nul\0inside", "\ud800", "%s%n{0}", "*"]
NASTY += ["NEAR(a b", "AND", 'heading:"x', "-", "?", "\\", "\U0010ffff", "", "_wiki_chunk_index"]


def nasty(draw: random.Random) -> str:
    if draw.random() < 0.01:
        return draw.choice("aé😀 ") * 1_000_000
    return draw.choice((draw.choice(NASTY), random_text(draw)))


def spoiled(draw: random.Random, value: Any) -> Any:
    """The value with some of its parts made nasty."""
    if draw.random() < 0.07:
        odd = (None, 5, 2.5, "ab", b"x", [], [{}], [(1,)], [(1, [1.0], 3)], ("x",) * 70)
        return draw.choice(odd)
    if isinstance(value, list | tuple):
        return type(value)(spoiled(draw, item) for item in value)
    if isinstance(value, dict):
        return {key: spoiled(draw, item) for key, item in value.items()}
    if draw.random() < 0.7:
        return value
    return nasty(draw) if isinstance(value, str) else draw.choice((2**63, "7", -1, 1e400, b"\0"))


class Hostile(StoreTestCase):
    def setUp(self) -> None:
        self.database = Database(":memory:")
        self.addCleanup(self.database.close)
        logging.disable()  # the host speaks of embeddings that it leaves out
        self.addCleanup(logging.disable, logging.NOTSET)

    def assert_same_outcome(self, prepared: Callable[[Any], Run], act: Any = None) -> None:
        outcomes = [prepared(module).go(act).outcome() for module in (native_store, plain_store)]
        self.assertEqual(*outcomes)
        for check, sound in (("integrity_check", [("ok",)]), ("foreign_key_check", [])):
            self.assertEqual(self.database.fetchall(f"PRAGMA {check}"), sound)

    def test_hostile_arguments_are_stored_or_refused(self) -> None:
        draw = self.random("arguments")
        for _ in range(self.rounds(2500)):
            case = draw.choice(CALLS_OF_THE_STORE)
            positional = [spoiled(draw, value) for value in case[0][1]]
            keywords = {key: spoiled(draw, value) for key, value in case[0][2].items()}

            def prepared(module: Any) -> Run:
                run = Run(module, self.database, case)
                run.arguments, run.keywords = positional, run.keywords | keywords
                return run

            self.assert_same_outcome(prepared)

    def test_hostile_rows_are_read_or_refused(self) -> None:
        draw = self.random("rows")
        columns = "citations heading content embedding source_files title".split()
        for _ in range(self.rounds(1500)):
            case = draw.choice(CALLS_OF_THE_STORE)
            column = draw.choice(columns)
            table = "wiki_pages" if column in ("source_files", "title") else "wiki_chunks"
            stored = mutated(draw, draw.choice(("[{}]", json.dumps(NASTY))))
            text = draw.choice((nasty(draw), stored))
            text = text.encode("utf-8", "replace").decode()
            value = draw.choice((text, draw.randbytes(draw.randint(0, 17)), bytes(12), 7, 2.5))
            row = draw.randint(1, 3)

            def corrupt(run: Run, number: int, _name: str) -> None:
                if number == 1:
                    statement = f"UPDATE {table} SET {column} = ? WHERE id = ?"
                    self.database.fetchall(statement, (value, row))

            self.assert_same_outcome(lambda module: Run(module, self.database, case), corrupt)


class Biting:
    """An object whose special methods all bite before they answer."""

    def __init__(self, bite: Callable[[], Any], value: Any = 5) -> None:
        self.bite = bite
        self.value = value

    def __hash__(self) -> int:
        return hash(self.value)


ANSWERS: dict[str, Callable[..., Any]] = {
    "__getitem__": lambda self, key: self.value[key],
    "__iter__": lambda self: iter(self.value),
    "__len__": lambda self: -1,
    "__bool__": lambda self: bool(self.value),
    "__eq__": lambda self, other: self.value == other,
    "__lt__": lambda self, other: NotImplemented,
    "__gt__": lambda self, other: "odd truth",
    "__round__": lambda self, digits: ("round", digits),
    "__int__": lambda self: 7,
    "__str__": lambda self: "bitten",
}
for special, answer in ANSWERS.items():

    def after_the_bite(self: Any, *given: Any, answer: Any = answer) -> Any:
        self.bite()
        return answer(self, *given)

    setattr(Biting, special, after_the_bite)


class Bites(StoreTestCase):
    """Special methods that empty what is being read, or fail."""

    def both(self, scenario: Callable[[Any, Any, Callable[[], None]], Any]) -> None:
        for error in (None, KeyError("bitten"), StopIteration("bitten")):
            seen = []
            for module in (native_store, plain_store):
                store = type("Store", (store_class(module),), {})()
                prey: list[Any] = []

                def bite() -> None:
                    if error is not None:
                        raise error
                    for container in prey:
                        container.clear()
                    gc.collect(0)

                try:
                    seen.append(describe(scenario(store, prey, bite)))
                except BaseException as caught:
                    seen.append(describe(caught))
            self.assertEqual(*seen)

    def test_biting_objects_in_every_place(self) -> None:
        def with_rows(method: str, row: Callable[[Any], Any]) -> Any:
            def scenario(store: Any, prey: list[Any], bite: Any) -> Any:
                rows: list[Any] = [row(bite), [1, 2, 3, 4, 5, 6], row(bite)]
                prey.append(rows)
                store.db = types.SimpleNamespace(
                    fetchall=lambda *_: rows,
                    fetchone=lambda *_: rows[0],
                    index_generation=lambda: Biting(bite),
                )
                return getattr(store, method)("b", *["p"] * (method == "get_wiki_page"))

            return scenario

        def search(hit: Callable[[Any], Any], stored: Any = (1, 2, 3, None)) -> Any:
            def scenario(store: Any, prey: list[Any], bite: Any) -> Any:
                hits = [hit(bite), (1, 0.5, None), hit(bite)]
                chunks = {1: stored(bite) if callable(stored) else stored}
                prey += [hits, chunks]
                index = types.SimpleNamespace(dimension=Biting(bite, 0), chunks=chunks)
                index.ranked = lambda *_: hits
                store.__dict__["_wiki_chunk_index"] = lambda _branch: index
                store.db = types.SimpleNamespace(fetchall=lambda *_: [(Biting(bite), 1, 2, 3)])
                return store.search_wiki_chunks([], "b")

            return scenario

        def cached(store: Any, prey: list[Any], bite: Any) -> Any:
            entry = types.SimpleNamespace(generation=Biting(bite))
            cache = {Biting(bite, hash("b")): entry, "b": entry}
            prey += [cache, store.__dict__]
            store.__dict__["_wiki_chunk_index_cache"] = cache
            store.db = types.SimpleNamespace(index_generation=lambda: 5, fetchall=lambda *_: [])
            return store._wiki_chunk_index(Biting(bite, hash("b")))

        def deleted(store: Any, prey: list[Any], bite: Any) -> Any:
            class Db:
                rowcount = Biting(bite)
                __enter__ = transaction = lambda self: self
                __exit__ = execute = lambda self, *_: Biting(bite, 0)

            store.db = Db()
            prey.append(store.__dict__)
            return store.delete_wiki_page("b", "p")

        def paths(store: Any, prey: list[Any], bite: Any) -> Any:
            class Path(str):
                def replace(self, *_: Any) -> Any:
                    bite()
                    return Biting(bite, str(self))

            given: list[Any] = [Path("b"), Path("a"), Path("b"), Biting(bite, 0)]
            prey.append(given)
            store.db = types.SimpleNamespace(fetchall=lambda *call: [])
            return store.wiki_pages_citing("b", given)

        def lazily(store: Any, prey: list[Any], bite: Any) -> Any:
            """The last conversion bites, while the words are built from the rows, and later."""
            calls: list[None] = []
            late = Biting(lambda: calls.append(None) or (len(calls) > 4 and bite()))
            rows = [[key, 1, None, "text", None, b""] for key in (1, late, 3)]
            rows[1][3] = late

            def build(items: Any) -> list[Any]:
                seen = []
                for _ in range(5):
                    try:
                        seen.append(next(items))
                    except Exception as error:
                        seen.append(error)
                return seen

            prey.append(rows)
            db = types.SimpleNamespace(fetchall=lambda *_: rows, index_generation=lambda: 0)
            names = {
                "stored_vectors": lambda _db: types.SimpleNamespace(decode=list),
                "EmbeddingIndex": lambda _dimension: types.SimpleNamespace(load=len),
                "ChunkWords": types.SimpleNamespace(build=build),
                "WikiChunkIndex": lambda **fields: [fields["words"], fields["chunks"]],
            }
            store.db = db
            with mock.patch.multiple(sys.modules[type(store).__mro__[1].__module__], **names):
                return store._wiki_chunk_index("b")

        empty = lambda bite: Biting(bite, [])  # noqa: E731
        whole = lambda bite: Biting(bite, [1, 2, 3, 4, 5, 6])  # noqa: E731
        parts = lambda bite: [Biting(bite, 1) for _ in range(6)]  # noqa: E731
        scenarios = [
            *(with_rows(method, row) for method in METHODS for row in (whole, parts, empty)),
            search(lambda bite: Biting(bite, [1, 0.25, None])),
            search(lambda bite: (Biting(bite, 1), Biting(bite), Biting(bite))),
            search(lambda bite: (1, 0.5, 1), lambda bite: Biting(bite, [1, 2, 3, "[]"])),
            search(lambda bite: (1, 0.5, 1), lambda bite: [Biting(bite), 2, 3, Biting(bite, "x")]),
            *(cached, deleted, paths, lazily),
        ]
        for number, scenario in enumerate(scenarios):
            with self.subTest(number):
                self.both(scenario)


class Keeping(StoreTestCase):
    def test_parameters_belong_to_whoever_keeps_them(self) -> None:
        class Branch(list):
            pass

        kept: list[Any] = []
        keeps = [kept.append, lambda _given: None, lambda given: given[0].append(given)]
        store = native_store.WikiStore()
        for turn in range(30):
            branch = Branch([turn])
            keep = keeps[turn % 3]
            store.db = types.SimpleNamespace(fetchall=lambda _statement, given: keep(given) or [])
            store.wiki_chunk_headings(branch)
            store.wiki_pages_citing(branch, [str(turn)])
            watched = weakref.ref(branch)
            if turn % 3:
                del branch
                gc.collect()
                self.assertIsNone(watched(), "held by a tuple that the collector does not see")
        branches = [Branch([turn]) for turn in range(0, 30, 3)]
        found = [(branch,) for branch in branches], [(one, one, str(*one)) for one in branches]
        self.assertEqual(kept, [each for pair in zip(*found, strict=True) for each in pair])


METHODS = ("get_wiki_state", "wiki_chunk_texts", "wiki_chunk_headings", "_wiki_chunk_index")
METHODS += ("get_wiki_pages", "wiki_chunk_dimension", "get_wiki_page")

if __name__ == "__main__":
    unittest.main()
