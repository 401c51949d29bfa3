"""The host check: the reference host passes, and each way of breaking a host is named."""

from __future__ import annotations

import contextlib
import functools
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
class Repository(WikiStore): pass
class Half(WikiStore): db = None
def broken(): raise RuntimeError('no such\\ndatabase')
"""


class Cursor:
    """A cursor with some attributes replaced: functions get the genuine cursor first."""

    def __init__(self, genuine: Any, changed: dict[str, Any]) -> None:
        self._genuine, self._changed = genuine, changed

    def __getattr__(self, name: str) -> Any:
        if callable(change := self._changed.get(name)):
            return functools.partial(change, self._genuine)
        return getattr(self._genuine, name) if change is None else change


Sabotage = Callable[[Host], Any]


def of(owner: Any, name: str, make: Callable[[Any], Any]) -> Sabotage:
    """Replaces an attribute by what ``make`` makes of the genuine one."""
    return lambda host: mock.patch.object(owner, name, make(getattr(owner, name)))


def blocks(leave: Any = lambda leave, *error: leave(*error), **cursor: Any) -> Sabotage:
    """Replaces the exit, or attributes of the cursor, of every transaction."""

    def block(genuine: Any) -> Any:
        made = mock.MagicMock()
        made.__enter__.side_effect = lambda: Cursor(genuine.__enter__(), cursor)
        made.__exit__.side_effect = functools.partial(leave, genuine.__exit__)
        return made

    return of(Database, "transaction", lambda begin: lambda db: block(begin(db)))


def committing(cursor: Any, statement: str, *rest: Any) -> Any:
    result = cursor.execute(statement, *rest)
    if statement.startswith("INSERT"):
        cursor.connection.commit()
        cursor.execute("BEGIN")
    return result


def sql(statement: str) -> Sabotage:
    return lambda host: contextlib.nullcontext(host.db.fetchall(statement))


def schema(table: str, old: str, new: str) -> Sabotage:
    """Makes a table anew, with another text in its definition."""

    def apply(host: Host) -> Any:
        definition = host.db.fetchone(f"SELECT sql FROM sqlite_master WHERE name = '{table}'")[0]
        assert old in definition, definition
        made = definition.replace(old, new)
        for statement in ("PRAGMA foreign_keys = OFF", f"DROP TABLE {table}", made):
            host.db.fetchall(statement)
        return sql("PRAGMA foreign_keys = ON")(host)

    return apply


def result(name: str, change: Callable[[Any], Any], owner: Any = Database) -> Sabotage:
    """Changes what a method returns."""
    return of(owner, name, lambda genuine: lambda *arguments: change(genuine(*arguments)))


hits = functools.partial(result, "ranked", owner=WikiChunkIndex)
MATCH = "SELECT rowid FROM wiki_chunk_words WHERE wiki_chunk_words MATCH ? LIMIT ?"

# What is done to the reference host, and words of the check that must then fail.
SABOTAGES: dict[str, tuple[Sabotage, str]] = {
    "nothing is committed": (
        blocks(lambda leave, *_: leave(ValueError, ValueError(), None)), "completes is kept"),
    "an exception commits": (
        blocks(lambda leave, *_: leave(None, None, None)), "that raises is undone"),
    "an exception is swallowed": (
        blocks(lambda leave, *error: leave(*error) or error[0] is not None), "that raises is"),
    "only an Exception rolls back": (
        blocks(lambda leave, kind, *rest: leave(
            kind if kind and issubclass(kind, Exception) else None, *rest)),
        "for KeyboardInterrupt too"),
    "each statement commits": (blocks(execute=committing), "undoes its whole block"),
    "execute gives nothing": (
        blocks(execute=lambda cursor, *given: cursor.execute(*given) and None), "execute gives"),
    "executemany stops after one": (
        blocks(executemany=lambda cursor, text, rows: cursor.execute(text, rows[0])), "each tuple"),
    "rowcount is not kept": (blocks(rowcount=-1), "rowcount counts"),
    "no row is an empty one": (result("fetchone", lambda row: row or ()), "a row or None"),
    "text is read as bytes": (
        result("fetchone", lambda row: row and [
            value.encode() if isinstance(value, str) else value for value in row]),
        "a row or None"),
    "rows can be read once": (result("fetchall", iter), "a list of rows"),
    "JSON comes decoded": (
        result("fetchall", lambda rows: [[
            json.loads(value) if str(value).startswith("[") else value for value in row]
            for row in rows]),
        "keep their text"),
    "a column is missing": (schema("wiki_chunks", "token_count", "tokens"), "have their columns"),
    "pages have no key": (
        schema("wiki_pages", ",\n    UNIQUE (branch, page_id)", ""), "wiki_pages is unique"),
    "chunk ids descend": (
        sql("CREATE TRIGGER sabotage AFTER INSERT ON wiki_chunks BEGIN"
            " UPDATE wiki_chunks SET id = 1000 - NEW.id WHERE id = NEW.id; END"),
        "id ascends"),
    "no cascade": (
        schema("wiki_chunks", "DELETE CASCADE", "DELETE SET DEFAULT"), "deletes its chunks"),
    "foreign keys are off": (sql("PRAGMA foreign_keys = OFF"), "keys are enforced"),
    "states have no key": (schema("wiki_state", "PRIMARY KEY", ""), "wiki_state is unique"),
    "a state needs a model": (
        schema("wiki_state", "model TEXT", "model TEXT NOT NULL"), "wiki_state is unique"),
    "a count may be NULL": (
        schema("wiki_state", "changed_since_build INTEGER NOT NULL", "changed_since_build INTEGER"),
        "never NULL"),
    "a page is a tuple": (of(repository_wiki, "row_to_wiki_page", lambda _: tuple), "as a record"),
    "columns name a table": (
        of(repository_wiki, "WIKI_PAGE_COLUMNS", lambda text: re.sub(r"\w+", r"p.\g<0>", text)),
        "built from a source file"),
    "a citation becomes a set": (
        of(repository_wiki, "moved_citation", lambda _: lambda citation, moves: set(citation)),
        "citations can be moved"),
    "the codec loses a component": (
        result("decode", lambda vector: vector[:-1], VectorCodec), "what it stored"),
    "the codec turns embeddings": (
        result("decode", lambda vector: vector.tolist()[::-1], VectorCodec), "what it stored"),
    "the generation is a clock": (
        of(Database, "index_generation", lambda _: lambda self, c=itertools.count(): next(c)),
        "stays equal"),
    "similarities are products": (
        hits(lambda found: [(hit[0], hit[1] * 3, hit[2]) for hit in found]), "by cosine"),
    "hits are pairs": (hits(lambda found: [hit[:2] for hit in found]), "by cosine"),
    "hits are generated": (hits(iter), "by cosine"),
    "the best comes last": (hits(lambda found: found[::-1]), "by cosine"),
    "words carry no score": (hits(lambda found: [(*hit[:2], None) for hit in found]), "fuses"),
    "words are query syntax": (
        of(repository_wiki.ChunkWords, "best", lambda _: lambda self, terms, top_k: [
            row[0] for row in self._connection.execute(MATCH, (" OR ".join(terms), top_k))]),
        "takes any words"),
}  # fmt: skip


class HostCheck(unittest.TestCase):
    def setUp(self) -> None:
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def host(self, name: str = "wiki.db") -> Host:
        return Host(Repository(self.enterContext(Database(self.folder / name))))

    def test_reference_host_holds_whatever_the_dimension_and_nothing_is_left_behind(self) -> None:
        def rows() -> list[str]:
            """All that the file holds, but for how far the automatic row ids have come."""
            with contextlib.closing(sqlite3.connect(self.folder / "wiki.db")) as connection:
                return [row for row in connection.iterdump() if '"sqlite_sequence"' not in row]

        host = self.host()
        Repository(host.db).bump_wiki_changed("main", 1)
        before = rows()
        for host.dimension in (2, 8, 384):
            for check in CHECKS:
                self.assertIsNone(run_check(check, host), check.title)
        self.assertEqual(rows(), before)

    def test_each_sabotage_is_named(self) -> None:
        for number, (name, (sabotage, words)) in enumerate(SABOTAGES.items()):
            with self.subTest(sabotage=name):
                host = self.host(f"{number}.db")
                with sabotage(host):
                    seen = {check.title: run_check(check, host) for check in CHECKS}
                (text,) = (text for title, text in seen.items() if words in title)
                self.assertTrue(text, seen)

    def test_program_says_what_holds_and_what_to_do_and_bad_usage_is_one_line(self) -> None:
        (self.folder / "someones_host.py").write_text(SOMEONES_HOST, encoding="utf-8")
        environment = {**os.environ, "PYTHONPATH": os.pathsep.join([str(self.folder), *sys.path])}
        command = [sys.executable, "-m", "tessaly_wiki_check"]
        for arguments, status, *words in (
            (REFERENCE, 0, f"\n{len(CHECKS)} of {len(CHECKS)} hold."),
            ("someones_host:Repository", 1, "set db in __init__"),
            ("someones_host:broken", 1, "seen: RuntimeError: no such database (in broken"),
            ("someones_host:Half", 1, f"\n0 of {len(CHECKS)} hold.",
             "may be left behind: AttributeError: 'NoneType' object has"),
            ("someones_host:nothing", 2, "someones_host has no function nothing"),
            ("", 2, "required"),
            ("nocolon", 2, "not of the form"),
            ("no_such_module:x", 2, "no module no_such_module"),
            (f"{REFERENCE} --dimension 1", 2, "2 or more"),
        ):  # fmt: skip
            done = subprocess.run(
                [*command, *arguments.split()], capture_output=True, text=True, env=environment
            )
            self.assertEqual(done.returncode, status, done)
            for text in words:
                self.assertIn(text, done.stdout + done.stderr)
            if status == 2:
                self.assertEqual((done.stdout, done.stderr.count("\n")), ("", 1))
