"""The reference host's database: what would lose rows, mix up threads or harm a stranger's file."""

from __future__ import annotations

import contextlib
import sqlite3
import subprocess
import sys
import tempfile
import unittest
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any
from unittest import mock

from tessaly.storage.database import Database
from tessaly.storage.repository import Repository
from tessaly.storage.schema import TABLES

STATE = "INSERT INTO wiki_state (branch, changed_since_build) VALUES (?, ?)"
CHUNK = "INSERT INTO wiki_chunks (page_fk, branch, content, embedding) VALUES (?, 'b', 'c', x'')"
OTHER_PROCESS = """
import sys
from tessaly.storage.database import Database
with Database(sys.argv[1]) as database:
    for _line in sys.stdin:
        print(database.index_generation(), flush=True)
"""


class DatabaseCase(unittest.TestCase):
    def setUp(self) -> None:
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def open(self, name: str = "wiki.db", **options: Any) -> Database:
        path = name if name == ":memory:" else self.folder / name
        return self.enterContext(Database(path, **options))

    def in_thread(self, body: Any) -> Any:
        """The result of ``body`` in another thread, or its exception."""
        with ThreadPoolExecutor(1) as threads:
            work = threads.submit(body)
            return work.exception(20) or work.result()

    def execute(self, name: str, statement: str, *parameters: Any) -> None:
        """Runs a statement on a file as a stranger would."""
        with contextlib.closing(sqlite3.connect(self.folder / name)) as connection, connection:
            connection.execute(statement, parameters)


class Files(DatabaseCase):
    def test_what_is_no_wiki_database_is_refused_and_left_as_it_was(self) -> None:
        def contents() -> list[tuple[Path, bytes]]:
            return [(path, path.read_bytes()) for path in sorted(self.folder.iterdir())]

        (self.folder / "text").write_bytes(b"no database, only words\n" * 200)
        self.execute("columns", "CREATE TABLE wiki_pages (id INTEGER PRIMARY KEY, x)")
        self.execute("view", "CREATE VIEW wiki_state AS SELECT 1")
        for name, table in (("key", "wiki_state"), ("cascade", "wiki_chunks")):
            self.execute(name, f"CREATE TABLE {table} ({', '.join(TABLES[table])})")
        for name, kind, words in (
            ("text", sqlite3.DatabaseError, "not a database"),
            ("columns", ValueError, "wiki_pages is another one: it lacks branch, page_id"),
            ("view", ValueError, "wiki_state is a view"),
            ("key", ValueError, r"no unique key \(branch\)"),
            ("cascade", ValueError, "does not cascade"),
            (".", sqlite3.DatabaseError, "is a folder"),
            ("none/wiki.db", sqlite3.DatabaseError, "unable to open"),
        ):
            with self.subTest(name):
                before = contents()
                self.assertRaisesRegex(kind, words, self.open, name)
                self.assertEqual(contents(), before)
                database = self.open(":memory:")
                self.assertRaises(kind, database.replace_index, self.folder / name)
                self.assertEqual(database.index_generation(), 1)


class Transactions(DatabaseCase):
    def test_a_block_takes_effect_whole_or_not_at_all(self) -> None:
        def failing_commit(cursor: sqlite3.Cursor) -> None:
            cursor.execute("PRAGMA defer_foreign_keys = ON")
            cursor.execute(CHUNK, (99,))

        for path in (":memory:", "wiki.db"):
            database = self.open(path)
            for body, kind in (
                (lambda cursor: cursor.execute("BAD"), sqlite3.OperationalError),
                (mock.Mock(side_effect=KeyboardInterrupt), KeyboardInterrupt),
                (failing_commit, sqlite3.IntegrityError),
                (lambda _cursor: database.transaction().__enter__(), RuntimeError),
            ):
                with self.subTest(path, kind=kind):
                    with self.assertRaises(kind), database.transaction() as cursor:
                        cursor.execute(STATE, ("lost", 1))
                        body(cursor)
                    self.assertEqual(database.fetchall("SELECT * FROM wiki_state"), [])
                    self.assertEqual(database.fetchall("SELECT * FROM wiki_chunks"), [])

    def test_threads_see_what_is_committed_and_lose_no_update(self) -> None:
        database = self.open("wiki.db")
        with database.transaction() as cursor:
            cursor.execute(STATE, ("main", 0))
            inside = database.fetchone("SELECT branch FROM wiki_state")
            outside = self.in_thread(lambda: database.fetchone("SELECT branch FROM wiki_state"))
        self.assertEqual((inside, outside), (("main",), None))
        for _ in range(20):
            self.in_thread(database.index_generation)
        self.assertLessEqual(len(database._sessions), 2)  # connections go with their threads
        for path in (":memory:", "wiki.db"):
            repository = Repository(self.open(path))

            def count(_number: int) -> None:
                repository.bump_wiki_changed("main", 1)
                repository.get_wiki_state("main")

            with ThreadPoolExecutor(4) as threads:
                list(threads.map(count, range(400)))
            self.assertEqual(repository.bump_wiki_changed("main", 0), 400)

    def test_a_writer_waits_only_as_long_as_it_was_told(self) -> None:
        database = self.open(busy_timeout=0.05)
        with database.transaction():
            error = self.in_thread(lambda: database.transaction().__enter__())
            self.assertRegex(repr(error), "OperationalError.*locked")
            self.assertIn("transaction is open", str(self.in_thread(database.close)))
        database.close()
        for call in (lambda: database.fetchone("SELECT 1"), database.index_generation):
            self.assertRaises(sqlite3.ProgrammingError, call)
            self.assertIsInstance(self.in_thread(call), sqlite3.ProgrammingError)


class Schema(DatabaseCase):
    def test_rows_follow_their_page_ids_are_not_used_twice_and_no_table_is_scanned(self) -> None:
        database = self.open()
        seen: list[str] = []
        database._session().connection.set_trace_callback(seen.append)
        repository = Repository(database)
        chunk = {"content": "text", "heading": "h", "embedding": [1.0]}
        first = repository.upsert_wiki_page("b", "p", "P", source_files=["f"])
        repository.replace_wiki_chunks(first, "b", [chunk, chunk], "model")
        self.assertEqual(repository.upsert_wiki_page("b", "p", "P again"), first)
        repository.update_wiki_chunk_embeddings("b", [(1, [1.0])], "model")
        repository.update_wiki_page_citations(
            "b", "p", citations=[], content_hash="", build_cache="", rewrite=str, moves={}
        )
        repository.search_wiki_chunks([1.0], "b")
        readers = "wiki_chunk_headings wiki_chunk_texts wiki_chunk_dimension get_wiki_pages"
        for method in [*readers.split(), "get_wiki_state"]:
            getattr(repository, method)("b")
        repository.wiki_pages_citing("b", ["f"])
        repository.bump_wiki_changed("b", 1)
        repository.delete_wiki_page("b", "p")
        statements = [text for text in seen if "wiki_" in text and not text.startswith("--")]
        self.assertGreater(len(statements), 15)
        for text in statements:
            for row in database.fetchall(f"EXPLAIN QUERY PLAN {text}"):
                self.assertNotRegex(row[3], r"SCAN (wiki_|[cp]\b)", text)
        self.assertEqual(database.fetchall("SELECT * FROM wiki_chunks"), [])
        self.assertGreater(repository.upsert_wiki_page("b", "p", "P"), first)
        stale = (first, "b", [chunk], "model")
        self.assertRaises(sqlite3.IntegrityError, repository.replace_wiki_chunks, *stale)


class Generation(DatabaseCase):
    def filled(self, name: str, pages: int) -> Database:
        repository = Repository(self.open(name))
        for number in range(pages):
            page = repository.upsert_wiki_page("main", f"{name} {number}", "title")
            chunk = {"content": f"text {number}", "embedding": [1.0, number]}
            repository.replace_wiki_chunks(page, "main", [chunk], "model")
        repository.bump_wiki_changed("main", pages)
        return repository.db

    def test_a_swap_brings_all_rows_or_none_and_every_process_sees_it(self) -> None:
        def contents(database: Database) -> list[Any]:
            return [database.fetchall(f"SELECT * FROM {table} ORDER BY 1") for table in TABLES]

        old, new = self.filled("old.db", 3), self.filled("new.db", 5)
        command = [sys.executable, "-c", OTHER_PROCESS, str(self.folder / "old.db")]
        pipe = subprocess.PIPE
        with subprocess.Popen(command, stdin=pipe, stdout=pipe, text=True) as other:
            def answer() -> int:
                print(file=other.stdin, flush=True)
                return int(other.stdout.readline())

            seen = [answer(), answer(), old.index_generation()]
            for _ in range(2):
                old.replace_index(self.folder / "new.db")
                self.assertNotIn(answer(), seen)
                seen.append(answer())
            self.assertEqual(seen[:3], [seen[0]] * 3)
            self.assertEqual(seen[-1], old.index_generation())
        self.assertEqual(contents(old), contents(new))
        self.filled("bad.db", 4).close()
        self.execute("bad.db", CHUNK, 99)  # without enforced keys
        with self.assertRaisesRegex(sqlite3.IntegrityError, "bad.db.*FOREIGN KEY"):
            old.replace_index(self.folder / "bad.db")
        self.assertEqual(old.index_generation(), seen[-1])
        self.assertEqual(contents(old), contents(new))
