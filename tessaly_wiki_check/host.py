"""The host under check: its repositories, and branches of its own for the rows of a check."""

import gc
import importlib
import uuid
from collections.abc import Callable
from typing import Any

_STATE = "INSERT INTO wiki_state (branch, last_built_at, last_commit, changed_since_build, model,"
_STATE += " page_count, manifest_hash) VALUES (?, 'then', 'abc', 1, 'check', 1, 'def')"
_TABLES = ("wiki_chunks", "wiki_pages", "wiki_state")


class Host:
    """What a factory makes, and scratch branches, whose names no repository has.

    ``citation`` is one of lines 1 to 3 of a.py, ``store`` the module that reads the host's names.
    """

    def __init__(self, make: Callable[[], Any], dimension: int = 8, citation: Any = None) -> None:
        self.make, self.dimension = make, dimension
        self.citation = citation or {"path": "a.py", "start": 1, "end": 3, "note": "kept"}
        self.repository, self.other, self._branches = (made := make()), make(), list[str]()
        self.store: Any = importlib.import_module("tessaly.storage.repository_wiki")
        if not (isinstance(made, self.store.WikiStore) and hasattr(made, "db")):
            raise TypeError(f"{made!r} has no WikiStore among its bases, or no db")

    @property
    def db(self) -> Any:
        return self.repository.db

    def begin(self) -> None:
        """Takes new scratch branches: one, its name in capitals, and one of digits alone."""
        name = uuid.uuid4()
        self.branch = f"tessaly-wiki-check-{name.hex[:12]}"
        self.capitals, self.digits = self.branch.upper(), f"0{name.int % 10**12:012}"
        self._branches += [self.branch, self.capitals, self.digits]

    def renew(self) -> None:
        """Opens the host anew: what broke a check may have left a transaction open."""
        self.repository = self.other = None
        gc.collect()
        self.repository, self.other = self.make(), self.make()

    def value(self, statement: str, *parameters: Any) -> Any:
        return self.db.fetchone(statement, parameters)[0]

    def write(self, statement: str, *parameters: Any) -> None:
        with self.db.transaction() as cursor:
            cursor.execute(statement, parameters)

    def store_state(self, branch: str, cursor: Any = None) -> None:
        """Stores a state that counts 1 change, in a transaction of its own or in a cursor's."""
        (self.write(_STATE, branch) if cursor is None else cursor.execute(_STATE, (branch,)))

    def page(self, page_id: str, branch: str, **fields: Any) -> int:
        return self.repository.upsert_wiki_page(branch, page_id, "title", **fields)

    def clear(self) -> list[str]:
        """Deletes scratch rows, relying on no key; the branches that have some yet."""
        scratch = f"branch IN ({', '.join('?' * len(self._branches))})"
        with self.db.transaction() as cursor:
            for table in _TABLES:
                cursor.execute(f"DELETE FROM {table} WHERE {scratch}", tuple(self._branches))
        self.repository.invalidate_wiki_chunk_index()
        union = " UNION ".join(f"SELECT branch FROM {table} WHERE {scratch}" for table in _TABLES)
        return [row[0] for row in self.db.fetchall(union, (*self._branches,) * 3)]
