"""What rows cost the reference host beside SQLite's own work: stored, read, and kept in memory."""

from __future__ import annotations

import gc
import json
import os
import random
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time
from array import array
from collections.abc import Callable, Iterator
from contextlib import closing
from pathlib import Path
from typing import Any

from benchmarks.timing import progress
from tessaly.storage.database import Database
from tessaly.storage.repository import Repository
from tessaly.storage.schema import create_tables
from tessaly.storage.wiki_chunk_words import create_word_table

NAME = "rows"

PAGES, CHUNKS, WORDS, DIMENSION = 420, 18, 95, 384
COPIES = 4  # of the pages, for the figure in memory: 30,240 chunks

_PAGE = """
    INSERT INTO wiki_pages (branch, page_id, title, source_files, generated_at)
    VALUES ('main', ?, ?, ?, datetime('now'))"""
_CHUNK = """
    INSERT INTO wiki_chunks (page_fk, branch, anchor, heading, content, citations, embedding,
                             model_name, token_count)
    VALUES (?, 'main', ?, ?, ?, ?, ?, 'model', ?)"""
_READ = """
    SELECT c.id, c.page_fk, c.heading, c.content, c.citations, c.embedding
    FROM wiki_chunks c JOIN wiki_pages p ON c.page_fk = p.id
    WHERE c.branch = 'main' ORDER BY c.id"""

# Resident bytes that the first search adds to a process of its own; Linux counts them.
_MEMORY = """
import os, sys
from tessaly.storage.database import Database
from tessaly.storage.repository import Repository
def resident():
    with open("/proc/self/statm") as numbers:
        return int(numbers.read().split()[1]) * os.sysconf("SC_PAGESIZE")
repository = Repository(Database(sys.argv[1]))
before = resident()
repository.search_wiki_chunks([0.5] * int(sys.argv[2]), "main")
print(resident() - before)
"""


def _pages(count: int) -> Iterator[tuple[str, list[dict[str, Any]]]]:
    """Page names with their chunks, the same ones in every run."""
    rng = random.Random(7)
    letters = "etaoinshrdlu"
    vocabulary = ["".join(rng.choices(letters, k=rng.randrange(2, 11))) for _ in range(8_000)]
    weights = [1 / (i + 1) for i in range(len(vocabulary))]
    for number in range(count):
        chunks = [
            {
                "anchor": f"section-{i}",
                "heading": " ".join(rng.choices(vocabulary, weights, k=4)),
                "content": " ".join(rng.choices(vocabulary, weights, k=WORDS)),
                "citations": [{"path": f"src/module{number}.py", "start": i, "end": i + 9}],
                "embedding": [rng.uniform(-0.1, 0.1) for _ in range(DIMENSION)],
                "token_count": 120,
            }
            for i in range(CHUNKS)
        ]
        yield f"page{number}", chunks


def _cpu(work: Callable[[], Any]) -> float:
    gc.collect()  # what an earlier round left is not this one's
    start = time.process_time()
    work()
    return time.process_time() - start


def _store(path: Path, pages: list[Any]) -> float:
    """CPU seconds of the store and the host."""
    with Database(path) as database:
        repository = Repository(database)

        def work() -> None:
            for name, chunks in pages:
                row_id = repository.upsert_wiki_page("main", name, name, source_files=["a.py"])
                repository.replace_wiki_chunks(row_id, "main", chunks, "model")

        return _cpu(work)


def _insert(path: Path, pages: list[Any]) -> float:
    """CPU seconds of SQLite alone: the same rows from ready values, the same transactions."""
    ready = [
        [(row_id, chunk["anchor"], chunk["heading"], chunk["content"],
          json.dumps(chunk["citations"]), array("f", chunk["embedding"]).tobytes(), 120)
         for chunk in chunks]
        for row_id, (_name, chunks) in enumerate(pages, 1)
    ]  # fmt: skip
    with closing(sqlite3.connect(path, isolation_level=None)) as connection:
        for pragma in ("page_size = 8192", "journal_mode = WAL", "synchronous = NORMAL"):
            connection.execute(f"PRAGMA {pragma}")
        connection.execute("PRAGMA foreign_keys = ON")
        create_tables(connection)

        def work() -> None:
            for (name, _chunks), rows in zip(pages, ready):
                for statement, values in ((_PAGE, [(name, name, '["a.py"]')]), (_CHUNK, rows)):
                    connection.execute("BEGIN IMMEDIATE")
                    connection.executemany(statement, values)
                    connection.execute("COMMIT")

        return _cpu(work)


def _search(path: Path) -> float:
    """CPU seconds of a first search, with opening the file."""

    def work() -> None:
        database = Database(path)
        assert len(Repository(database).search_wiki_chunks([0.5] * DIMENSION, "main")) == 20
        database.close()

    return _cpu(work)


def _read_and_index(path: Path) -> float:
    """CPU seconds of SQLite alone: all rows read, their words indexed as the host indexes them."""

    def work() -> None:
        with (
            closing(sqlite3.connect(path)) as connection,
            closing(sqlite3.connect(":memory:", isolation_level=None)) as words,
        ):
            rows = connection.execute(_READ).fetchall()
            create_word_table(words)
            words.execute("BEGIN")
            words.executemany(
                "INSERT INTO wiki_chunk_words (rowid, heading, text) VALUES (?, ?, ?)",
                [(row[0], row[2], row[3]) for row in rows],
            )
            words.execute("COMMIT")

    return _cpu(work)


def _ratio(title: str, ours: Callable[[int], float], floor: Callable[[int], float],
           rounds: int, limit: float) -> None:  # fmt: skip
    times = [(ours(i), floor(i)) for i in range(rounds)]
    ratio = statistics.median(mine / least for mine, least in times)
    mine, least = (statistics.median(column) for column in zip(*times))
    print(f"{title:34}{mine * 1e3:7.0f} ms{least * 1e3:7.0f} ms{ratio:8.2f}{limit:9.2f}"
          f"{'' if ratio <= limit else '  over'}")  # fmt: skip


def table(quick: bool) -> None:
    rounds, count = (1, 40) if quick else (5, PAGES)
    progress("rows")
    pages = list(_pages(count))
    gc.freeze()  # no collection shall walk them
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        print(f"\nRows of {CHUNKS * count} chunks, CPU time of {rounds} rounds beside SQLite's own")
        print(f"{'':34}{'host':>10}{'SQLite':>10}{'ratio':>8}{'at most':>9}")
        _ratio("store", lambda i: _store(folder / f"host{i}", pages),
               lambda i: _insert(folder / f"raw{i}", pages), rounds, 1.70)  # fmt: skip
        path = folder / "host0"
        _ratio("first search of a process", lambda _: _search(path),
               lambda _: _read_and_index(path), rounds, 1.20)  # fmt: skip
        figures = [("bytes a chunk on disk", path.stat().st_size / (CHUNKS * count), 3_000)]
        if not quick and os.path.exists("/proc/self/statm"):
            progress("rows in memory")
            path = folder / "large"
            _store(path, [(f"{name}-{i}", chunks) for i in range(COPIES) for name, chunks in pages])
            command = [sys.executable, "-P", "-c", _MEMORY, str(path), str(DIMENSION)]
            added = int(subprocess.check_output(command)) / (COPIES * CHUNKS * count)
            figures.append(("bytes a chunk in memory, searched", added, 3_600))
        for title, figure, limit in figures:
            print(f"{title:34}{figure:28.0f}{limit:9}{'' if figure <= limit else '  over'}")
    gc.unfreeze()
    progress("")
