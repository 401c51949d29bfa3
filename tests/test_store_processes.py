"""One database file and several processes: swaps are noticed, and a kill leaves whole writes."""

from __future__ import annotations

import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path
from typing import Any

from tessaly.storage.database import Database
from tessaly.storage.repository import Repository
from tests.support import SOAK, StoreTestCase, fill, not_leak_checked, refresh

V = [1.0, 0.0, 0.0]


def write_for_ever(path: str) -> None:
    """What the killed process does: two pages get new chunks of one version, then new citations."""
    store = Repository(Database(path))
    for version in range(1_000_000):
        for page_fk, page_id in ((1, "alpha"), (2, "beta")):
            text, heading = f"{version} written", str(version)
            chunk = {"content": text, "heading": heading, "embedding": V, "citations": [1] * 9}
            store.replace_wiki_chunks(page_fk, "main", [chunk] * (20 + version % 7), "m")
            given = refresh(citations=[version], content_hash=heading, moves={})
            given["rewrite"] = lambda text: text.replace("written", "moved")
            store.update_wiki_page_citations("main", page_id, **given)
        if version == 1:
            print("begun", flush=True)


def spawn(call: str, path: Path) -> subprocess.Popen[str]:
    code = f"from tests.test_store_processes import *; {call}"
    command = [sys.executable, "-c", code, path]
    return subprocess.Popen(command, stdout=subprocess.PIPE, text=True)


class Processes(StoreTestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def open(self, name: str) -> Database:
        database = Database(self.folder / name)
        self.addCleanup(database.close)
        return database

    @not_leak_checked("the subject runs in processes of its own")
    def test_a_swap_by_another_process_is_noticed_at_the_next_search(self) -> None:
        database, other = self.open("wiki.db"), self.open("other.db")
        for each in (database, other):
            fill(each)
        Repository(other).replace_wiki_chunks(2, "main", [{"content": "new", "embedding": V}], "m")
        store = Repository(database)

        def found() -> list[str]:
            return sorted(hit["content"] for hit in store.search_wiki_chunks(V, "main"))

        self.assertEqual(found(), ["close the window", "open the door", "paint the wall"])
        opened = f"Repository(Database({str(self.folder / 'wiki.db')!r}))"
        with spawn(f"{opened}.delete_wiki_page('main', 'alpha')", self.folder) as process:
            self.assertEqual(process.wait(60), 0)
        index = store._wiki_chunk_indexes()["main"]
        self.assertEqual(found(), ["paint the wall"], "hits of a deleted page are left out")
        self.assertIs(store._wiki_chunk_indexes()["main"], index)
        swap = f"{opened}.db.replace_index({str(self.folder / 'other.db')!r})"
        with spawn(swap, self.folder) as process:
            self.assertEqual(process.wait(60), 0)
        self.assertEqual(found(), ["close the window", "new", "open the door"])

    @not_leak_checked("the subject runs in processes of its own")
    def test_a_writer_killed_at_any_moment_leaves_each_page_whole(self) -> None:
        draw = self.random("kill")
        path = self.folder / "wiki.db"
        fill(self.open("wiki.db"))
        states: set[Any] = set()
        for _ in range(50 if SOAK else 8):
            with spawn("write_for_ever(sys.argv[1])", path) as process:
                self.assertEqual(process.stdout.readline(), "begun\n")
                time.sleep(draw.uniform(0, 0.05))
                process.kill()
            connection = sqlite3.connect(path)
            self.assertEqual(connection.execute("PRAGMA integrity_check").fetchall(), [("ok",)])
            for page_fk in (1, 2):
                [(version, text, count)] = connection.execute(
                    "SELECT heading, content, count(*) FROM wiki_chunks WHERE page_fk = ?"
                    " GROUP BY heading, content, citations",
                    (page_fk,),
                ).fetchall()
                self.assertEqual(count, 20 + int(version) % 7)
                moved = text == f"{version} moved"
                self.assertEqual(text, f"{version} {'moved' if moved else 'written'}")
                [(digest, citations)] = connection.execute(
                    "SELECT content_hash, citations FROM wiki_pages WHERE id = ?", (page_fk,)
                ).fetchall()
                refreshed = version if moved else str(int(version) - 1)
                self.assertEqual((digest, citations), (refreshed, f"[{refreshed}]"))
                states.add((version, moved))
            connection.close()
        self.assertGreater(len(states), 3, "the kills all came at one moment")


if __name__ == "__main__":
    unittest.main()
