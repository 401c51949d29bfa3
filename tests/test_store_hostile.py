"""Data and objects made to do harm: the outcome is plain Python's, and the tables stay sound."""

from __future__ import annotations

import gc
import json
import random
import types
import unittest
from collections.abc import Callable
from typing import Any

from benchmarks import plain_store
from tessaly.storage import repository_wiki as native_store
from tessaly.storage.database import Database
from tests.support import CALLS_OF_THE_STORE, Run, StoreTestCase, describe, store_class
from tests.test_store_json import mutated, random_text, random_value

NASTY = ["'); DROP TABLE wiki_pages; --", 'a" OR 1=1 --', "nul\0inside", "\ud800", "%s%n{0}", "*"]
NASTY += ["NEAR(a b", "AND", 'heading:"x', "-", "?", "\\", "\U0010ffff", "", " ", "_wiki_chunk_index"]


def nasty(draw: random.Random) -> str:
    if draw.random() < 0.01:
        return draw.choice("aé😀 ") * 1_000_000
    return draw.choice((draw.choice(NASTY), random_text(draw)))


def spoiled(draw: random.Random, value: Any) -> Any:
    """The value with some of its strings and numbers made nasty."""
    if isinstance(value, list | tuple):
        return type(value)(spoiled(draw, item) for item in value)
    if isinstance(value, dict):
        return {key: spoiled(draw, item) for key, item in value.items()}
    if draw.random() < 0.6:
        return value
    return nasty(draw) if isinstance(value, str) else draw.choice((value, 2**63, -1, 1e400, b"\0"))


class Hostile(StoreTestCase):
    def setUp(self) -> None:
        self.database = Database(":memory:")
        self.addCleanup(self.database.close)

    def assert_same_outcome(self, prepared: Callable[[Any], Run], act: Any = None) -> None:
        outcomes = [prepared(module).go(act).outcome() for module in (native_store, plain_store)]
        self.assertEqual(*outcomes)
        for check, sound in (("integrity_check", [("ok",)]), ("foreign_key_check", [])):
            self.assertEqual(self.database.fetchall(f"PRAGMA {check}"), sound)

    def test_hostile_arguments_are_stored_or_refused(self) -> None:
        draw = self.random("arguments")
        for _ in range(self.rounds(1200)):
            case = draw.choice(CALLS_OF_THE_STORE)
            positional, keywords = spoiled(draw, case[0][1]), spoiled(draw, case[0][2])

            def prepared(module: Any) -> Run:
                run = Run(module, self.database, case)
                run.arguments = positional
                run.keywords |= {key: keywords[key] for key in keywords if key != "moves"}
                return run

            self.assert_same_outcome(prepared)

    def test_hostile_rows_are_read_or_refused(self) -> None:
        draw = self.random("rows")
        columns = ("wiki_chunks", "citations"), ("wiki_chunks", "heading"), ("wiki_chunks", "content")
        columns += ("wiki_chunks", "embedding"), ("wiki_pages", "source_files"), ("wiki_pages", "title")
        for _ in range(self.rounds(1500)):
            case = draw.choice(CALLS_OF_THE_STORE)
            table, column = draw.choice(columns)
            text = draw.choice((nasty(draw), mutated(draw, "[{}]"), mutated(draw, json.dumps(NASTY))))
            text = text.encode("utf-8", "replace").decode()
            value = draw.choice((text, draw.randbytes(draw.randint(0, 17)), bytes(12), 7, 2.5))
            row = draw.randint(1, 3)

            def corrupt(run: Run, number: int, _name: str) -> None:
                if number == 1:
                    statement = f"UPDATE {table} SET {column} = ? WHERE id = ?"
                    self.database.fetchall(statement, (value, row))

            self.assert_same_outcome(lambda module: Run(module, self.database, case), corrupt)

    def test_citations_of_any_shape_come_back_from_a_search(self) -> None:
        draw = self.random("citations")
        for _ in range(self.rounds(150)):
            value = random_value(draw)
            run = Run(native_store, self.database, CALLS_OF_THE_STORE[0])
            chunk = {"content": "c", "embedding": [1.0, 0.0, 0.0], "citations": value}
            with run.host:
                try:
                    expected = json.loads(json.dumps(value))
                    self.assertEqual(run.store.replace_wiki_chunks(2, "main", [chunk], "m"), 1)
                except (TypeError, ValueError, OverflowError):
                    continue
                hits = run.store.search_wiki_chunks([1.0, 0.0, 0.0], "main")
            [found] = [hit["citations"] for hit in hits if hit["page_id"] == "beta"]
            self.assertEqual(repr(found), repr(expected))


class Biting:
    """An object whose every special method does something first."""

    def __init__(self, bite: Callable[[], Any], value: Any = 5) -> None:
        self.bite = bite
        self.value = value

    def __getitem__(self, key: Any) -> Any:
        self.bite()
        return self.value[key]

    def __iter__(self) -> Any:
        self.bite()
        return iter(self.value)

    def __len__(self) -> int:
        self.bite()
        return -1

    def __bool__(self) -> bool:
        self.bite()
        return bool(self.value)

    def __eq__(self, other: object) -> bool:
        self.bite()
        return self.value == other

    def __hash__(self) -> int:
        return hash(self.value)

    def __lt__(self, other: Any) -> Any:
        self.bite()
        return NotImplemented

    def __gt__(self, other: Any) -> Any:
        self.bite()
        return "odd truth"

    def __format__(self, how: str) -> str:
        self.bite()
        return f"{how}id"

    def __round__(self, digits: int) -> Any:
        self.bite()
        return ("round", digits)

    def __int__(self) -> int:
        self.bite()
        return 7

    def __str__(self) -> str:
        self.bite()
        return "bitten"


class Bites(StoreTestCase):
    """Special methods that empty what is being read, or fail."""

    def both(self, scenario: Callable[[Any, Any, Callable[[], None]], Any]) -> None:
        for fails in (False, True):
            seen = []
            for module in (native_store, plain_store):
                store = type("Store", (store_class(module),), {})()
                prey: list[Any] = []

                def bite() -> None:
                    if fails:
                        raise KeyError("bitten")
                    for container in prey:
                        container.clear()
                    gc.collect(0)

                try:
                    seen.append(describe(scenario(store, prey, bite)))
                except BaseException as error:
                    seen.append(describe(error))
            self.assertEqual(*seen)

    def test_biting_objects_in_every_place(self) -> None:
        def with_rows(method: str, row: Callable[[Any], Any]) -> Any:
            def scenario(store: Any, prey: list[Any], bite: Any) -> Any:
                rows: list[Any] = [row(bite), [1, 2, 3, 4, 5, 6], row(bite)]
                prey.append(rows)
                store.db = types.SimpleNamespace(fetchall=lambda *_: rows, fetchone=lambda *_: rows[0])
                store.db.index_generation = lambda: Biting(bite)
                return getattr(store, method)("b")

            return scenario

        def search(hit: Callable[[Any], Any], stored: Any = (1, 2, 3, None)) -> Any:
            def scenario(store: Any, prey: list[Any], bite: Any) -> Any:
                hits = [hit(bite), (1, 0.5, None), hit(bite)]
                chunks = {1: stored(bite) if callable(stored) else stored}
                prey += [hits, chunks]
                ranked = lambda *_: hits  # noqa: E731
                index = types.SimpleNamespace(dimension=Biting(bite, 0), chunks=chunks, ranked=ranked)
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

        whole = lambda bite: Biting(bite, [1, 2, 3, 4, 5, 6])  # noqa: E731
        parts = lambda bite: [Biting(bite, 1) for _ in range(6)]  # noqa: E731
        scenarios = [
            *(with_rows(method, row) for method in METHODS for row in (whole, parts)),
            search(lambda bite: Biting(bite, [1, 0.25, None])),
            search(lambda bite: (Biting(bite, 1), Biting(bite), Biting(bite))),
            search(lambda bite: (1, 0.5, 1), lambda bite: Biting(bite, [1, 2, 3, "[]"])),
            search(lambda bite: (1, 0.5, 1), lambda bite: [Biting(bite), 2, 3, Biting(bite, "x")]),
            *(cached, deleted, paths),
        ]
        for number, scenario in enumerate(scenarios):
            with self.subTest(number):
                self.both(scenario)


METHODS = ("get_wiki_state", "wiki_chunk_texts", "wiki_chunk_headings", "_wiki_chunk_index")
METHODS += ("get_wiki_pages", "wiki_chunk_dimension")

if __name__ == "__main__":
    unittest.main()
