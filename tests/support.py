"""What the store's tests share: a leak check, a watched host, and a table of typical calls."""

from __future__ import annotations

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
from collections.abc import Callable, Iterable, Iterator
from typing import Any

from benchmarks import plain_store
from tessaly.storage import repository_wiki as native_store
from tessaly.storage import vector_codec, vector_index, wiki_chunk_words, wiki_rows
from tessaly.storage.database import Database
from tessaly.storage.schema import TABLES

SOAK = bool(os.environ.get("TESSALY_SOAK"))  # the long versions, for a night
SILENT = logging.Logger("silent")
SILENT.addHandler(logging.NullHandler())


class StoreTestCase(unittest.TestCase):
    """Runs every test anew until it has shown that it leaves no memory blocks behind.

    A leak leaves blocks each time; caches and the allocator's habits do not. A test that cannot be
    repeated, or runs its subject in other processes, says so: ``@not_leak_checked("why")``.
    """

    seed = ""
    repeating = False  # true while the test runs again: randomised tests then do less

    def __init_subclass__(cls, **keywords: Any) -> None:
        super().__init_subclass__(**keywords)
        for name, test in list(vars(cls).items()):
            if name.startswith("test_"):
                setattr(cls, name, _checked(test))

    def rounds(self, usual: int) -> int:
        """How often a randomised test draws: more in a soak, less while it runs again."""
        return max(1, usual // 20) if self.repeating else usual * (20 if SOAK else 1)

    def random(self, name: str = "") -> random.Random:
        """A fresh source of random numbers; a failure of the test prints its seed."""
        self.seed = os.environ.get("TESSALY_SEED") or str(0 if self.repeating else time.time_ns())
        return random.Random(self.seed + name)


def not_leak_checked(reason: str) -> Callable[[Any], Any]:
    """Excuses one test from the leak check."""

    def mark(test: Any) -> Any:
        test.no_leak_check = reason
        return test

    return mark


def _checked(test: Any) -> Callable[[Any], None]:
    @functools.wraps(test)
    def run(case: StoreTestCase) -> None:
        try:
            test(case)
        except BaseException as error:
            if case.seed:
                error.add_note(f"again with TESSALY_SEED={case.seed}")
            raise
        counted = sys.getallocatedblocks() > 0  # not with the allocator of the C library
        if counted and not case.repeating and not hasattr(test, "no_leak_check"):
            _repeat(case)

    return run


def _repeat(case: StoreTestCase) -> None:
    again = type(case)(case._testMethodName)
    again.repeating = True
    counts = array("q", [0] * 10)  # made before, so that counting takes no block itself
    for at in range(len(counts)):
        again.debug()
        sys._clear_type_cache()  # it keeps the names alive that were looked up
        gc.collect()
        counts[at] = sys.getallocatedblocks()
        if at >= 2 and counts[at - 2] >= counts[at - 1] >= counts[at]:
            return
    case.fail(f"memory blocks after each repetition: {counts.tolist()}")


class HostObject:
    """A part of the host, watched: its calls go through ``Host.report``."""

    def __init__(self, host: Host, target: Any) -> None:
        self._host = host
        self._target = target

    def __getattr__(self, name: str) -> Any:
        value = getattr(self._target, name)
        if name == "rowcount":
            return self._host.report(name, lambda: value)
        return functools.partial(self._host.report, name, value) if name in CALLS else value

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


CALLS = frozenset(
    "transaction execute executemany fetchone fetchall index_generation encode decode load ranked"
    " warning".split()
)
OPENS = frozenset(  # what these answer is of the host again
    "transaction __enter__ execute stored_vectors EmbeddingIndex WikiChunkIndex".split()
)


class Host:
    """The reference host on a database in memory, for the store of one module.

    Every call is recorded with its arguments, then handed to ``act`` (number from 1, name), which
    may raise or do harm, and then carried out. As a context manager it takes the places of the
    host names in the module's namespace.
    """

    def __init__(self, module: Any, database: Database) -> None:
        self.module = module
        self.calls: list[Any] = []
        self.act: Callable[[int, str], None] | None = None
        self.exit_saw: list[tuple[Any, ...]] = []
        self.exit_swallows = False
        self.exit_raises: BaseException | None = None
        self.database = database
        self.answers: list[Any] = []  # rows and hits, as the store holds them just now
        self.row_type: type = tuple
        self.saved: dict[str, Any] = {}
        self.names = {
            "stored_vectors": self.reported("stored_vectors", vector_codec.stored_vectors),
            "EmbeddingIndex": self.reported("EmbeddingIndex", vector_index.EmbeddingIndex),
            "ChunkWords": self,
            "WikiChunkIndex": self.reported("WikiChunkIndex", wiki_chunk_words.WikiChunkIndex),
            "WIKI_PAGE_COLUMNS": wiki_rows.WIKI_PAGE_COLUMNS,
            "row_to_wiki_page": self.reported("row_to_wiki_page", wiki_rows.row_to_wiki_page),
            "moved_citation": self.reported("moved_citation", wiki_rows.moved_citation),
            "logger": HostObject(self, SILENT),
        }

    def reported(self, name: str, function: Any) -> Any:
        return lambda *arguments, **keywords: self.report(name, function, *arguments, **keywords)

    def before(self, name: str, *arguments: Any, **keywords: Any) -> None:
        self.calls.append((name, *map(describe, arguments), describe(keywords)))
        if self.act is not None:
            self.act(len(self.calls), name)

    def report(self, name: str, function: Any, *arguments: Any, **keywords: Any) -> Any:
        self.before(name, *arguments, **keywords)
        result = function(*arguments, **keywords)
        if name in ("fetchall", "ranked"):
            result = [self.row_type(row) for row in result]
            self.answers.append(result)
        elif name == "index_generation":
            result = ["generation", result]  # equal to the last one, and another object
        return HostObject(self, result) if name in OPENS else result

    def build(self, items: Iterable[Any]) -> Any:
        """The host's ``ChunkWords.build``."""
        return self.report("build", lambda: wiki_chunk_words.ChunkWords.build(self._each(items)))

    def _each(self, items: Iterable[Any]) -> Iterator[Any]:
        for item in items:
            self.before("item", item)
            yield item

    def __enter__(self) -> Host:
        self.saved = dict(vars(self.module))
        vars(self.module).update(self.names)
        return self

    def __exit__(self, *_error: object) -> None:
        names = vars(self.module)
        for name in names.keys() - self.saved.keys():
            del names[name]
        names.update(self.saved)


def describe(value: Any) -> Any:
    """What an argument or a result is, types included; statements with their blanks collapsed."""
    if isinstance(value, tuple | list):
        return (type(value).__name__, *map(describe, value))
    if isinstance(value, dict):
        return ("dict", *((describe(key), describe(item)) for key, item in value.items()))
    if isinstance(value, str) and "wiki_" in value:
        return re.sub(r"(?<=\() | (?=\))", "", re.sub(r"\s+", " ", value)).strip()
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
FULL_PAGE = {
    "description": "d",
    "importance": "low",
    "parent_section": "s",
    "source_files": ["a", "b"],
    "source_hashes": {"a": "1"},
    "symbols": ("t",),
    "related_pages": [],
    "citations": [{"path": "a", "start": 1, "end": 2}],
    "build_cache": "{}",
    "page_type": "guide",
}


def refresh(**changed: Any) -> dict[str, Any]:
    """The keyword arguments of a citation refresh."""
    moves = {("src/a.py", 1, 2): (5, 6)}
    given = {"citations": [{"path": "p"}], "content_hash": "h", "build_cache": None, "moves": moves}
    return given | changed


# Every method in its typical calls: name, positional and keyword arguments. The calls of the second
# list find the branch's index in the cache, built by a search before.
COLD_CALLS: list[tuple[str, tuple[Any, ...], dict[str, Any]]] = [
    ("_wiki_chunk_indexes", (), {}),
    ("invalidate_wiki_chunk_index", (), {}),
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
    ("wiki_pages_citing", ("main", []), {}),
    ("get_wiki_page", ("main", "beta"), {}),
    ("get_wiki_page", ("main", "none"), {}),
    ("get_wiki_state", ("main",), {}),
    ("upsert_wiki_state", ("main",), {"last_built_at": "now", "page_count": 3}),
    ("bump_wiki_changed", ("main", 2), {}),
    ("bump_wiki_changed", ("new", -1), {}),
]
WARM_CALLS: list[tuple[str, tuple[Any, ...], dict[str, Any]]] = [
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
CALLS_OF_THE_STORE = [(call, False) for call in COLD_CALLS] + [(call, True) for call in WARM_CALLS]


def fill(database: Database) -> None:
    """Puts the typical rows into a database, row ids from 1, whatever it held before."""
    with database.transaction() as cursor:
        for table in reversed(TABLES):
            cursor.execute(f"DELETE FROM {table}")
        cursor.execute("DELETE FROM sqlite_sequence")
        cursor.executemany(
            "INSERT INTO wiki_pages (branch, page_id, title, importance, source_files)"
            " VALUES (?, ?, ?, ?, ?)",
            PAGES,
        )
        encode = vector_codec.stored_vectors(database).encode
        cursor.executemany(
            "INSERT INTO wiki_chunks (page_fk, branch, heading, citations, content, embedding)"
            " VALUES (?, ?, ?, ?, ?, ?)",
            [(*chunk[:5], encode(chunk[5])) for chunk in CHUNKS],
        )
        cursor.execute("INSERT INTO wiki_state (branch, changed_since_build) VALUES ('main', 4)")


def tables(database: Database) -> list[Any]:
    """All rows, but for the time of day."""
    found = []
    for table, columns in TABLES.items():
        kept = ", ".join(column for column in columns if column != "generated_at")
        found.append(database.fetchall(f"SELECT {kept} FROM {table} ORDER BY 1"))
    return found


def copied(value: Any) -> Any:
    """The value with lists and dicts of its own."""
    if isinstance(value, list | tuple):
        return type(value)(map(copied, value))
    return {key: copied(item) for key, item in value.items()} if isinstance(value, dict) else value


class Run:
    """One call of the table on one module's store over freshly filled tables, and its outcome."""

    def __init__(self, module: Any, database: Database, case: tuple[Any, bool]) -> None:
        (self.method, positional, keywords), warm = case
        self.host = Host(module, database)
        self.arguments = copied(positional)
        self.keywords = copied(keywords)
        if "moves" in keywords:
            self.keywords["rewrite"] = self.host.reported("rewrite", str.upper)
        self.base = store_class(module)
        repository: Any = type("Repository", (self.base, Named), {})
        self.store = repository(HostObject(self.host, database))
        fill(database)
        with self.host:
            if warm:
                self.store._wiki_chunk_index("main")
                self.host.calls.clear()
                self.host.answers.clear()
        self.cached = self.entry()
        self.result: Any = None
        self.error: BaseException | None = None

    def go(self, act: Callable[[Run, int, str], None] | None = None) -> Run:
        """Makes the call; ``act`` may interfere at each call of the host."""
        host = self.host

        def interfere(number: int, name: str) -> None:
            host.act = None  # what the act itself calls is only recorded
            try:
                act(self, number, name)
            finally:
                host.act = interfere

        with host:
            host.act = interfere if act else None
            try:
                self.result = getattr(self.store, self.method)(*self.arguments, **self.keywords)
            except BaseException as error:
                self.error = error
            finally:
                host.act = None
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
            "cache": describe(cache) if not isinstance(cache, dict) else list(cache),
            "kept": self.kept,
            "tables": tables(self.host.database),
        }


class Named:
    """Another base of a repository, with attributes of its own."""

    def __init__(self, db: Any) -> None:
        self.db = db


def store_class(module: Any) -> type:
    """The store of a module, native or plain."""
    return module.WikiStore if module is native_store else plain_store.PlainWikiStore
