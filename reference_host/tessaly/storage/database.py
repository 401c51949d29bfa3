"""The repository's SQLite database, shared by the threads of a process and by processes."""

from __future__ import annotations

import os
import sqlite3
import threading
import time
import types
import weakref
from pathlib import Path
from typing import Any

from tessaly.storage._vector_index import StoredEmbedding
from tessaly.storage.schema import TABLES, absent_tables, create_tables


class _Session:
    """A connection, closed when its last user goes.

    ``lock`` is held by whoever runs a statement: over a block for a transaction. It is contended
    only where threads share the connection, and it keeps ``Database.close`` out of running
    statements.
    """

    __slots__ = ("__weakref__", "connection", "lock")

    def __init__(self, connection: sqlite3.Connection) -> None:
        self.connection = connection
        self.lock = threading.RLock()
        # Left alone, the connection would wait for the garbage collector: its statement cache
        # refers back to it.
        weakref.finalize(self, connection.close)


class Transaction:
    """One block that takes effect whole or not at all; made by ``Database.transaction``."""

    __slots__ = ("_session",)

    def __init__(self, session: _Session) -> None:
        self._session = session

    def __enter__(self) -> sqlite3.Cursor:
        session = self._session
        session.lock.acquire()
        try:
            if not session.connection.in_transaction:
                # The write lock is taken at once: a block that reads and then writes can never
                # find at its first write that another process was there in between.
                return session.connection.execute("BEGIN IMMEDIATE")
        except BaseException:
            try:
                self._undo()
            finally:
                session.lock.release()
            raise
        session.lock.release()
        raise RuntimeError("a transaction of this thread is open already: blocks do not nest")

    def __exit__(self, kind: Any, error: Any, traceback: Any) -> bool:
        session = self._session
        try:
            if kind is None:
                try:
                    session.connection.execute("COMMIT")
                except BaseException:
                    self._undo()
                    raise
            else:
                self._undo()
        finally:
            session.lock.release()
        return False

    def _undo(self) -> None:
        # After some errors (a full disk) SQLite has rolled back by itself; a connection that was
        # closed inside the block has, too, and its own error must not hide the first one.
        connection = self._session.connection
        try:
            if connection.in_transaction:
                connection.execute("ROLLBACK")
        except sqlite3.ProgrammingError:
            pass


class Database:
    """The database file at ``path``, created with its tables when absent; ":memory:" works.

    Safe to use from several threads. Each thread has a connection of its own to a file; a database
    in memory has one that the threads take in turns, so a reader waits there for another thread's
    block. Do not carry an object over a fork.

    Args:
        path: The file.
        busy_timeout: Seconds that a writer waits for another one before
            ``sqlite3.OperationalError`` ("database is locked").

    Raises:
        sqlite3.DatabaseError: ``path`` is no database, or cannot be opened.
        ValueError: It has tables of the same names that are not these. The file is left as it was.
    """

    def __init__(self, path: str | os.PathLike[str], *, busy_timeout: float = 30.0) -> None:
        self.path = os.fspath(path)
        self._busy_timeout = busy_timeout
        self._lock = threading.Lock()
        self._closed = False
        self._sessions: weakref.WeakSet[_Session] = weakref.WeakSet()
        in_memory = self.path == ":memory:"
        if not in_memory:
            self.path = _database_path(self.path)
        self._own: Any = types.SimpleNamespace() if in_memory else threading.local()
        try:
            session = self._connect(self.path, uri=False)
            try:
                # A row with an embedding of 384 components takes half of such a page; of SQLite's
                # usual pages it would take a whole one and leave the rest of it empty. Files that
                # have pages keep theirs.
                session.connection.execute("PRAGMA page_size = 8192")
                absent = absent_tables(session.connection)
                if not in_memory:
                    _log_ahead(session.connection, time.monotonic() + busy_timeout)
                if absent:
                    create_tables(session.connection)
            except BaseException:
                session.connection.close()
                raise
        except sqlite3.DatabaseError as error:
            raise type(error)(f"cannot open the database {self.path}: {error}") from error
        except ValueError as error:
            raise ValueError(f"cannot use the database {self.path}: {error}") from error
        self._own.session = session

    def transaction(self) -> Transaction:
        """A context manager whose entry yields the cursor to run the block's statements on.

        The block is committed when it completes and rolled back when it raises, also when the
        commit itself fails; the exception goes on. Entering a second block in one thread is a
        ``RuntimeError``.
        """
        return Transaction(self._session())

    def fetchone(self, statement: str, parameters: tuple[Any, ...] = ()) -> tuple[Any, ...] | None:
        """The first row, or None. Sees what is committed, and the open block of this thread."""
        session = self._session()
        with session.lock:
            return session.connection.execute(statement, parameters).fetchone()

    def fetchall(self, statement: str, parameters: tuple[Any, ...] = ()) -> list[tuple[Any, ...]]:
        """All rows. Sees what is committed, and the open block of this thread.

        Where the last column is ``embedding``, its BLOBs come as ``StoredEmbedding``: bytes-like.
        """
        session = self._session()
        with session.lock:
            cursor = session.connection.execute(statement, parameters)
            columns = cursor.description
            if columns is not None and columns[-1][0] == "embedding":
                return StoredEmbedding.fetch(cursor)
            return cursor.fetchall()

    def index_generation(self) -> int:
        """A number that changes with every ``replace_index``, whichever process makes it."""
        row = self.fetchone("SELECT generation FROM index_generation")
        if row is None:
            raise sqlite3.DatabaseError("the database has lost its index generation")
        return row[0]

    def replace_index(self, source: str | os.PathLike[str]) -> None:
        """Take over the pages, chunks and states of the database file ``source``, row ids too.

        What was there goes. One transaction: an error leaves the old index and its generation.

        Raises:
            sqlite3.DatabaseError: ``source`` is no database, or its rows break a key.
            ValueError: ``source`` does not have the tables.
        """
        path = _database_path(source)
        try:
            other = sqlite3.connect(_uri(path, "ro"), uri=True, isolation_level=None)
        except sqlite3.DatabaseError as error:
            raise type(error)(f"cannot open the database {path}: {error}") from error
        try:
            other.execute("BEGIN")
            absent = absent_tables(other) & TABLES.keys()
            if absent:
                raise ValueError(f"it has no table {', '.join(sorted(absent))}")
            with self.transaction() as cursor:
                for table in reversed(TABLES):
                    cursor.execute(f"DELETE FROM {table}")
                for table, columns in TABLES.items():
                    names = ", ".join(columns)
                    places = ", ".join("?" for _ in columns)
                    cursor.executemany(
                        f"INSERT INTO {table} ({names}) VALUES ({places})",
                        other.execute(f"SELECT {names} FROM {table}"),
                    )
                cursor.execute("UPDATE index_generation SET generation = generation + 1")
        except sqlite3.DatabaseError as error:
            raise type(error)(f"cannot take over the index of {path}: {error}") from error
        except ValueError as error:
            raise ValueError(f"cannot take over the index of {path}: {error}") from error
        finally:
            other.close()

    def close(self) -> None:
        """Close the connections of all threads. A block that is open elsewhere is waited for.

        Raises:
            sqlite3.OperationalError: A block of another thread did not end in time; its connection
                stays open, and closing may be tried again.
        """
        with self._lock:
            self._closed = True
            sessions = list(self._sessions)
        deadline = time.monotonic() + self._busy_timeout
        for session in sessions:
            if not session.lock.acquire(timeout=max(0.0, deadline - time.monotonic())):
                raise sqlite3.OperationalError("cannot close: another thread's transaction is open")
            try:
                session.connection.close()
            finally:
                session.lock.release()

    def __enter__(self) -> Database:
        return self

    def __exit__(self, *_exception: object) -> None:
        self.close()

    def _session(self) -> _Session:
        try:
            return self._own.session
        except AttributeError:
            # A file that has vanished since is an error here, not a reason for an empty one.
            session = self._connect(_uri(self.path, "rw"), uri=True)
            self._own.session = session
            return session

    def _connect(self, path: str, *, uri: bool) -> _Session:
        session = _Session(
            sqlite3.connect(
                path,
                timeout=self._busy_timeout,
                isolation_level=None,
                check_same_thread=False,
                cached_statements=256,
                uri=uri,
            )
        )
        session.connection.execute("PRAGMA foreign_keys = ON")
        # With a write-ahead log this loses nothing when the process dies; a power cut may undo the
        # last commits, whole ones.
        session.connection.execute("PRAGMA synchronous = NORMAL")
        with self._lock:
            if not self._closed:
                self._sessions.add(session)
                return session
        session.connection.close()
        raise sqlite3.ProgrammingError("the database is closed")


def _database_path(path: str | os.PathLike[str]) -> str:
    text = os.fspath(path)
    if not isinstance(text, str):
        raise TypeError(f"a path must be text, not {type(text).__name__}")
    if not text:
        raise ValueError("a database needs a path: this one is empty")
    if os.path.isdir(text):
        raise sqlite3.OperationalError(f"cannot open the database {text}: it is a folder")
    return os.path.abspath(text)


def _uri(path: str, mode: str) -> str:
    return f"{Path(path).as_uri()}?mode={mode}"


def _log_ahead(connection: sqlite3.Connection, deadline: float) -> None:
    # SQLite does not wait for a lock to change the journal mode, so that is done here.
    while True:
        try:
            if connection.execute("PRAGMA journal_mode").fetchone()[0] != "wal":
                connection.execute("PRAGMA journal_mode = WAL")
            return
        except sqlite3.OperationalError as error:
            if error.sqlite_errorcode != sqlite3.SQLITE_BUSY or time.monotonic() > deadline:
                raise
            time.sleep(0.01)
