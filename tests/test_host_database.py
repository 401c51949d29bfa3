"""The reference host's database: what would lose rows, mix up threads or harm a stranger's file."""

import contextlib
import functools
import random
import sqlite3
import tempfile
import unittest
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any
from unittest import mock

from tessaly.storage.database import Database
from tessaly.storage.repository import Repository
from tessaly.storage.schema import TABLES
from tessaly.storage.vector_codec import stored_vectors
from tests.support import CALLS_OF_THE_STORE, NEW_CHUNKS, fill, tables

STATE = "INSERT INTO wiki_state (branch, changed_since_build) VALUES (?, ?)"
CHUNK = "INSERT INTO wiki_chunks (page_fk, branch, content, embedding) VALUES (?, 'b', 'c', x'')"


class HostDatabase(unittest.TestCase):
    def setUp(self) -> None:
        self.folder = Path(self.enterContext(tempfile.TemporaryDirectory()))

    def open(self, name: str = "wiki.db", **options: Any) -> Database:
        path = name if name == ":memory:" else self.folder / name
        return self.enterContext(Database(path, **options))

    def in_thread(self, body: Any) -> Any:
        """The result of ``body`` in another thread, or its exception."""
        threads = ThreadPoolExecutor(1)
        work = threads.submit(body)
        try:
            return work.exception(5) or work.result()
        finally:
            threads.shutdown(wait=work.done())  # what waits for this thread is not waited for

    def execute(self, name: str, *statements: str) -> None:
        """Runs statements on a file as a stranger would, without enforced keys."""
        with contextlib.closing(sqlite3.connect(self.folder / name)) as connection, connection:
            for statement in statements:
                connection.execute(statement)

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
            before, database = contents(), self.open(":memory:")
            self.assertRaisesRegex(kind, words, self.open, name)
            self.assertEqual(contents(), before, name)
            self.assertRaises(kind, database.replace_index, self.folder / name)
            self.assertEqual(database.index_generation(), 1)

    def test_a_block_takes_effect_whole_or_not_at_all(self) -> None:
        def failing_commit(cursor: sqlite3.Cursor) -> None:
            cursor.execute("PRAGMA defer_foreign_keys = ON")
            cursor.execute(CHUNK, (99,))

        for database in (self.open(":memory:"), self.open("wiki.db")):
            for body, kind in (
                (lambda cursor: cursor.execute("BAD"), sqlite3.OperationalError),
                (mock.Mock(side_effect=KeyboardInterrupt), KeyboardInterrupt),
                (failing_commit, sqlite3.IntegrityError),
                (lambda _cursor: database.transaction().__enter__(), RuntimeError),
            ):
                with self.assertRaises(kind), database.transaction() as cursor:
                    cursor.execute(STATE, ("lost", 1))
                    body(cursor)
                self.assertEqual(tables(database), [], (database.path, kind))

    def test_threads_see_what_is_committed_and_lose_no_update(self) -> None:
        database = self.open("wiki.db")
        with database.transaction() as cursor:
            cursor.execute(STATE, ("main", 0))
            branches = functools.partial(database.fetchall, "SELECT branch FROM wiki_state")
            self.assertEqual((branches(), self.in_thread(branches)), ([("main",)], []))
        for _ in range(20):
            self.in_thread(branches)
        self.assertLessEqual(len(database._sessions), 2)  # connections go with their threads
        for repository in (Repository(self.open(":memory:")), Repository(database)):
            with ThreadPoolExecutor(4) as threads:
                list(threads.map(lambda _: repository.bump_wiki_changed("main", 1), range(400)))
            self.assertEqual(repository.bump_wiki_changed("main", 0), 400)

    def test_a_writer_waits_only_as_long_as_it_was_told(self) -> None:
        database = self.open(busy_timeout=0.05)
        with database.transaction():
            error = self.in_thread(lambda: database.transaction().__enter__())
            self.assertRegex(repr(error), "OperationalError.*locked")
            self.assertIn("transaction is open", str(self.in_thread(database.close)))
        database.close()
        self.assertRegex(repr(self.in_thread(database.index_generation)), "Programming.*closed")
        gone = self.open("gone.db")
        (self.folder / "gone.db").unlink()
        self.assertRegex(repr(self.in_thread(gone.index_generation)), "Operational.*unable to open")

    def test_follow_their_page_have_ids_of_their_own_and_are_found_without_a_scan(self) -> None:
        database = self.open()
        repository = Repository(database)
        seen: list[str] = []
        trace = database._session().connection.set_trace_callback
        with self.assertLogs("tessaly.storage.repository_wiki"):
            for (method, given, named), _cached in CALLS_OF_THE_STORE:
                rewrite = {"rewrite": str} if "moves" in named else {}
                trace(None)
                fill(database)
                trace(seen.append)
                getattr(repository, method)(*given, **named, **rewrite)
        statements = {text for text in seen if "wiki_" in text and not text.startswith("--")}
        self.assertGreater(len(statements), 30)
        for text in statements:
            plan = str(database.fetchall(f"EXPLAIN QUERY PLAN {text}"))
            self.assertNotRegex(plan, r"SCAN (wiki_|[cp]\b)", text)
        first = repository.upsert_wiki_page("b", "p", "P")
        repository.replace_wiki_chunks(first, "b", NEW_CHUNKS, "model")
        self.assertEqual(repository.upsert_wiki_page("b", "p", "P again"), first)
        repository.delete_wiki_page("b", "p")
        self.assertEqual(database.fetchall("SELECT * FROM wiki_chunks WHERE branch = 'b'"), [])
        self.assertGreater(repository.upsert_wiki_page("b", "p", "P"), first)
        stale = (first, "b", NEW_CHUNKS, "model")
        self.assertRaises(sqlite3.IntegrityError, repository.replace_wiki_chunks, *stale)

    def test_embeddings_are_what_was_stored_however_many_there_are(self) -> None:
        codec, rng = stored_vectors(None), random.Random(1)
        stored = [codec.encode([rng.random() for _ in range(n % 300)]) for n in range(600)]
        database = self.open(":memory:")
        database.fetchall("CREATE TABLE t (embedding)")
        for value in (b"odd", None, "text", *stored):
            database.fetchall("INSERT INTO t VALUES (?)", (value,))
        rows, again = (database.fetchall("SELECT embedding FROM t ORDER BY rowid") for _ in "ab")
        self.assertEqual((rows, rows[:3]), (again, [(b"odd",), (None,), ("text",)]))
        kept = rng.sample([(row[0], blob) for row, blob in zip(rows[3:], stored)], 300)
        del rows, again  # what is kept keeps its memory
        for embedding, blob in kept:
            view = memoryview(codec.decode(embedding))
            self.assertEqual((view.tobytes(), view.format, view.readonly), (blob, "f", True))
            self.assertEqual((bytes(embedding), len(embedding)), (blob, len(blob)))
            self.assertEqual(embedding == kept[0][0], blob == kept[0][1])

    def test_a_swap_brings_all_rows_or_none_from_pages_of_any_size(self) -> None:
        self.execute("old.db", "PRAGMA page_size = 4096", "CREATE TABLE notes (text)")
        old, new, bad = databases = [self.open(name) for name in ("old.db", "new.db", "bad.db")]
        for database, size in zip(databases, (4096, 8192, 8192)):
            fill(database)
            Repository(database).upsert_wiki_page("main", database.path, "title")
            self.assertEqual(database.fetchone("PRAGMA page_size"), (size,))
        other, seen = self.open("old.db"), [old.index_generation()]
        for _ in range(2):
            old.replace_index(new.path)
            seen.append(other.index_generation())
        self.assertEqual((len({*seen}), old.index_generation()), (3, seen[-1]))
        self.assertEqual(tables(other), tables(new))
        self.execute("bad.db", CHUNK.replace("?", "99"))
        with self.assertRaisesRegex(sqlite3.IntegrityError, "bad.db.*FOREIGN KEY"):
            old.replace_index(bad.path)
        self.assertEqual((tables(old), old.index_generation()), (tables(new), seen[-1]))
