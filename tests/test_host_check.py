"""The host check: good hosts pass whole, and each way of breaking one is named first and alone."""

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
REFERENCE = "tessaly_wiki_check.reference_host:repository"
Sabotage = Callable[[], Any]  # gives a context manager


def of(owner: Any, name: str, make: Callable[[Any], Any]) -> Sabotage:
    """Replaces an attribute by what ``make`` makes of the genuine one."""
    return lambda: mock.patch.object(owner, name, make(getattr(owner, name)))


def result(name: str, change: Callable[[Any], Any], owner: Any = Database) -> Sabotage:
    """Changes what a method returns."""
    return of(owner, name, lambda genuine: lambda *a, **k: change(genuine(*a, **k)))


class Cursor:
    """A cursor with another execute or executemany, which gets the genuine cursor first."""

    def __init__(self, genuine: Any, **changed: Any) -> None:
        self._genuine, self._changed = genuine, changed

    def __getattr__(self, name: str) -> Any:
        change = self._changed.get(name)
        return functools.partial(change, self._genuine) if change else getattr(self._genuine, name)


def cursor(**changed: Any) -> Sabotage:
    return result("__enter__", lambda genuine: Cursor(genuine, **changed), Transaction)


def left(change: Callable[..., Any]) -> Sabotage:
    """Changes how a block is left; ``change`` gets the genuine way, the block and the error."""
    return of(Transaction, "__exit__", lambda leave: lambda *given: change(leave, *given))


def declared(old: str, new: str) -> Sabotage:
    """Changes the definition of the tables, and lets nothing else look at them."""
    text = schema._DEFINITIONS.replace(old, new)
    return lambda: mock.patch.multiple(database, absent_tables=lambda _: True,
        create_tables=lambda connection: connection.executescript(text))  # fmt: skip


def triggered(change: str) -> Sabotage:
    return declared("INSERT OR IGNORE", "CREATE TRIGGER IF NOT EXISTS sabotage AFTER INSERT ON "
        f"wiki_chunks BEGIN UPDATE wiki_chunks SET {change} WHERE id = NEW.id; END;"
        "INSERT OR IGNORE")  # fmt: skip


def connected(change: Callable[[sqlite3.Connection], Any]) -> Sabotage:
    return result("_connect", lambda session: (change(session.connection), session)[1])


def codec(encode: Callable[[Any], Any], decode: Callable[[Any], Any]) -> Sabotage:
    return lambda: mock.patch.multiple(
        VectorCodec, encode=lambda _, given: encode(given), decode=lambda _, kept: decode(kept)
    )


# The check that must fail, first and alone, and what is done to the reference host.
SABOTAGES: list[tuple[str, Sabotage]] = [
    ("fetchone", result("fetchone", lambda row: row and dict(enumerate(row, 1)))),
    ("fetchall", result("fetchall", iter)),
    ("sqlite", of(Database, "fetchone", lambda read: lambda db, text, *rest: read(
        db, text.replace("sqlite_version()", "'3.8.2'"), *rest))),
    ("columns", declared("token_count", "tokens")),
    ("columns", declared("page_count INTEGER NOT NULL DEFAULT 0", "page_count INTEGER NOT NULL")),
    ("factory", of(Database, "_connect", lambda connect: lambda *given, kept=[], **named: (
        kept.append(connect(*given, **named)), kept[0])[1])),
    ("commit", left(lambda leave, at, *_: leave(at, ValueError, None, None))),
    ("fresh_reads", of(Database, "fetchall", functools.cache)),
    ("errors", left(lambda leave, at, *error: leave(at, *error) or error[0] is not None)),
    ("one_transaction", cursor(execute=lambda genuine, text, *rest: (
        genuine.execute(text, *rest), text.startswith("INSERT") and (
            genuine.connection.commit(), genuine.execute("BEGIN")))[0])),
    ("undone", left(lambda leave, at, kind, *rest: leave(
        at, kind if kind and issubclass(kind, Exception) else None, *rest))),
    ("cursor", cursor(executemany=lambda genuine, text, rows: [
        genuine.execute(text, row) for row in rows[:1]])),
    ("codec", codec(lambda given: array("d", (round(x, 1) for x in given)).tobytes(),
        lambda kept: array("d", kept))),
    ("page_key", declared("page_id TEXT", "page_id TEXT COLLATE NOCASE")),
    ("state_key", declared("changed_since_build INTEGER NOT NULL", "changed_since_build INTEGER")),
    ("chunk_ids", triggered("id = 1000 - NEW.id")),
    ("foreign_keys", connected(lambda made: made.execute("PRAGMA foreign_keys = OFF"))),
    ("cascade", declared(" ON DELETE CASCADE", "")),
    ("values", triggered("citations = json(NEW.citations)")),
    ("page_columns", of(repository_wiki, "WIKI_PAGE_COLUMNS",
        lambda text: re.sub(r"\w+", r"wiki_pages.\g<0>", text))),
    ("record", of(repository_wiki, "row_to_wiki_page", lambda make: lambda row: {
        **make(row), "summary": row[2]})),
    ("citations", of(repository_wiki, "moved_citation", lambda _: lambda citation, _: citation)),
    ("generation", of(Database, "index_generation", lambda _: lambda db: id(db))),
    ("index", of(WikiChunkIndex, "__init__", lambda make: lambda index, generation, **rest: make(
        index, generation=str(generation), **rest))),
    ("meaning", result("ranked", sorted, WikiChunkIndex)),
    ("fusion", lambda: mock.patch.object(wiki_chunk_words, "_FUSION_K", 59)),
    ("headings", of(ChunkWords, "build", lambda build: lambda items: build(
        (chunk_id, None, text) for chunk_id, _, text in items))),
    ("word_similarity", result("similarities", lambda found: [0.0] * len(found), EmbeddingIndex)),
    ("any_words", of(ChunkWords, "best", lambda best: lambda words, terms, top_k: best(
        words, [term for term in terms if term.isalnum() or 1 / 0], top_k))),
    ("branches", of(ChunkWords, "build", lambda build: lambda items, kept=[]: (
        kept.append(build(items)), setattr(kept[0], "_connection", kept[-1]._connection),
        kept[0])[2])),
]  # fmt: skip
GOOD: dict[str, Sabotage] = {
    "intact": contextlib.nullcontext,
    "half precision": codec(lambda given: struct.pack(f"{len(given)}e", *given),
        lambda kept: struct.unpack(f"{len(kept) // 2}e", kept)),
    "rows that know their columns": connected(
        lambda made: setattr(made, "row_factory", sqlite3.Row)),
    "another class of connections": of(sqlite3, "connect", lambda connect: functools.partial(
        connect, factory=type("Connection", (sqlite3.Connection,), {}))),
}  # fmt: skip
# What is changed in which module of a copy of the reference host, and what the program then says.
COPIES = [
    ("database", "", "", f"\n{len(CHECKS)} of {len(CHECKS)} hold"),
    ("database", "keys = ON", "keys = OFF", "\nFAIL  Foreign keys are enforced\n"),
    ("wiki_rows", "import json", "import no_json", "seen: ModuleNotFoundError: No module named"),
    ("repository", "(WikiStore, ", "(", "no WikiStore among its bases"),
]
USAGE = {
    "": "required",
    "mine:nothing": "mine has no nothing to be called",
    "nocolon": "not of the form",
    "no_such_module:x": "no module no_such_module",
    "mine:x --dimension 1": "2 or more",
    "mine:repository": "tessaly is the reference host's, in",  # with the paths the other way round
}


class HostCheck(unittest.TestCase):
    def setUp(self) -> None:
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def failures(self, name: str, sabotage: Sabotage, dimension: int = 8) -> list[str]:
        with sabotage():
            host = Host(lambda: Repository(Database(self.folder / name)), dimension)
            return [check.name for check, word, _ in outcomes(host) if word == "FAIL"]

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
                Repository(Database(self.folder / name)).bump_wiki_changed("main", 1)
                before = rows(self.folder / name)
                self.assertEqual(self.failures(name, variant, dimension), [])
                self.assertEqual(rows(self.folder / name), before)

    def program(self, arguments: str, *paths: Path) -> Any:
        clean = {name: text for name, text in os.environ.items() if not name.startswith("PYTHON")}
        clean["PYTHONPATH"] = os.pathsep.join(map(str, paths))
        command = [sys.executable, "-P", "-B", "-m", "tessaly_wiki_check", *arguments.split()]
        return subprocess.run(command, capture_output=True, text=True, env=clean)

    def test_program_checks_an_installed_copy_of_the_reference_host_and_nothing_else(self) -> None:
        install = ["cmake", "--install", BUILD, "--component", "reference_host", "--prefix"]
        subprocess.run([*install, self.folder], check=True, capture_output=True)
        (self.folder / "mine.py").write_text("repository = print\n", encoding="utf-8")
        paths = (self.folder, BUILD / "python")
        for name, old, new, words in COPIES:
            module = self.folder / "tessaly" / "storage" / f"{name}.py"
            text = module.read_text(encoding="utf-8")
            module.write_text(text.replace(old, new) if old else text, encoding="utf-8")
            done = self.program(REFERENCE, *paths)
            module.write_text(text, encoding="utf-8")
            self.assertIn(words, done.stdout)
            self.assertEqual((done.returncode, done.stderr), (int("hold" not in words), ""))
            self.assertIn(f"{self.folder}/tessaly, {REFERENCE}, ", done.stdout.splitlines()[0])
        for arguments, words in USAGE.items():
            done = self.program(arguments, *paths[:: -1 if "reference" in words else 1])
            self.assertEqual((done.returncode, done.stdout, done.stderr.count("\n")), (2, "", 1))
            self.assertIn(words, done.stderr)
