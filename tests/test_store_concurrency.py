"""Threads and interpreters side by side, and what would take the whole process down."""

import _interpreters
import faulthandler
import subprocess
import sys
import tempfile
import textwrap
import unittest
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from tessaly.storage.database import Database
from tessaly.storage.repository import Repository
from tests.support import SOAK

TURN = """
    page = store.upsert_wiki_page("b", {page!r}, "t", symbols=["é", turn])
    chunk = dict(heading=str(turn), content={page!r}, embedding=[turn, 1.0], citations=[turn])
    assert store.replace_wiki_chunks(page, "b", [chunk] * (2 + turn % 5), "m") == 2 + turn % 5
    hits = store.search_wiki_chunks([turn, 1.0], "b", 99, terms=[{page!r}])
    for page_id in set(hit["page_id"] for hit in hits):
        found = [hit["citations"] for hit in hits if hit["page_id"] == page_id]
        assert len(found) == 2 + found[0][0] % 5 and found == [found[0]] * len(found), found
    store.bump_wiki_changed("b", 1)
    assert store.get_wiki_page("b", {page!r})["symbols"] == ["é", turn]
"""
ALONE = """
    import sys
    sys.path[:] = {path!r}
    from tessaly.storage.database import Database
    from tessaly.storage.repository import Repository
    store = Repository(Database(":memory:"))
    for turn in range({turns}): exec({code!r})
"""

# A host in plain Python: sqlite3 itself does not survive its thread's end at the wrong moment.
PLAIN_HOST = """
import ctypes, threading, time
from benchmarks import trivial_host
from tessaly.storage.repository_wiki import WikiStore
store = WikiStore()
store.db = trivial_host.Database()
"""
DEADLY = {
    "threads inside methods when the interpreter ends": """
        def work():
            while True:
                store.get_wiki_state("main")
        store.db.fetchone = lambda *_given: [sum(range(2000)) for _ in range(7)]
        for _ in range(3):
            threading.Thread(target=work, daemon=True).start()
        time.sleep(0.1)
    """,
    "methods that call each other without end": """
        def run():
            try:
                store.invalidate_wiki_chunk_index()
            except RecursionError:
                pass
        WikiStore._wiki_chunk_indexes = WikiStore.invalidate_wiki_chunk_index
        threading.stack_size(1 << 28)  # for builds whose frames are large
        threading.Thread(target=run).start()
    """,
}


class Concurrency(unittest.TestCase):
    def setUp(self) -> None:
        faulthandler.dump_traceback_later(500 if SOAK else 100, exit=True)  # no test waits for ever
        self.addCleanup(faulthandler.cancel_dump_traceback_later)

    def test_threads_on_one_repository_see_each_write_whole(self) -> None:
        def work(number: int) -> None:
            code = compile(textwrap.dedent(TURN.format(page=f"page{number}")), "turn", "exec")
            for turn in range(turns):
                exec(code, {"store": store, "turn": turn})

        turns = 3000 if SOAK else 60
        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())
        sys.setswitchinterval(1e-5)
        with tempfile.TemporaryDirectory() as folder, Database(Path(folder, "wiki.db")) as database:
            store = Repository(database)
            with ThreadPoolExecutor(4) as pool:
                list(pool.map(work, range(4)))
            self.assertEqual(store.get_wiki_state("b")["changed_since_build"], 4 * turns)

    def test_interpreters_work_side_by_side_and_end_alone(self) -> None:
        def live(number: int) -> object:
            mine = _interpreters.create("isolated")
            try:  # the first ones are gone long before the last
                code = textwrap.dedent(TURN.format(page="p"))
                turns = (1000 if SOAK else 60) * (number + 1)
                source = textwrap.dedent(ALONE).format(path=sys.path, turns=turns, code=code)
                return _interpreters.exec(mine, source)
            finally:
                _interpreters.destroy(mine)

        with ThreadPoolExecutor(4) as pool:
            failed = list(pool.map(live, range(4)))
        self.assertEqual([error and error.formatted for error in failed], [None] * 4)

    def test_the_process_survives(self) -> None:
        for what, code in DEADLY.items():
            command = [sys.executable, "-c", PLAIN_HOST + textwrap.dedent(code)]
            done = subprocess.run(command, capture_output=True, text=True, timeout=60)
            self.assertEqual((done.returncode, done.stderr), (0, ""), what)
