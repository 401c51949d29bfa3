"""The host check: good hosts pass whole, and each way of breaking one is named first."""

from __future__ import annotations

import contextlib
import functools
import itertools
import os
import re
import sqlite3
import struct
import subprocess
import sys
import tempfile
import unittest
from array import array
from collections.abc import Callable
from pathlib import Path
from typing import Any
from unittest import mock

from tessaly.storage import database, repository_wiki, schema, wiki_chunk_words
from tessaly.storage.database import Database, Transaction
from tessaly.storage.repository import Repository
from tessaly.storage.vector_codec import VectorCodec
from tessaly.storage.vector_index import EmbeddingIndex
from tessaly.storage.wiki_chunk_words import ChunkWords, WikiChunkIndex
from tessaly_wiki_check.checks import outcomes
from tessaly_wiki_check.cli import CHECKS
from tessaly_wiki_check.host import Host

BUILD = Path(repository_wiki.__file__).parents[3]  # of the tree that is being tested


class Cursor:
    """A cursor with some attributes replaced: functions get the genuine cursor first."""

    def __init__(self, genuine: Any, changed: dict[str, Any]) -> None:
        self._genuine, self._changed = genuine, changed

    def __getattr__(self, name: str) -> Any:
        if callable(change := self._changed.get(name)):
            return functools.partial(change, self._genuine)
        return getattr(self._genuine, name) if change is None else change


Sabotage = Callable[[], Any]  # gives a context manager


def of(owner: Any, name: str, make: Callable[[Any], Any]) -> Sabotage:
    """Replaces an attribute by what ``make`` makes of the genuine one."""
    return lambda: mock.patch.object(owner, name, make(getattr(owner, name)))


def result(name: str, change: Callable[[Any], Any], owner: Any = Database) -> Sabotage:
    """Changes what a method returns."""
    return of(owner, name, lambda genuine: lambda *a, **k: change(genuine(*a, **k)))


def cursor(**changed: Any) -> Sabotage:
    return result("__enter__", lambda genuine: Cursor(genuine, changed), Transaction)


def left(change: Callable[..., Any]) -> Sabotage:
    """Changes how a block is left; ``change`` gets the genuine way, and the error."""
    return of(Transaction, "__exit__", lambda genuine: lambda block, *error: change(
        functools.partial(genuine, block), error))  # fmt: skip


def declared(old: str, new: str) -> Sabotage:
    """Changes the definition of the tables, and lets nothing else look at them."""

    @contextlib.contextmanager
    def changed() -> Any:
        assert old in schema._DEFINITIONS, old
        text = schema._DEFINITIONS.replace(old, new)
        with (
            mock.patch.object(schema, "_DEFINITIONS", text),
            mock.patch.object(database, "absent_tables", lambda _connection: True),
        ):
            yield

    return changed


def trigger(body: str) -> Sabotage:
    insert = "INSERT OR IGNORE"
    return declared(insert, f"CREATE TRIGGER IF NOT EXISTS sabotage AFTER {body}; END; {insert}")


def connected(change: Callable[[sqlite3.Connection], Any]) -> Sabotage:
    """Does something to every connection."""
    return result("_connect", lambda session: (change(session.connection), session)[1])


def codec(encode: Callable[[Any], Any], decode: Callable[[Any], Any]) -> Sabotage:
    return lambda: mock.patch.multiple(
        VectorCodec, encode=lambda _, given: encode(given), decode=lambda _, kept: decode(kept)
    )


hits = functools.partial(result, "ranked", owner=WikiChunkIndex)


def committing(genuine: Any, statement: str, *rest: Any) -> Any:
    done = genuine.execute(statement, *rest)
    if statement.startswith("INSERT"):
        genuine.connection.commit()
        genuine.execute("BEGIN")
    return done


def shared_words(build: Any) -> Any:
    words = [ChunkWords(None)]

    def built(items: Any) -> Any:
        words.append(build(items))
        words[0]._connection = words[-1]._connection
        return words[0]

    return built


CHUNKS = "INSERT ON wiki_chunks BEGIN UPDATE wiki_chunks SET"
# The check that must be the first to fail, the only one, and what is done to the reference host.
SABOTAGES: list[tuple[str, Sabotage]] = [
    ("fetchone", result("fetchone", lambda row: row and dict(enumerate(row, 1)))),
    ("fetchall", result("fetchall", iter)),
    ("sqlite", of(Database, "fetchone", lambda read: lambda db, text, *rest: read(
        db, text.replace("sqlite_version()", "'3.8.2'"), *rest))),
    ("columns", declared("token_count", "tokens")),
    ("columns", declared("page_count INTEGER NOT NULL DEFAULT 0", "page_count INTEGER NOT NULL")),
    ("factory", of(Database, "_connect", lambda connect: lambda *given, kept=[], **named: (
        kept.append(connect(*given, **named)), kept[0])[1])),
    ("commit", result("__enter__", lambda _: None, Transaction)),
    ("commit", left(lambda leave, _: leave(ValueError, None, None))),
    ("fresh_reads", of(Database, "fetchall", functools.cache)),
    ("errors", left(lambda leave, error: leave(*error) or error[0] is not None)),
    ("one_transaction", cursor(execute=committing)),
    ("undone", left(lambda leave, _: leave(None, None, None))),
    ("undone", left(lambda leave, error: leave(
        error[0] if error[0] and issubclass(error[0], Exception) else None, *error[1:]))),
    ("cursor", cursor(execute=lambda genuine, *given: genuine.execute(*given) and None)),
    ("cursor", cursor(executemany=lambda genuine, text, rows: [
        genuine.execute(text, row) for row in rows[:1]])),
    ("cursor", cursor(rowcount=-1)),
    ("codec", codec(lambda given: array("d", (round(x, 1) for x in given)).tobytes(),
        lambda kept: array("d", kept))),
    ("page_key", declared("page_id TEXT", "page_id TEXT COLLATE NOCASE")),
    ("state_key", declared("changed_since_build INTEGER NOT NULL", "changed_since_build INTEGER")),
    ("chunk_ids", trigger(f"{CHUNKS} id = 1000 - NEW.id WHERE id = NEW.id")),
    ("foreign_keys", connected(lambda made: made.execute("PRAGMA foreign_keys = OFF"))),
    ("cascade", declared(" ON DELETE CASCADE", "")),
    ("values", trigger(f"{CHUNKS} citations = json(NEW.citations) WHERE id = NEW.id")),
    ("page_columns", of(repository_wiki, "WIKI_PAGE_COLUMNS",
        lambda text: re.sub(r"\w+", r"wiki_pages.\g<0>", text))),
    ("record", of(repository_wiki, "row_to_wiki_page", lambda make: lambda row: {
        **make(row), "summary": row[2]})),
    ("citations", of(repository_wiki, "moved_citation", lambda _: lambda citation, moves: citation)),
    ("generation", of(Database, "index_generation", lambda _: lambda db: id(db))),
    ("index", of(WikiChunkIndex, "__init__", lambda make: lambda index, generation, **rest: make(
        index, generation=str(generation), **rest))),
    ("meaning", hits(sorted)),
    ("fusion", lambda: mock.patch.object(wiki_chunk_words, "_FUSION_K", 59)),
    ("fusion", of(ChunkWords, "build", lambda build: lambda items: build(
        (chunk_id, None, text) for chunk_id, _, text in items))),
    ("word_similarity", result("similarities", lambda found: [0.0] * len(found), EmbeddingIndex)),
    ("any_words", of(ChunkWords, "best", lambda best: lambda words, terms, top_k: best(
        words, [term for term in terms if term.isalnum() or 1 / 0], top_k))),
    ("branches", of(ChunkWords, "build", shared_words)),
]  # fmt: skip


class Connection(sqlite3.Connection):
    """Another class of connections."""


GOOD: dict[str, Sabotage] = {
    "intact": contextlib.nullcontext,
    "half precision": codec(lambda given: struct.pack(f"{len(given)}e", *given),
        lambda kept: struct.unpack(f"{len(kept) // 2}e", kept)),
    "scaled bytes": codec(
        lambda given: bytes(round(127 + 127 * x / max(map(abs, given))) for x in given),
        lambda kept: [x - 127.0 for x in kept]),
    "rows that know their columns": connected(
        lambda made: setattr(made, "row_factory", sqlite3.Row)),
    "another class of connections": lambda: mock.patch.object(
        sqlite3, "connect", functools.partial(sqlite3.connect, factory=Connection)),
}  # fmt: skip

FACTORIES = """
import sqlite3
from tessaly.storage.database import Database
from tessaly.storage.repository import Repository
def repository(path): return Repository(Database(path))
def broken(): raise RuntimeError('no such\\ndatabase')
def memory(): return Repository(Database(':memory:'))
"""
# Lines of a copy of the reference host and what stands there instead; what is said of the copy.
OK, FAIL = f"\n{len(CHECKS)} of {len(CHECKS)} hold", "FAIL  A repository can be made\n      seen: "
PROGRAM: list[tuple[str, str, int, str]] = [
    ("", "mine:repository", 0, OK),
    ("", "mine:repository --dimension 384", 0, OK),
    ("", 'mine:repository --citation {"path":"a.py","lines":[1,3]}', 1, "FAIL  moved_citation moves"),
    ("database/foreign_keys = ON/foreign_keys = OFF", "mine:repository", 1, "FAIL  Foreign keys are"),
    ("wiki_rows/import json/import no_json", "mine:repository", 1, f"{FAIL}ModuleNotFoundError: No "
        "module named 'no_json' (in <module>, "),
    ("repository/(WikiStore, /(", "mine:repository", 1, "no WikiStore among its bases"),
    ("", "mine:broken", 1, f"{FAIL}RuntimeError: no such database (in broken, "),
    ("", "mine:memory", 1, "file of the second: '', not 'a file'"),
    ("", "mine:nothing", 2, "mine has no nothing to be called"),
    ("", "", 2, "required"),
    ("", "nocolon", 2, "not of the form"),
    ("", "no_such_module:x", 2, "no module no_such_module"),
    ("", "mine:repository --dimension 1", 2, "2 or more"),
]  # fmt: skip


class HostCheck(unittest.TestCase):
    def setUp(self) -> None:
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def failures(self, name: str, sabotage: Sabotage, dimension: int = 8) -> list[str]:
        with sabotage():
            host = Host(lambda: Repository(Database(self.folder / name)), dimension)
            found = {check.name: word for check, word, _ in outcomes(host)}
        return [name for name, word in found.items() if word == "FAIL"]

    def test_each_sabotage_is_named_alone_and_each_check_has_one(self) -> None:
        self.assertEqual({name for name, _ in SABOTAGES}, {check.name for check in CHECKS})
        for number, (name, sabotage) in enumerate(SABOTAGES):
            with self.subTest(check=name, number=number):
                self.assertEqual(self.failures(f"{number}.db", sabotage), [name])

    def test_good_hosts_pass_whole_and_are_left_as_they_were(self) -> None:
        def rows(path: Path) -> list[str]:
            """All that the file holds, but for how far the automatic row ids have come."""
            with contextlib.closing(sqlite3.connect(path)) as connection:
                return [row for row in connection.iterdump() if '"sqlite_sequence"' not in row]

        for (name, variant), dimension in itertools.product(GOOD.items(), (2, 8, 384)):
            with self.subTest(name, dimension=dimension):
                with Database(self.folder / name) as db:
                    Repository(db).bump_wiki_changed("main", 1)
                before = rows(self.folder / name)
                self.assertEqual(self.failures(name, variant, dimension), [])
                self.assertEqual(rows(self.folder / name), before)

    def test_program_checks_a_copy_of_the_reference_host_and_never_the_original(self) -> None:
        install = ["cmake", "--install", BUILD, "--component", "reference_host", "--prefix"]
        subprocess.run([*install, self.folder], check=True, capture_output=True)
        (self.folder / "mine.py").write_text(FACTORIES, encoding="utf-8")
        clean = {name: text for name, text in os.environ.items() if not name.startswith("PYTHON")}
        paths = [str(self.folder), str(BUILD / "python")]
        shadowed = ("", "mine:repository", 2, f"the reference host's, in {BUILD}")
        for change, arguments, status, words in (*PROGRAM, shadowed):
            order = paths[:: -1 if words == shadowed[3] else 1]
            name, old, new = change.split("/") if change else ("database", "", "")
            module = self.folder / "tessaly" / "storage" / f"{name}.py"
            text = module.read_text(encoding="utf-8")
            self.assertIn(old, text)
            module.write_text(text.replace(old, new) if old else text, encoding="utf-8")
            done = subprocess.run(
                [sys.executable, "-P", "-B", "-m", "tessaly_wiki_check", *arguments.split()],
                capture_output=True, text=True, env=clean | {"PYTHONPATH": os.pathsep.join(order)},
            )  # fmt: skip
            module.write_text(text, encoding="utf-8")
            with self.subTest(change=change, arguments=arguments):
                self.assertEqual(done.returncode, status, done)
                self.assertIn(words, done.stderr if status == 2 else done.stdout)
                if status == 2:
                    self.assertEqual((done.stdout, done.stderr.count("\n")), ("", 1))
                else:
                    named = f"tessaly in {self.folder}/tessaly, {arguments.split()[0]}, SQLite "
                    self.assertEqual((done.stdout.index(named), done.stderr), (0, ""))
