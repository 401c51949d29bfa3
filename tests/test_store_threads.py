"""Many threads on one repository, and interpreters with locks of their own side by side."""

from __future__ import annotations

import _interpreters
import contextlib
import functools
import itertools
import sqlite3
import sys
import tempfile
import textwrap
import threading
import time
import unittest
from collections import defaultdict
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Any

from tessaly.storage.database import Database
from tessaly.storage.repository import Repository
from tests.support import SOAK, StoreTestCase, fill, not_leak_checked, refresh, tables

V = [1.0, 0.0, 0.0]
Write = Callable[[Repository], Any]


class Journal(Database):
    """A database that notes each write in the order of the commits."""

    def __init__(self, path: Path) -> None:
        super().__init__(path)
        self.written: list[Write] = []
        self.current = threading.local()

    @contextlib.contextmanager
    def transaction(self) -> Any:
        with super().transaction() as cursor:
            yield cursor
            # The write lock is held until the commit.
            self.written.append(getattr(self.current, "write", fill))


class Threads(StoreTestCase):
    @not_leak_checked("threads and their connections come and go while memory is counted")
    def test_eight_threads_leave_what_one_would_have_left(self) -> None:
        with tempfile.TemporaryDirectory() as folder:
            other = Path(folder, "other.db")
            with Database(other) as swapped, Journal(Path(folder, "wiki.db")) as journal:
                fill(journal)
                fill(swapped)
                self.work(journal, other)
                with Database(Path(folder, "again.db")) as again:
                    fill(again)
                    for write in journal.written[1:]:
                        write(Repository(again))
                    self.assertEqual(tables(journal), tables(again))

    def work(self, journal: Journal, other: Path) -> None:
        store = Repository(journal)
        until = time.monotonic() + (60 if SOAK else 2)

        def write(change: Write) -> None:
            journal.current.write = change
            change(store)

        def replace(page_fk: int, version: int) -> None:
            heading = f"{page_fk} in version {version}"
            chunk = {"content": "old", "heading": heading, "embedding": V, "citations": [1]}
            chunks = [chunk] * (2 + version % 5)
            write(lambda store: store.replace_wiki_chunks(page_fk, "main", chunks, "m"))

        def move(version: int) -> None:
            given = refresh(content_hash=str(version), rewrite=str)
            write(lambda store: store.update_wiki_page_citations("main", "beta", **given))

        def count(version: int) -> None:
            write(lambda store: store.bump_wiki_changed("main", version))
            write(lambda store: store.upsert_wiki_page("new", str(version % 9), "t", symbols=["s"]))
            write(lambda store: store.delete_wiki_page("new", str(version % 7)))

        def swap(_version: int) -> None:
            time.sleep(0.02)
            write(lambda store: store.db.replace_index(other))

        def search(_version: int) -> None:
            versions = defaultdict(list)
            for hit in store.search_wiki_chunks(V, "main", 100, terms=["version"]):
                versions[hit["page_id"]].append(hit["heading"])
            for headings in versions.values():
                if "version" in str(headings):
                    self.assertEqual(len(set(headings)), 1, "chunks of two versions in one answer")
                    self.assertEqual(len(headings), 2 + int(headings[0].split()[-1]) % 5)

        def forget(_version: int) -> None:
            time.sleep(0.001)
            store.invalidate_wiki_chunk_index()
            self.assertIn(store.wiki_chunk_dimension("main"), (None, 3))

        def run(task: Callable[[int], None]) -> None:
            for version in itertools.count():
                try:
                    task(version)
                except sqlite3.OperationalError as error:
                    if "locked" not in str(error):
                        raise
                if time.monotonic() > until:
                    return

        tasks = [functools.partial(replace, 1), functools.partial(replace, 2), move, count, swap]
        tasks += [search, search, forget]
        interval = sys.getswitchinterval()
        self.addCleanup(sys.setswitchinterval, interval)
        sys.setswitchinterval(1e-5)
        with ThreadPoolExecutor(len(tasks)) as pool:
            list(pool.map(run, tasks))


WORK = """
    import sys, threading
    sys.path[:] = {path!r}
    from tessaly.storage.database import Database
    from tessaly.storage.repository import Repository
    store = Repository(Database(":memory:"))
    for turn in range({turns}):
        page = store.upsert_wiki_page("b", "p", "t", symbols=["é", turn])
        chunks = [dict(content=str(turn), embedding=[turn, 1.0], citations=[dict(at=turn)])] * 9
        assert store.replace_wiki_chunks(page, "b", chunks, "m") == 9
        hits = store.search_wiki_chunks([turn, 1.0], "b", terms=[str(turn)])
        assert [hit["citations"] for hit in hits] == [[dict(at=turn)]] * 9, hits
        try:
            store.bump_wiki_changed("b", count=2, cuont=3)
        except TypeError as error:
            assert "Did you mean" in str(error) or "unexpected" in str(error)
        else:
            raise AssertionError
        assert store.get_wiki_page("b", "p")["symbols"] == ["é", turn]
"""


class Interpreters(StoreTestCase):
    @not_leak_checked("interpreters take memory of their own")
    def test_interpreters_work_side_by_side_and_end_alone(self) -> None:
        turns = 1000 if SOAK else 60
        source = textwrap.dedent(WORK)

        def live(number: int) -> Any:
            mine = _interpreters.create("isolated")
            try:  # the first ones are gone long before the last
                code = source.format(path=sys.path, turns=turns * (number + 1))
                return _interpreters.exec(mine, code)
            finally:
                _interpreters.destroy(mine)

        with ThreadPoolExecutor(4) as pool:
            failed = pool.map(live, range(4))
            exec(source.format(path=sys.path, turns=turns), {})
        self.assertEqual([error and error.formatted for error in failed], [None] * 4)


if __name__ == "__main__":
    unittest.main()
