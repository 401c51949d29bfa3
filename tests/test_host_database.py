"""The reference host's database: what would lose rows, mix up threads or harm a stranger's file."""

from __future__ import annotations

import sqlite3
import subprocess
import sys
import tempfile
import threading
import unittest
from pathlib import Path
from typing import Any

from tessaly.storage.database import Database
from tessaly.storage.repository import Repository

STATE = "INSERT INTO wiki_state (branch, changed_since_build) VALUES (?, ?)"
CHUNK = "INSERT INTO wiki_chunks (page_fk, branch, content, embedding) VALUES (?, 'b', 'c', x'')"


class FileCase(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def open(self, name: str = "wiki.db", **options: Any) -> Database:
        path = name if name == ":memory:" else self.folder / name
        database = Database(path, **options)
        self.addCleanup(database.close)
        return database

    def in_thread(self, body: Any) -> Any:
        """The result of ``body`` in another thread, or the exception it ended with."""
        result: list[Any] = []

        def run() -> None:
            try:
                result.append(body())
            except BaseException as error:
                result.append(error)

        thread = threading.Thread(target=run)
        thread.start()
        thread.join(20)
        return result[0]


class StrangersFiles(FileCase):
    def test_what_is_no_wiki_database_is_refused_and_left_as_it_was(self) -> None:
        (self.folder / "text").write_bytes(b"no database, only words\n" * 200)
        columns = "last_built_at, last_commit, changed_since_build, model, page_count"
        strangers = {
            "columns": "CREATE TABLE wiki_pages (id INTEGER PRIMARY KEY, x)",
            "view": "CREATE VIEW wiki_state AS SELECT 1",
            "key": f"CREATE TABLE wiki_state (branch, {columns}, manifest_hash)",
            "cascade": "CREATE TABLE wiki_chunks (id INTEGER PRIMARY KEY, page_fk, branch, anchor,"
            " heading, model_name, token_count, citations, content, embedding)",
        }
        for name, statement in strangers.items():
            with sqlite3.connect(self.folder / name) as connection:
                connection.execute(statement)
            connection.close()
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
                path = self.folder / name
                before = path.read_bytes() if path.is_file() else None
                listing = sorted(self.folder.iterdir())
                with self.assertRaisesRegex(kind, words):
                    self.open(name)
                self.assertEqual(path.read_bytes() if path.is_file() else None, before)
                self.assertEqual(sorted(self.folder.iterdir()), listing)
                database = self.open(":memory:")
                with self.assertRaisesRegex((sqlite3.DatabaseError, ValueError), "."):
                    database.replace_index(path)
                self.assertEqual(database.index_generation(), 1)


class Transactions(FileCase):
    def test_a_block_takes_effect_whole_or_not_at_all(self) -> None:
        def failing_statement(cursor: sqlite3.Cursor) -> None:
            cursor.execute("INSERT INTO nowhere VALUES (1)")

        def interrupted(_cursor: sqlite3.Cursor) -> None:
            raise KeyboardInterrupt

        def failing_commit(cursor: sqlite3.Cursor) -> None:
            cursor.execute("PRAGMA defer_foreign_keys = ON")
            cursor.execute(CHUNK, (99,))

        def nested(_cursor: sqlite3.Cursor) -> None:
            with database.transaction():
                pass

        for path in (":memory:", "wiki.db"):
            database = self.open(path)
            for body, kind in (
                (failing_statement, sqlite3.OperationalError),
                (interrupted, KeyboardInterrupt),
                (failing_commit, sqlite3.IntegrityError),
                (nested, RuntimeError),
            ):
                with self.subTest(path, body=body.__name__):
                    with self.assertRaises(kind), database.transaction() as cursor:
                        cursor.execute(STATE, ("lost", 1))
                        body(cursor)
                    self.assertEqual(database.fetchall("SELECT * FROM wiki_state"), [])
                    self.assertEqual(database.fetchall("SELECT * FROM wiki_chunks"), [])
            with database.transaction() as cursor:
                cursor.execute(STATE, ("kept", 1))
            self.assertEqual(database.fetchone("SELECT branch FROM wiki_state"), ("kept",))

    def test_threads_see_what_is_committed_and_lose_no_update(self) -> None:
        database = self.open("wiki.db")
        with database.transaction() as cursor:
            cursor.execute(STATE, ("main", 0))
            inside = database.fetchone("SELECT branch FROM wiki_state")
            outside = self.in_thread(lambda: database.fetchone("SELECT branch FROM wiki_state"))
        self.assertEqual((inside, outside), (("main",), None))
        for path in (":memory:", "wiki.db"):
            repository = Repository(self.open(path))

            def count() -> None:
                for _ in range(100):
                    repository.bump_wiki_changed("main", 1)
                    repository.get_wiki_state("main")

            threads = [threading.Thread(target=count) for _ in range(4)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            self.assertEqual(repository.bump_wiki_changed("main", 0), 400)

    def test_a_writer_waits_only_as_long_as_it_was_told(self) -> None:
        database = self.open(busy_timeout=0.05)
        with database.transaction():
            error = self.in_thread(lambda: database.transaction().__enter__())
            self.assertIsInstance(error, sqlite3.OperationalError)
            self.assertIn("locked", str(error))
            self.assertIn("transaction is open", str(self.in_thread(database.close)))
        database.close()
        for call in (lambda: database.fetchone("SELECT 1"), database.index_generation):
            self.assertRaises(sqlite3.ProgrammingError, call)
            self.assertIsInstance(self.in_thread(call), sqlite3.ProgrammingError)

    def test_connections_go_with_their_threads(self) -> None:
        database = self.open()
        for _ in range(20):
            self.in_thread(database.index_generation)
        self.assertLessEqual(len(database._sessions), 2)


class Schema(FileCase):
    def test_rows_follow_their_page_and_ids_are_not_used_twice(self) -> None:
        repository = Repository(self.open())
        chunk = {"content": "text", "embedding": [1.0]}
        first = repository.upsert_wiki_page("main", "a", "A")
        repository.replace_wiki_chunks(first, "main", [chunk, chunk], "model")
        self.assertEqual(repository.upsert_wiki_page("main", "a", "A again"), first)
        repository.delete_wiki_page("main", "a")
        self.assertEqual(repository.db.fetchall("SELECT * FROM wiki_chunks"), [])
        self.assertGreater(repository.upsert_wiki_page("main", "a", "A"), first)
        with self.assertRaises(sqlite3.IntegrityError):
            repository.replace_wiki_chunks(first, "main", [chunk], "model")

    def test_no_statement_reads_a_whole_table(self) -> None:
        database = self.open()
        with database.transaction() as cursor:
            seen: list[tuple[str, Any]] = []
            plans = type("Plans", (Database,), {})(":memory:")
            self.addCleanup(plans.close)
            connection = plans._session().connection
            connection.set_trace_callback(lambda text: seen.append((text, None)))
            repository = Repository(plans)
            page = repository.upsert_wiki_page("b", "p", "P", source_files=["f"])
            chunk = {"content": "text", "heading": "h", "embedding": [1.0]}
            repository.replace_wiki_chunks(page, "b", [chunk], "model")
            repository.update_wiki_chunk_embeddings("b", [(1, [1.0])], "model")
            repository.update_wiki_page_citations(
                "b", "p", citations=[], content_hash="", build_cache="", rewrite=str, moves={}
            )
            repository.search_wiki_chunks([1.0], "b")
            for method in ("wiki_chunk_headings", "wiki_chunk_texts", "wiki_chunk_dimension"):
                getattr(repository, method)("b")
            repository.get_wiki_pages("b")
            repository.wiki_pages_citing("b", ["f"])
            repository.bump_wiki_changed("b", 1)
            repository.get_wiki_state("b")
            repository.delete_wiki_page("b", "p")
            connection.set_trace_callback(None)
            checked = 0
            for text, _nothing in seen:
                if "wiki_" not in text or text.startswith("--"):
                    continue
                checked += 1
                for row in cursor.execute(f"EXPLAIN QUERY PLAN {text}").fetchall():
                    self.assertNotRegex(row[3], r"SCAN (wiki_|[cp]\b)", text)
            self.assertGreater(checked, 15)


class Generation(FileCase):
    def filled(self, name: str, pages: int) -> Database:
        repository = Repository(self.open(name))
        for number in range(pages):
            page = repository.upsert_wiki_page("main", f"{name} {number}", "title")
            chunk = {"content": f"text {number}", "embedding": [1.0, number]}
            repository.replace_wiki_chunks(page, "main", [chunk], "model")
        repository.bump_wiki_changed("main", pages)
        return repository.db

    def test_a_swap_brings_all_rows_and_every_process_sees_it(self) -> None:
        old, new = self.filled("old.db", 3), self.filled("new.db", 5)
        script = (
            "import sys; from tessaly.storage.database import Database\n"
            "with Database(sys.argv[1]) as database:\n"
            "    for _line in sys.stdin: print(database.index_generation(), flush=True)\n"
        )
        command = [sys.executable, "-c", script, str(self.folder / "old.db")]
        with subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
        ) as other:
            assert other.stdin is not None and other.stdout is not None

            def answer() -> int:
                print(file=other.stdin, flush=True)
                return int(other.stdout.readline())

            before = answer()
            self.assertEqual((answer(), old.index_generation()), (before, before))
            old.replace_index(self.folder / "new.db")
            self.assertNotEqual(answer(), before)
            self.assertEqual(answer(), old.index_generation())
            other.stdin.close()
        for table in ("wiki_pages", "wiki_chunks", "wiki_state"):
            rows = f"SELECT * FROM {table} ORDER BY 1"
            self.assertEqual(old.fetchall(rows), new.fetchall(rows))
        after = old.index_generation()
        old.replace_index(self.folder / "new.db")
        self.assertNotIn(old.index_generation(), (before, after))

    def test_a_swap_that_fails_leaves_index_and_generation(self) -> None:
        old = self.filled("old.db", 3)
        self.filled("bad.db", 5).close()
        with sqlite3.connect(self.folder / "bad.db") as connection:  # without enforced keys
            connection.execute(CHUNK, (99,))
        connection.close()

        def contents() -> tuple[Any, ...]:
            return old.fetchall("SELECT * FROM wiki_chunks"), old.index_generation()

        before = contents()
        with self.assertRaisesRegex(sqlite3.IntegrityError, "bad.db.*FOREIGN KEY"):
            old.replace_index(self.folder / "bad.db")
        self.assertEqual(contents(), before)


if __name__ == "__main__":
    unittest.main()
