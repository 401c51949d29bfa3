"""The host check: the reference host passes, and each way of breaking a host is named."""

from __future__ import annotations

import contextlib
import itertools
import json
import os
import re
import sqlite3
import subprocess
import sys
import tempfile
import unittest
from collections.abc import Callable
from pathlib import Path
from typing import Any
from unittest import mock

from tessaly.storage import repository_wiki
from tessaly.storage.database import Database
from tessaly.storage.repository import Repository
from tessaly.storage.vector_codec import VectorCodec
from tessaly.storage.wiki_chunk_words import WikiChunkIndex
from tessaly_wiki_check.checks import run_check
from tessaly_wiki_check.cli import CHECKS
from tessaly_wiki_check.host import Host

REFERENCE = "tessaly_wiki_check.reference_host:repository"
SOMEONES_HOST = """
from tessaly.storage.repository_wiki import WikiStore

class Repository(WikiStore):
    pass

def broken():
    raise RuntimeError('no such\\ndatabase')

def half(path):
    repository = Repository()
    repository.db = None
    return repository
"""


class Block:
    """A transaction whose exit, cursor or rows misbehave as a sabotage says."""

    def __init__(self, inner: Any, exit: Any, cursor: Any) -> None:
        self._inner, self._exit, self._cursor = inner, exit, cursor

    def __enter__(self) -> Any:
        return self._cursor(self._inner.__enter__())

    def __exit__(self, kind: Any, error: Any, traceback: Any) -> Any:
        return self._exit(self._inner.__exit__, kind, error, traceback)


class Cursor:
    def __init__(self, cursor: Any) -> None:
        self._cursor = cursor

    def __getattr__(self, name: str) -> Any:
        return getattr(self._cursor, name)


class NoResult(Cursor):
    def execute(self, *arguments: Any) -> None:
        self._cursor.execute(*arguments)


class FirstOnly(Cursor):
    def executemany(self, statement: str, rows: list[Any]) -> None:
        self._cursor.execute(statement, rows[0])


class NoCount(Cursor):
    rowcount = -1


class EachAlone(Cursor):
    def execute(self, *arguments: Any) -> Any:
        result = self._cursor.execute(*arguments)
        if arguments[0].startswith("INSERT"):
            self._cursor.connection.commit()
            self._cursor.execute("BEGIN")
        return result


def blocks(exit: Any = None, cursor: Any = lambda cursor: cursor) -> Callable[[Host], Any]:
    """Replaces the exit or the cursor of every transaction."""

    def plain(inner: Any, *arguments: Any) -> Any:
        return inner(*arguments)

    def transaction(self: Database) -> Block:
        return Block(genuine(self), exit or plain, cursor)

    genuine = Database.transaction
    return lambda host: mock.patch.object(Database, "transaction", transaction)


def of(owner: Any, name: str, make: Callable[[Any], Any]) -> Callable[[Host], Any]:
    """Replaces an attribute by what ``make`` makes of the genuine one."""
    return lambda host: mock.patch.object(owner, name, make(getattr(owner, name)))


def pragma(statement: str) -> Callable[[Host], Any]:
    def apply(host: Host) -> Any:
        host.db.fetchall(statement)
        return contextlib.nullcontext()

    return apply


def schema(table: str, old: str, new: str) -> Callable[[Host], Any]:
    """Makes a table anew, with another text in its definition."""

    def apply(host: Host) -> Any:
        query = "SELECT sql FROM sqlite_master WHERE name = ?"
        definition = host.db.fetchone(query, (table,))[0]
        assert old in definition, definition
        host.db.fetchall("PRAGMA foreign_keys = OFF")
        with host.db.transaction() as cursor:
            cursor.execute(f"DROP TABLE {table}")
            cursor.execute(definition.replace(old, new))
        host.db.fetchall("PRAGMA foreign_keys = ON")
        return contextlib.nullcontext()

    return apply


def trigger(statement: str) -> Callable[[Host], Any]:
    def apply(host: Host) -> Any:
        host.write(f"CREATE TRIGGER sabotage {statement}", ())
        return contextlib.nullcontext()

    return apply


def as_bytes(row: Any) -> Any:
    return row and tuple(x.encode() if isinstance(x, str) else x for x in row)


def decoded_json(rows: list[Any]) -> list[Any]:
    return [
        tuple(json.loads(x) if isinstance(x, str) and x[:1] == "[" else x for x in row)
        for row in rows
    ]


def hits(change: Callable[[list[Any]], Any]) -> Callable[[Host], Any]:
    """Changes what ranked returns."""
    return of(WikiChunkIndex, "ranked", lambda genuine: lambda *a: change(genuine(*a)))


BLOCK_RAISES = "a block that raises is undone, and the exception goes on"
BY_MEANING = "ranked orders by cosine when there are no terms"
BY_WORDS = "ranked fuses meaning and words when there are terms"
COLUMNS = "the tables have their columns"
PAGE_KEY = "wiki_pages is unique by (branch, page_id), and a page keeps its row id"
STATE_KEY = "wiki_state is unique by branch and counts from nothing"

# What is done to the reference host, and the title of the check that must then fail.
SABOTAGES: dict[str, tuple[Callable[[Host], Any], str]] = {
    "nothing is committed": (
        blocks(lambda leave, *_: leave(ValueError, ValueError(), None)),
        "a block that completes is kept",
    ),
    "an exception commits": (
        blocks(lambda leave, *_: leave(None, None, None)), BLOCK_RAISES),
    "an exception is swallowed": (
        blocks(lambda leave, kind, *rest: leave(kind, *rest) or kind is not None), BLOCK_RAISES),
    "only an Exception rolls back": (
        blocks(lambda leave, kind, *rest: leave(
            kind if kind and issubclass(kind, Exception) else None, *rest)),
        "a block is undone for KeyboardInterrupt too",
    ),
    "each statement commits": (
        blocks(cursor=EachAlone), "a statement that fails undoes its whole block"),
    "execute gives nothing": (
        blocks(cursor=NoResult), "a cursor's execute gives a result with fetchone and fetchall"),
    "executemany stops after one": (
        blocks(cursor=FirstOnly), "a cursor's executemany runs a statement for each tuple"),
    "rowcount is not kept": (
        blocks(cursor=NoCount), "a cursor's rowcount counts the rows of the last execute"),
    "no row is an empty one": (
        of(Database, "fetchone", lambda genuine: lambda *a: genuine(*a) or ()),
        "db.fetchone gives a row or None",
    ),
    "text is read as bytes": (
        of(Database, "fetchone", lambda genuine: lambda *a: as_bytes(genuine(*a))),
        "db.fetchone gives a row or None",
    ),
    "rows can be read once": (
        of(Database, "fetchall", lambda genuine: lambda *a: iter(genuine(*a))),
        "db.fetchall gives a list of rows",
    ),
    "JSON comes decoded": (
        of(Database, "fetchall", lambda genuine: lambda *a: decoded_json(genuine(*a))),
        "JSON columns keep their text",
    ),
    "a column is missing": (schema("wiki_chunks", "token_count", "tokens"), COLUMNS),
    "pages have no key": (
        schema("wiki_pages", ",\n    UNIQUE (branch, page_id)", ""), PAGE_KEY),
    "chunk ids descend": (
        trigger("AFTER INSERT ON wiki_chunks BEGIN UPDATE wiki_chunks SET id = 1000 - NEW.id"
                " WHERE id = NEW.id; END"),
        "wiki_chunks.id ascends in order of insertion",
    ),
    "no cascade": (
        schema("wiki_chunks", " ON DELETE CASCADE", " ON DELETE SET DEFAULT"),
        "deleting a page deletes its chunks",
    ),
    "foreign keys are off": (
        pragma("PRAGMA foreign_keys = OFF"), "foreign keys are enforced"),
    "states have no key": (schema("wiki_state", "PRIMARY KEY", ""), STATE_KEY),
    "a state needs a model": (schema("wiki_state", "model TEXT", "model TEXT NOT NULL"), STATE_KEY),
    "a count may be NULL": (
        schema("wiki_state", "changed_since_build INTEGER NOT NULL", "changed_since_build INTEGER"),
        "wiki_state.changed_since_build is never NULL",
    ),
    "a page is a tuple": (
        of(repository_wiki, "row_to_wiki_page", lambda _: tuple), "a page is read as a record"),
    "columns name a table": (
        of(repository_wiki, "WIKI_PAGE_COLUMNS", lambda text: re.sub(r"\w+", r"p.\g<0>", text)),
        "the pages built from a source file are found",
    ),
    "a citation becomes a set": (
        of(repository_wiki, "moved_citation", lambda _: lambda citation, moves: set(citation)),
        "a chunk's citations can be moved",
    ),
    "the codec loses a component": (
        of(VectorCodec, "decode", lambda genuine: lambda *a: genuine(*a)[:-1]),
        "the codec gives back what it stored",
    ),
    "the codec turns embeddings": (
        of(VectorCodec, "decode", lambda genuine: lambda *a: genuine(*a).tolist()[::-1]),
        "the codec gives back what it stored",
    ),
    "the generation is a clock": (
        of(Database, "index_generation", lambda _: lambda self, c=itertools.count(): next(c)),
        "index_generation stays equal while nothing replaces the index",
    ),
    "similarities are products": (
        hits(lambda found: [(hit[0], hit[1] * 3, hit[2]) for hit in found]), BY_MEANING),
    "hits are pairs": (hits(lambda found: [hit[:2] for hit in found]), BY_MEANING),
    "hits are generated": (hits(iter), BY_MEANING),
    "the best comes last": (hits(lambda found: found[::-1]), BY_MEANING),
    "words carry no score": (hits(lambda found: [(*hit[:2], None) for hit in found]), BY_WORDS),
    "words are query syntax": (
        of(repository_wiki.ChunkWords, "best", lambda _: lambda self, terms, top_k: [
            row[0] for row in self._connection.execute(
                "SELECT rowid FROM wiki_chunk_words WHERE wiki_chunk_words MATCH ? LIMIT ?",
                (" OR ".join(terms), top_k))]),
        "ranked takes any words",
    ),
}  # fmt: skip


class HostCheck(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def host(self, name: str = "wiki.db") -> Host:
        database = Database(self.folder / name)
        self.addCleanup(database.close)
        return Host(Repository(database))

    def rows(self) -> list[str]:
        """All that the database file holds, but for how far the automatic row ids have come."""
        with contextlib.closing(sqlite3.connect(self.folder / "wiki.db")) as connection:
            return [row for row in connection.iterdump() if '"sqlite_sequence"' not in row]

    def test_reference_host_holds_whatever_the_dimension_and_nothing_is_left_behind(self) -> None:
        host = self.host()
        Repository(host.db).bump_wiki_changed("main", 1)
        before = self.rows()
        for host.dimension in (2, 8, 384):
            for check in CHECKS:
                self.assertIsNone(run_check(check, host), check.title)
        self.assertEqual(self.rows(), before)

    def test_each_sabotage_is_named(self) -> None:
        for number, (name, (sabotage, title)) in enumerate(SABOTAGES.items()):
            with self.subTest(sabotage=name):
                host = self.host(f"{number}.db")
                with sabotage(host):
                    seen = {check.title: run_check(check, host) for check in CHECKS}
                failed = [title for title, text in seen.items() if text]
                self.assertIn(title, failed, seen)

    def run_program(self, *arguments: str) -> tuple[int, str, str]:
        path = os.pathsep.join([str(self.folder), *sys.path])
        done = subprocess.run(
            [sys.executable, "-m", "tessaly_wiki_check", *arguments],
            capture_output=True, text=True, timeout=60, env={**os.environ, "PYTHONPATH": path},
        )  # fmt: skip
        return done.returncode, done.stdout, done.stderr

    def test_program_says_what_holds_and_what_to_do(self) -> None:
        (self.folder / "someones_host.py").write_text(SOMEONES_HOST, encoding="utf-8")
        for factory, status, text in (
            (REFERENCE, 0, f"\n{len(CHECKS)} of {len(CHECKS)} hold."),
            ("someones_host:Repository", 1, "set db in __init__"),
            ("someones_host:broken", 1, "seen: RuntimeError: no such database (in broken"),
            ("someones_host:half", 1, f"\n0 of {len(CHECKS)} hold."),
            ("someones_host:half", 1, "may be left behind: AttributeError: 'NoneType' object has"),
            ("someones_host:nothing", 2, "someones_host has no function nothing"),
        ):
            with self.subTest(factory=factory):
                done = self.run_program(factory)
                self.assertEqual(done[0], status, done)
                self.assertIn(text, done[1] + done[2])

    def test_bad_usage_is_one_line(self) -> None:
        for arguments in ([], ["nocolon"], ["no_such_module:x"], [REFERENCE, "--dimension", "1"]):
            with self.subTest(arguments=arguments):
                status, out, err = self.run_program(*arguments)
                self.assertEqual((status, out, err.count("\n")), (2, "", 1), err)


if __name__ == "__main__":
    unittest.main()
