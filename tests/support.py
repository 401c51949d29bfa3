"""What the store's tests share: a leak check, a watched host, and a table of typical calls."""

from __future__ import annotations

import copy
import functools
import gc
import logging
import os
import random
import re
import sys
import time
import unittest
from array import array
from collections.abc import Callable, Iterator
from typing import Any
from unittest import mock

from benchmarks import plain_store
from tessaly.storage import repository_wiki as native_store
from tessaly.storage.database import Database
from tessaly.storage.schema import TABLES
from tessaly.storage.vector_codec import stored_vectors
from tessaly.storage.wiki_chunk_words import ChunkWords

SOAK = bool(os.environ.get("TESSALY_SOAK"))  # the long versions, for a night


class StoreTestCase(unittest.TestCase):
    """Runs every test anew until it has shown that it leaves no memory blocks behind.

    A leak leaves blocks each time; caches and the allocator's habits do not. A test that cannot be
    repeated, or runs its subject in other processes, says so: ``@not_leak_checked("why")``.
    """

    seed = ""
    repeating = False  # true while the test runs again: randomised tests then do less

    def _callTestMethod(self, method: Any) -> None:
        try:
            method()
        except BaseException as error:
            if self.seed:
                error.add_note(f"again with TESSALY_SEED={self.seed}")
            raise
        counted = sys.getallocatedblocks() > 0  # not with the allocator of the C library
        if counted and not self.repeating and not hasattr(method, "no_leak_check"):
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

    def rounds(self, usual: int) -> int:
        """How often a randomised test draws: more in a soak, less while it runs again."""
        return max(1, usual // 20) if self.repeating else usual * (20 if SOAK else 1)

    def random(self, name: str = "") -> random.Random:
        """A fresh source of random numbers; a failure of the test prints its seed."""
        self.seed = os.environ.get("TESSALY_SEED") or str(0 if self.repeating else time.time_ns())
        return random.Random(self.seed + name)


def not_leak_checked(reason: str) -> Callable[[Any], Any]:
    """Excuses one test from the leak check."""
    return lambda test: vars(test).update(no_leak_check=reason) or test


class DatabaseTestCase(StoreTestCase):
    """Tests on a database in memory; both stores can be run on it and compared."""

    def setUp(self) -> None:
        self.database = Database(":memory:")
        self.addCleanup(self.database.close)

    def same_outcome(
        self,
        case: Case,
        act: Act | None = None,
        prepare: Callable[[Run], Any] = lambda _run: None,
        **of_the_host: Any,
    ) -> Run:
        """The native store's run, once its outcome has been found equal to the plain one's."""
        seen = []
        for module in (plain_store, native_store):
            run = Run(module, self.database, case)
            vars(run.host).update(of_the_host)
            prepare(run)
            seen.append(run.go(act).outcome())
        self.assertEqual(*seen)
        return run


class HostObject:
    """A part of the host, watched: its calls go through ``Host.report``."""

    def __init__(self, host: Host, target: Any) -> None:
        self._host = host
        self._target = target

    def __getattr__(self, name: str) -> Any:
        value = getattr(self._target, name)
        self._host.seen.append(f"look up {name}")
        if name == "rowcount":
            return self._host.report(name, lambda: value)
        return functools.partial(self._host.report, name, value) if callable(value) else value

    def __enter__(self) -> HostObject:
        return self._host.report("__enter__", self._target.__enter__)

    def __exit__(self, kind: Any, error: Any, traceback: Any) -> bool:
        host = self._host
        host.exit_saw.append((kind, error, traceback, sys.exception()))
        try:
            host.before("__exit__", kind, error)
        except BaseException as fault:
            self._target.__exit__(type(fault), fault, None)
            raise
        self._target.__exit__(kind, error, traceback)
        if kind is not None and host.exit_raises is not None:
            raise host.exit_raises
        return host.exit_swallows


# What these answer is of the host again.
OPENS = "transaction __enter__ execute stored_vectors EmbeddingIndex WikiChunkIndex".split()


class Host:
    """The reference host on a database in memory, for the store of one module.

    Every call is recorded with its arguments, then handed to ``act`` (number from 1, name), which
    may raise or do harm, and then carried out. Within ``in_place`` the host names in the module's
    namespace are this host's.
    """

    def __init__(self, module: Any, database: Database) -> None:
        self.module = module
        self.database = database
        self.calls: list[Any] = []
        self.seen: list[str] = []  # the names of the calls, with the look-ups between them
        self.act: Callable[[int, str], None] | None = None
        self.exit_saw: list[tuple[Any, ...]] = []
        self.exit_swallows = False
        self.exit_raises: BaseException | None = None
        self.answers: list[Any] = []  # rows and hits, as the store holds them just now
        self.row_type: Callable[[Any], Any] = tuple
        self.cell_type: Callable[[Any], Any] = lambda value: value
        own = "stored_vectors EmbeddingIndex WikiChunkIndex row_to_wiki_page moved_citation"
        names = {name: self.reported(name, getattr(module, name)) for name in own.split()}
        names |= {"ChunkWords": self, "logger": HostObject(self, logging.Logger("silent", 99))}
        self.in_place = mock.patch.dict(vars(module), names)

    def reported(self, name: str, function: Any) -> Any:
        return lambda *arguments, **keywords: self.report(name, function, *arguments, **keywords)

    def before(self, name: str, *arguments: Any, **keywords: Any) -> None:
        self.calls.append((name, *map(describe, arguments), describe(keywords)))
        self.seen.append(name)
        act, self.act = self.act, None  # what the act itself calls is only recorded
        try:
            if act is not None:
                act(len(self.calls), name)
        finally:
            self.act = act

    def report(self, name: str, function: Any, *arguments: Any, **keywords: Any) -> Any:
        self.before(name, *arguments, **keywords)
        result = function(*arguments, **keywords)
        if name == "index_generation":  # equal to the last one, and another object
            result = self.cell_type(["generation", result])
        elif name == "rowcount":
            result = self.cell_type(result)
        elif name == "fetchone" and result is not None:
            result = self.row_type(result)
        elif name in ("fetchall", "ranked"):
            result = [self.row_type(row) for row in result]
            self.answers.append(result)
        return HostObject(self, result) if name in OPENS else result

    def build(self, items: Iterator[Any]) -> Any:
        """The host's ``ChunkWords.build``."""
        each = (self.before("item", item) or item for item in items)
        return self.report("build", lambda: ChunkWords.build(each))


def describe(value: Any) -> Any:
    """What an argument or a result is, types included; statements with their blanks collapsed."""
    if isinstance(value, tuple | list):
        return (type(value).__name__, *map(describe, value))
    if isinstance(value, dict):
        return ("dict", *((describe(key), describe(item)) for key, item in value.items()))
    if isinstance(value, str) and "wiki_" in value:
        return re.sub(r"\s+", " ", value)
    if isinstance(value, memoryview):
        return ("memoryview", *value.tolist())
    if isinstance(value, BaseException):
        told = re.sub("0x[0-9a-f]+", "0x", str(value))
        return (type(value).__name__, told, getattr(value, "name", None))
    if value is None or isinstance(value, str | int | float | bytes):
        return (type(value).__name__, repr(value))
    return type(value).__name__


PAGES = [  # branch, page_id, title, importance, source_files
    ("main", "alpha", "Alpha", "high", '["src/a.py", "lib\\\\b.py"]'),
    ("main", "beta", None, "low", '["src/b.py"]'),
    ("other", "alpha", "Else", "medium", '["src/a.py"]'),
]
CITED = '[{"path": "src/a.py", "start": 1, "end": 2}, {"path": "x", "start": 3, "end": 4}]'
CHUNKS = [  # page row id, branch, heading, citations, content, embedding
    (1, "main", "Start", CITED, "open the door", [1.0, 0.0, 0.0]),
    (1, "main", None, None, "close the window", [0.5, 0.5, 0.0]),
    (2, "main", "", "", "paint the wall", [0.0, 0.0, 1.0]),
    (3, "other", "Else", "[]", "open the lid", [0.0, 1.0]),
]
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


# Every method in its typical calls: name, positional and keyword arguments. The calls of the second
# list find the branch's index in the cache, built by a search before.
Call = tuple[str, tuple[Any, ...], dict[str, Any]]
COLD_CALLS: list[Call] = [
    ("_wiki_chunk_indexes", (), {}),
    ("upsert_wiki_page", ("main", "alpha", "New title"), {}),
    ("upsert_wiki_page", ("main", "gamma", "Gamma"), FULL_PAGE),
    ("replace_wiki_chunks", (1, "main", NEW_CHUNKS, "m"), {}),
    ("wiki_chunk_headings", ("main",), {}),
    ("wiki_chunk_texts", ("main",), {}),
    ("update_wiki_chunk_embeddings", ("main", [(1, [3.0, 2.0, 1.0]), [2, [1, 1, 1]]], "m"), {}),
    ("wiki_chunk_dimension", ("other",), {}),
    ("wiki_chunk_dimension", ("none",), {}),
    ("search_wiki_chunks", ([1.0, 0.25, 0.0], "main"), {}),
    ("search_wiki_chunks", ([1.0, 0.25, 0.0], "none"), {}),
    ("_wiki_chunk_index", ("other",), {}),
    ("get_wiki_pages", ("main",), {}),
    ("wiki_pages_citing", ("main", ["src\\a.py", "", "lib/b.py", "src/b.py", "src/a.py"]), {}),
    ("get_wiki_page", ("main", "beta"), {}),
    ("get_wiki_page", ("main", "none"), {}),
    ("get_wiki_state", ("main",), {}),
    ("upsert_wiki_state", ("main",), {"last_built_at": "now", "page_count": 3}),
    ("bump_wiki_changed", ("main", 2), {}),
]
WARM_CALLS: list[Call] = [
    ("invalidate_wiki_chunk_index", (), {}),
    ("upsert_wiki_page", ("main", "alpha", "New title"), {"symbols": ["s"]}),
    ("replace_wiki_chunks", (1, "main", [], "m"), {}),
    ("update_wiki_chunk_embeddings", ("main", [], "m"), {}),
    ("search_wiki_chunks", ([1.0, 0.25, 0.0], "main", 2), {"terms": ["door", "wall"]}),
    ("search_wiki_chunks", ([1.0, 0.25], "main"), {}),
    ("_wiki_chunk_index", ("main",), {}),
    ("update_wiki_page_citations", ("main", "alpha"), refresh()),
    ("update_wiki_page_citations", ("main", "none"), refresh()),
    ("delete_wiki_page", ("main", "alpha"), {}),
    ("delete_wiki_page", ("main", "none"), {}),
]
Case = tuple[Call, bool]  # with whether the index is cached
CALLS_OF_THE_STORE: list[Case] = [(call, False) for call in COLD_CALLS]
CALLS_OF_THE_STORE += [(call, True) for call in WARM_CALLS]


def fill(database: Database) -> None:
    """Puts the typical rows into a database, row ids from 1, whatever it held before."""
    encode = stored_vectors(database).encode
    chunks = [(*chunk[:-1], encode(chunk[-1])) for chunk in CHUNKS]
    inserted: list[tuple[str, str, list[Any]]] = [
        ("wiki_pages", "branch, page_id, title, importance, source_files", PAGES),
        ("wiki_chunks", "page_fk, branch, heading, citations, content, embedding", chunks),
        ("wiki_state", "branch, changed_since_build", [("main", 4)]),
    ]
    with database.transaction() as cursor:
        for table in (*reversed(TABLES), "sqlite_sequence"):
            cursor.execute(f"DELETE FROM {table}")
        for table, columns, rows in inserted:
            marks = ", ".join("?" * len(rows[0]))
            cursor.executemany(f"INSERT INTO {table} ({columns}) VALUES ({marks})", rows)


def tables(database: Database) -> list[Any]:
    """All rows, but for the time of day."""
    rows = []
    for table, columns in TABLES.items():
        timeless = ", ".join(column for column in columns if column != "generated_at")
        rows += database.fetchall(f"SELECT {timeless} FROM {table} ORDER BY 1")
    return rows


class Run:
    """One call of the table on one module's store over freshly filled tables, and its outcome."""

    def __init__(self, module: Any, database: Database, case: Case) -> None:
        (self.method, positional, keywords), warm = case
        self.host = Host(module, database)
        self.arguments, self.keywords = copy.deepcopy((positional, keywords))
        if "moves" in keywords:
            self.keywords["rewrite"] = self.host.reported("rewrite", str.upper)
        native = module is native_store
        base = native_store.WikiStore if native else plain_store.PlainWikiStore
        self.store: Any = type("Repository", (base,), {})()
        self.store.db = HostObject(self.host, database)
        fill(database)
        if warm:
            with self.host.in_place:
                self.store._wiki_chunk_index("main")
        self.host.calls.clear()
        self.host.answers.clear()
        self.cached = self.entry()
        self.result: Any = None
        self.error: BaseException | None = None
        self.raised: BaseException | None = None  # what an act failed with

    def go(self, act: Act | None = None) -> Run:
        """Makes the call; ``act`` may interfere at each call of the host."""
        with self.host.in_place:
            self.host.act = act and functools.partial(act, self)
            try:
                self.result = getattr(self.store, self.method)(*self.arguments, **self.keywords)
            except BaseException as error:
                self.error = error
            finally:
                self.host.act = None
        return self

    def entry(self) -> Any:
        """The cached index of the branch "main", None without one."""
        cache = self.store.__dict__.get("_wiki_chunk_index_cache")
        return cache.get("main") if isinstance(cache, dict) else None

    @property
    def kept(self) -> bool:
        """Whether the index that was cached before is cached still."""
        return self.entry() is self.cached

    def outcome(self) -> dict[str, Any]:
        """All that can be seen of the call, to be compared between stores."""
        cache = self.store.__dict__.get("_wiki_chunk_index_cache")
        return {
            "result": describe(self.result),
            "error": describe(self.error),
            "context": describe(self.error.__context__) if self.error else None,
            "calls": self.host.calls,
            "seen": self.host.seen,
            "cache": describe(cache) if not isinstance(cache, dict) else list(cache),
            "kept": self.kept,
            "tables": tables(self.host.database),
        }


Act = Callable[[Run, int, str], None]
