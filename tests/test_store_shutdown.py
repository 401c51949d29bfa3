"""What would take the process down: threads left behind, C code that cheats, endless calls."""

from __future__ import annotations

import subprocess
import sys
import textwrap
import unittest

# A host in plain Python: sqlite3 itself does not survive its thread's end at the wrong moment.
_HOST = """
    import ctypes, threading, time
    from benchmarks import trivial_host
    from tessaly.storage.repository_wiki import WikiStore

    class Repository(WikiStore):
        def __init__(self, db):
            self.db = db
"""

_CASES = {
    "threads inside methods when the interpreter ends": (
        """
        class Slow(trivial_host.Database):
            def fetchone(self, statement, parameters):
                return [sum(range(2000)) for _ in range(7)]

        def work(repository):
            while True:
                repository.get_wiki_state("main")

        for _ in range(3):
            threading.Thread(target=work, args=(Repository(Slow()),), daemon=True).start()
        time.sleep(0.1)
        print("ended")
        """,
        "ended",
    ),
    "an exit that clears the exception being handled": (
        """
        class Clearing(trivial_host.Transaction):
            def __exit__(self, kind, error, traceback):
                ctypes.pythonapi.PyErr_SetHandledException(ctypes.py_object(None))
                return False

        db = trivial_host.Database()
        db.block = Clearing(db.block.cursor)
        db.block.cursor.execute = None
        try:
            Repository(db).bump_wiki_changed("main", 1)
        except TypeError as error:
            print(error)
        """,
        "'NoneType' object is not callable",
    ),
    "methods that call each other without end": (
        """
        class Endless(Repository):
            _wiki_chunk_indexes = WikiStore.invalidate_wiki_chunk_index

        def run():
            try:
                Endless(None).invalidate_wiki_chunk_index()
            except RecursionError:
                print("refused")

        threading.stack_size(1 << 28)  # for builds whose frames are large
        threading.Thread(target=run).start()
        """,
        "refused",
    ),
}


class Survival(unittest.TestCase):
    def test_the_process_survives(self) -> None:
        for what, (code, said) in _CASES.items():
            with self.subTest(what):
                source = textwrap.dedent(_HOST) + textwrap.dedent(code)
                done = subprocess.run(
                    [sys.executable, "-c", source], capture_output=True, text=True, timeout=60
                )
                self.assertEqual((done.returncode, done.stdout.strip()), (0, said), done.stderr)
