"""Transactions, cursors and rows: how the store reaches the database."""

from __future__ import annotations

from typing import Any

from tessaly_wiki_check.checks import Broken, CheckList, expect
from tessaly_wiki_check.host import Host

TRANSACTIONS = CheckList()

_INSERT = "INSERT INTO wiki_state (branch, changed_since_build) VALUES (?, ?)"
_READ = "SELECT branch, changed_since_build, model FROM wiki_state WHERE branch = ?"


class _Probe(Exception):
    """Raised inside a block."""


class _UncommonProbe(BaseException):
    """Raised inside a block; like KeyboardInterrupt, it is no Exception."""


@TRANSACTIONS.check(
    "a block that completes is kept",
    "Commit in __exit__ when it is called with None, and let reads outside a block see it.",
)
def _commit(host: Host) -> None:
    host.write(_INSERT, (host.branch, 1))
    expect(host.count("wiki_state") == 1, "what the block wrote is not there after it")


def _raise_in_block(host: Host, error: BaseException) -> None:
    try:
        with host.db.transaction() as cursor:
            cursor.execute(_INSERT, (host.branch, 1))
            raise error
    except type(error) as caught:
        expect(caught is error, "another exception of that type came out")
    else:
        raise Broken("the exception was swallowed: __exit__ returned a true value")
    expect(host.count("wiki_state") == 0, "what the block wrote before it is still there")


@TRANSACTIONS.check(
    "a block that raises is undone, and the exception goes on",
    "Roll back in __exit__ when it is called with an exception, and return False.",
)
def _rollback(host: Host) -> None:
    _raise_in_block(host, _Probe("raised inside the block"))


@TRANSACTIONS.check(
    "a block is undone for KeyboardInterrupt too",
    "Roll back for every BaseException: test in __exit__ whether the type is None, nothing else.",
)
def _rollback_uncommon(host: Host) -> None:
    _raise_in_block(host, _UncommonProbe("raised inside the block"))


@TRANSACTIONS.check(
    "a statement that fails undoes its whole block",
    "Run all statements of a block in one transaction: no autocommit between them.",
)
def _failing_statement(host: Host) -> None:
    try:
        with host.db.transaction() as cursor:
            cursor.execute(_INSERT, (host.branch, 1))
            cursor.execute("SELECT nothing FROM wiki_no_such_table", ())
    except Exception:
        expect(host.count("wiki_state") == 0, "what the block wrote before it is still there")
    else:
        raise Broken("the failure of the statement was swallowed")


@TRANSACTIONS.check(
    "a cursor's execute gives a result with fetchone and fetchall",
    "Let execute(statement, tuple) return the cursor itself or an object with both methods.",
)
def _execute(host: Host) -> None:
    with host.db.transaction() as cursor:
        none = cursor.execute(_READ, (host.branch,)).fetchone()
        expect(none is None, f"fetchone without a row gave {none!r}")
        cursor.execute(_INSERT, (host.branch, 3))
        row = cursor.execute(_READ, (host.branch,)).fetchone()
        _expect_row(row, host)
        for branch, changed, model in cursor.execute(_READ, (host.branch,)).fetchall():
            expect((branch, changed, model) == (host.branch, 3, None), "fetchall gave another row")


@TRANSACTIONS.check(
    "a cursor's executemany runs a statement for each tuple",
    "Let executemany(statement, list of tuples) run the statement once for each tuple.",
)
def _executemany(host: Host) -> None:
    host.write(_INSERT, (host.branch, 0))
    with host.db.transaction() as cursor:
        cursor.executemany(
            "UPDATE wiki_state SET changed_since_build = changed_since_build + ? WHERE branch = ?",
            [(1, host.branch), (10, host.branch)],
        )
    found = host.rows(_READ, host.branch)[0][1]
    expect(found == 11, f"adding 1 and 10 to 0 gave {found!r}")


@TRANSACTIONS.check(
    "a cursor's rowcount counts the rows of the last execute",
    "Let rowcount be the number of rows that the last execute changed, as an int.",
)
def _rowcount(host: Host) -> None:
    host.write(_INSERT, (host.branch, 1))
    counts = []
    with host.db.transaction() as cursor:
        for _ in range(2):
            cursor.execute("DELETE FROM wiki_state WHERE branch = ?", (host.branch,))
            counts.append(cursor.rowcount)
    expect(counts == [1, 0], f"deleting one row twice gave {counts[0]!r} and {counts[1]!r}")


@TRANSACTIONS.check(
    "db.fetchone gives a row or None",
    "Let fetchone(statement, tuple) return the first row as the driver gives it: text as str,"
    " integers as int, NULL as None.",
)
def _fetchone(host: Host) -> None:
    expect(host.db.fetchone(_READ, (host.branch,)) is None, "there is a row where there is none")
    host.write(_INSERT, (host.branch, 3))
    _expect_row(host.db.fetchone(_READ, (host.branch,)), host)


@TRANSACTIONS.check(
    "db.fetchall gives a list of rows",
    "Let fetchall(statement, tuple) return a list, empty when no row is found.",
)
def _fetchall(host: Host) -> None:
    host.write(_INSERT, (host.branch, 3))
    rows = host.db.fetchall(_READ, (host.branch,))
    expect([len([row for row in rows]) for _ in range(3)] == [1, 1, 1], "it can be read only once")
    _expect_row(rows[0], host)
    none = host.db.fetchall("SELECT branch FROM wiki_state WHERE branch IN ()", ())
    expect(not none, f"without a row it is true: {none!r}")


def _expect_row(row: Any, host: Host) -> None:
    values = [row[0], row[1], row[2]]
    expect(values == [host.branch, 3, None], f"the row reads {values!r}")
    expect(bool(row), "a row with columns is false")
