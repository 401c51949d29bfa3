"""What the store's tests share: a leak check, a watched host, and a table of typical calls."""

from __future__ import annotations

import copy
import functools
import gc
import importlib
import logging
import os
import re
import sys
import unittest
from array import array
from collections.abc import Callable, Iterator
from typing import Any
from unittest import mock

from benchmarks.plain_store import PlainWikiStore
from tessaly.storage._vector_index import StoredEmbedding
from tessaly.storage.database import Database
from tessaly.storage.repository_wiki import WikiStore
from tessaly.storage.schema import TABLES
from tessaly.storage.vector_codec import stored_vectors
from tessaly.storage.wiki_chunk_words import ChunkWords

SOAK = bool(os.environ.get("TESSALY_SOAK"))  # the long versions, for a night
STORES: tuple[Any, ...] = (PlainWikiStore, WikiStore)


class StoreTestCase(unittest.TestCase):
    """Runs every test anew until it has shown that it leaves no memory blocks behind.

    A leak leaves blocks each time; caches and the allocator's habits do not.
    """

    repeating = False  # true while the test runs again: randomised tests then do less

    def _callTestMethod(self, method: Any) -> None:
        method()
        counted = sys.getallocatedblocks() > 0  # not with the allocator of the C library
        if counted and not self.repeating:
            self._repeat()

    def _repeat(self) -> None:
        again = type(self)(self._testMethodName)
        again.repeating = True
        counts = array("q", [0] * 10)  # made before, so that counting takes no block itself
        for at in range(len(counts)):
            again.debug()
            sys._clear_type_cache()  # it keeps the names alive that were looked up
            gc.collect()
            counts[at] = sys.getallocatedblocks()
            if at >= 2 and counts[at - 2] >= counts[at - 1] >= counts[at]:
                return
        self.fail(f"memory blocks after each repetition: {counts.tolist()}")


def import_anew(name: str = WikiStore.__module__) -> Any:
    """Another module object, and the program as it was before."""
    package, _, last = name.rpartition(".")
    with mock.patch.dict(sys.modules), mock.patch.object(sys.modules[package], last):
        del sys.modules[name]
        return importlib.import_module(name)


class DatabaseTestCase(StoreTestCase):
    """Tests on a database in memory; both stores can be run on it and compared."""

    def setUp(self) -> None:
        self.database = Database(":memory:")
        self.addCleanup(self.database.close)

    def same_outcome(self, case: Case, act: Act | None = None, **given: Any) -> Run:
        """The native store's run, once its outcome has been found equal to the plain one's."""
        seen = []
        for store in STORES:
            run = Run(store, self.database, case, **given).go(act)
            seen.append(run.outcome())
        self.assertEqual(*seen)
        return run

    def at_each_host_call(
        self,
        case: Case,
        act: Act,
        check: Callable[[Run], Any] = bool,
        most: int | None = None,
        **given: Any,
    ) -> None:
        """Both stores take the act alike at whichever call of the host, and the check holds."""
        calls = Run(PlainWikiStore, self.database, case, **given).go().number
        for number in range(1, calls + 1)[:most]:
            with self.subTest(case[0][0], at=number, **given):
                check(self.same_outcome(case, act, act_at=number, **given))


CITED = '[{"path": "src/a.py", "start": 1, "end": 2}, {"path": "x", "start": 3, "end": 4}]'
ROWS: dict[str, list[tuple[Any, ...]]] = {
    "wiki_pages (branch, page_id, title, importance, source_files)": [
        ("main", "alpha", "Alpha", "high", '["src/a.py", "lib\\\\b.py"]'),
        ("main", "beta", None, "low", '["src/b.py"]'),
        ("other", "alpha", "Else", "medium", '["src/a.py"]'),
    ],
    "wiki_chunks (page_fk, branch, heading, citations, content, embedding)": [
        (1, "main", "Start", CITED, "open the door", [1.0, 0.0, 0.0]),
        (1, "main", None, None, "close the window", [0.5, 0.5, 0.0]),
        (2, "main", "", "", "paint the wall", [0.0, 0.0, 1.0]),
        (3, "other", "Else", "[]", "open the lid", [0.0, 1.0]),
    ],
    "wiki_state (branch, changed_since_build)": [("main", 4)],
}
NEW_CHUNKS = [
    {"content": "one", "embedding": [1.0, 2.0, 3.0]},
    {"content": "two", "embedding": [3, 2, 1], "anchor": "a", "heading": "h", "token_count": "7"},
    {"content": "é", "embedding": (0.5, 0.25, 0.125), "citations": [{"path": "p"}], "more": 1},
]
FULL_PAGE: dict[str, Any] = {
    "description": "d", "importance": "low", "parent_section": "s", "page_type": "guide",
    "source_files": ["a", "b"], "source_hashes": {"a": "1"}, "symbols": ("t",), "related_pages": [],
    "citations": [{"path": "a", "start": 1, "end": 2}], "build_cache": "{}",
}  # fmt: skip


def refresh(**changed: Any) -> dict[str, Any]:
    """The keyword arguments of a citation refresh."""
    given = {"citations": [{"path": "p"}], "content_hash": "h", "build_cache": None}
    return given | {"moves": {("src/a.py", 1, 2): (5, 6)}} | changed


# Every method in its typical calls: name, positional and keyword arguments.
CALLS: list[tuple[str, tuple[Any, ...], dict[str, Any]]] = [
    ("_wiki_chunk_indexes", (), {}),
    ("invalidate_wiki_chunk_index", (), {}),
    ("upsert_wiki_page", ("main", "alpha", "New title"), {"symbols": ["s"]}),
    ("upsert_wiki_page", ("main", "gamma", "Gamma"), FULL_PAGE),
    ("replace_wiki_chunks", (1, "main", NEW_CHUNKS, "m"), {}),
    ("wiki_chunk_headings", ("main",), {}),
    ("wiki_chunk_texts", ("main",), {}),
    ("update_wiki_chunk_embeddings", ("main", [(1, [3.0, 2.0, 1.0]), [2, [1, 1, 1]]], "m"), {}),
    ("wiki_chunk_dimension", ("other",), {}),
    ("wiki_chunk_dimension", ("none",), {}),
    ("search_wiki_chunks", ([1.0, 0.25, 0.0], "main"), {}),
    ("search_wiki_chunks", ([1.0, 0.25, 0.0], "main", 2), {"terms": ["door", "wall"]}),
    ("search_wiki_chunks", ([1.0, 0.25], "main"), {}),
    ("search_wiki_chunks", ([1.0, 0.25, 0.0], "none"), {}),
    ("get_wiki_pages", ("main",), {}),
    ("wiki_pages_citing", ("main", ["src\\a.py", "", "lib/b.py", "src/b.py", "src/a.py"]), {}),
    ("get_wiki_page", ("main", "beta"), {}),
    ("get_wiki_page", ("main", "none"), {}),
    ("update_wiki_page_citations", ("main", "alpha"), refresh()),
    ("update_wiki_page_citations", ("main", "none"), refresh()),
    ("delete_wiki_page", ("main", "alpha"), {}),
    ("delete_wiki_page", ("main", "none"), {}),
    ("get_wiki_state", ("main",), {}),
    ("upsert_wiki_state", ("main",), {"last_built_at": "now", "page_count": 3}),
    ("bump_wiki_changed", ("main", 2), {}),
]
Case = tuple[tuple[str, tuple[Any, ...], dict[str, Any]], bool]  # with whether an index is cached
CALLS_OF_THE_STORE: list[Case] = [(call, False) for call in CALLS]
CALLS_OF_THE_STORE += [(call, True) for call in CALLS if not call[0].startswith(("get_", "wiki_"))]


def fill(database: Database) -> None:
    """Puts the typical rows into a database, row ids from 1, whatever it held before."""
    encode = stored_vectors(database).encode
    with database.transaction() as cursor:
        for table in (*reversed(TABLES), "sqlite_sequence"):
            cursor.execute(f"DELETE FROM {table}")
        for into, rows in ROWS.items():
            marks = ", ".join("?" * len(rows[0]))
            encoded = [[encode(v) if isinstance(v, list) else v for v in row] for row in rows]
            cursor.executemany(f"INSERT INTO {into} VALUES ({marks})", encoded)


def tables(database: Database) -> list[Any]:
    """All rows, but for the time of day."""
    rows = []
    for table, columns in TABLES.items():
        timeless = ", ".join(column for column in columns if column != "generated_at")
        rows += database.fetchall(f"SELECT {timeless} FROM {table} ORDER BY 1")
    return rows


def describe(value: Any) -> Any:
    """What an argument or a result is, types included; the blanks of texts collapsed."""
    kind = type(value).__name__
    if isinstance(value, dict | memoryview | StoredEmbedding):
        value = list(value.items() if isinstance(value, dict) else value)
    if isinstance(value, tuple | list):
        return (kind, *map(describe, value))
    if isinstance(value, BaseException):
        return (kind, re.sub("0x[0-9a-f]+", "0x", str(value)), getattr(value, "name", None))
    if value is None or isinstance(value, str | int | float | bytes):
        return (kind, " ".join(str(value).split()))
    return kind


class HostObject:
    """A part of the host, watched: its calls go through ``Run.report``."""

    def __init__(self, run: Run, target: Any) -> None:
        self._run = run
        self._target = target

    def __getattr__(self, name: str) -> Any:
        value = getattr(self._target, name)
        self._run.calls.append(f"look up {name}")
        if name == "rowcount":
            return self._run.report(name, lambda: value)
        return self._run.reported(name, value) if callable(value) else value

    def __enter__(self) -> HostObject:
        return self._run.report("__enter__", self._target.__enter__)

    def __exit__(self, kind: Any, error: Any, traceback: Any) -> bool:
        self._run.exit_saw = (kind, error, traceback, sys.exception())
        try:
            self._run.before("__exit__", kind, error)
        except BaseException as fault:
            self._target.__exit__(type(fault), fault, None)
            raise
        self._target.__exit__(kind, error, traceback)
        return kind is not None and self._run.exit_answer()


# What these answer is of the host again.
OPENS = "transaction __enter__ execute stored_vectors EmbeddingIndex WikiChunkIndex".split()
OWN = "stored_vectors EmbeddingIndex WikiChunkIndex row_to_wiki_page moved_citation".split()
CACHE = "_wiki_chunk_index_cache"


class Run:
    """One call of the table on one store over freshly filled tables, and its outcome.

    Meanwhile the host's names in the module's namespace are watched ones. Every call of the host is
    recorded with its arguments, then ``act`` may raise or do harm, and then it is carried out. What
    is ``given`` are attributes.
    """

    def __init__(self, store: Any, database: Database, case: Case, **given: Any) -> None:
        (self.method, positional, keywords), warm = case
        self.arguments, self.keywords = copy.deepcopy((positional, keywords))
        if "moves" in keywords:
            self.keywords["rewrite"] = self.reported("rewrite", str.upper)
        self.module = sys.modules[store.__module__]
        self.database = database
        self.store: Any = type("Repository", (store,), {})()
        self.store.db = HostObject(self, database)
        names = {name: self.reported(name, getattr(self.module, name)) for name in OWN}
        names |= {"ChunkWords": self, "logger": HostObject(self, logging.Logger("silent", 99))}
        self.in_place = mock.patch.dict(vars(self.module), names)
        self.act: Act | None = None
        self.act_at = 0  # every call
        self.exit_saw: tuple[Any, ...] = (None,)
        self.exit_answer: Callable[[], bool] = bool  # to an error
        self.row_type: Callable[[Run, Any], Any] = lambda _run, row: row
        self.cell_type = self.argument_type = self.row_type
        self.calls: list[Any] = []  # with the look-ups between them
        self.number = 0  # of the calls
        self.answers: list[Any] = []  # rows and hits, as the store holds them just now
        fill(database)
        if warm:
            with self.in_place:
                self.store._wiki_chunk_index("main")
        self.calls.clear()
        self.answers.clear()
        self.number = 0
        self.cached = self.entry()
        self.result: Any = None
        self.error: BaseException | None = None
        self.raised: BaseException | None = None  # what an act failed with
        vars(self).update(given)

    def reported(self, name: str, function: Any) -> Any:
        return functools.partial(self.report, name, function)

    def before(self, name: str, *arguments: Any, **keywords: Any) -> None:
        self.calls.append((name, *map(describe, arguments), describe(keywords)))
        self.number += 1
        act, self.act = self.act, None  # what the act itself calls is only recorded
        try:
            if act is not None and self.act_at in (0, self.number):
                act(self)
        finally:
            self.act = act

    def report(self, name: str, function: Any, *arguments: Any, **keywords: Any) -> Any:
        self.before(name, *arguments, **keywords)
        result = function(*arguments, **keywords)
        if name == "index_generation":  # equal to the last one, and another object
            result = self.cell_type(self, ["generation", result])
        elif name == "rowcount":
            result = self.cell_type(self, result)
        elif name == "fetchone" and result is not None:
            result = self.row_type(self, result)
        elif name in ("fetchall", "ranked"):
            result = [self.row_type(self, row) for row in result]
            self.answers.append(result)
        return HostObject(self, result) if name in OPENS else result

    def build(self, items: Iterator[Any]) -> Any:
        """The host's ``ChunkWords.build``."""
        each = (self.before("item", item) or item for item in items)
        return self.report("build", lambda: ChunkWords.build(each))

    def go(self, act: Act | None = None) -> Run:
        """Makes the call; ``act`` may interfere at each call of the host."""
        self.arguments = tuple(self.argument_type(self, one) for one in self.arguments)
        with self.in_place:
            self.act = act
            try:
                self.result = getattr(self.store, self.method)(*self.arguments, **self.keywords)
            except BaseException as error:
                self.error = error
            finally:
                self.act = None
        return self

    def entry(self) -> Any:
        """The cached index of the branch "main", None without one."""
        cache = vars(self.store).get(CACHE)
        return cache.get("main") if isinstance(cache, dict) else None

    def outcome(self) -> dict[str, Any]:
        """All that can be seen of the call, to be compared between stores."""
        return {
            "result": describe(self.result),
            "error": describe(self.error),
            "context": describe(self.error and self.error.__context__),
            "calls": self.calls,
            "cache": list(vars(self.store).get(CACHE, ())),
            "kept": self.entry() is self.cached,
            "tables": tables(self.database),
        }


Act = Callable[[Run], Any]
