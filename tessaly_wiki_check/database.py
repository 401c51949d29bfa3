"""The database: how the store reads and writes, whatever stands in the tables."""

from typing import Any

from tessaly_wiki_check.checks import Seen, check, raises
from tessaly_wiki_check.host import Host

JSON = "source_hashes source_files symbols related_pages citations".split()
TEXTS = "description importance level rel_path status summary page_type".split()
NULLS = "parent_section content_hash model build_cache".split()  # where the store writes NULL
STATE = "last_built_at last_commit model manifest_hash".split()
_CHUNK = "page_fk branch content citations embedding model_name token_count id".split()
COLUMNS = {
    "wiki_pages": ["id", "branch", "page_id", "title", "generated_at", *JSON, *TEXTS, *NULLS],
    "wiki_chunks": [*_CHUNK, "anchor", "heading"],
    "wiki_state": ["branch", "changed_since_build", "page_count", *STATE],
}
SHAPE = 'SELECT lower(name), "notnull" AND NOT pk, dflt_value FROM pragma_table_info(?)'
_REFERENCES = "SELECT lower(\"table\"), coalesce(lower(\"to\"), 'id')"
_REFERENCES += ' FROM pragma_foreign_key_list(?) WHERE lower("from") = ?'
_READ = "SELECT branch, changed_since_build, NULL FROM wiki_state WHERE branch = ?"
_ADD = "UPDATE wiki_state SET changed_since_build = changed_since_build + ? WHERE branch = ?"
_TWO_ROWS, _TEXT = "SELECT ?, ?, NULL UNION ALL SELECT 0, '', NULL", " T\u00e9xt \U0001f511\n"
_WRONG = "SELECT nothing FROM wiki_no_such_table"


def _row(row: Any, *values: Any) -> Seen:
    yield f"row[0] can be read of the row {row!r}", not raises(lambda: row[0]), True
    yield "a row by position", [row[at] for at in range(len(values))], [*values]
    yield "a row unpacked, and whether it is true", ([*row], bool(row)), ([*values], True)


@check("", "Return the first row as the driver gives it, a tuple or a sqlite3.Row; else None.")
def fetchone(host: Host) -> Seen:
    """db.fetchone(statement, tuple) gives a row that is read by position, or None."""
    yield from _row(host.db.fetchone(_TWO_ROWS, (2**40, _TEXT)), 2**40, _TEXT, None)
    yield from _row(host.db.fetchone("SELECT NULL", ()), None)
    yield "without a row", host.db.fetchone("SELECT 1 WHERE ?", (0,)), None


@check("fetchone", "Return a list, which is read several times, with every row as in fetchone.")
def fetchall(host: Host) -> Seen:
    """db.fetchall(statement, tuple) gives a list of all rows."""
    rows = host.db.fetchall(_TWO_ROWS, (2**40, _TEXT))
    yield f"the result, a {type(rows).__name__}, is a list", isinstance(rows, list), True
    yield from _row(rows[0], 2**40, _TEXT, None)
    many = "SELECT * FROM (VALUES (1)" + ", (1)" * 2999 + ")"
    yield "rows of 3000", len(host.db.fetchall(many, ())), 3000
    yield "without a row", host.db.fetchall("SELECT 1 WHERE 1 IN ()", ()), []


@check("fetchall", "Run on an SQLite library of version 3.24 or later, with its JSON functions.")
def sqlite(host: Host) -> Seen:
    """SQLite has UPSERT, json_each and datetime."""
    version = host.value("SELECT sqlite_version()")
    yield f"{version} is 3.24 or later", tuple(map(int, version.split("."))) >= (3, 24), True
    yield "value", host.value("SELECT max(value, datetime('now')) FROM json_each(?)", '["a"]'), "a"


@check("fetchall", "Declare it as docs/host-contract.md has it: NULL, or with a default.")
def columns(host: Host) -> Seen:
    """The tables have their columns, which ask for nothing that the store does not give."""
    nullable = {*NULLS, *STATE, "anchor", "heading"}
    for table, names in COLUMNS.items():
        rows = host.db.fetchall(SHAPE, (table,))
        yield f"missing in {table}", sorted({*names} - {row[0] for row in rows}), []
        given = names[:2] if table == "wiki_state" else names  # a row can begin with so much
        for name, strict, default in rows:
            takes = not strict or name not in nullable and (name in given or default is not None)
            yield f"a row can be stored though {table}.{name} is NOT NULL", takes, True
    for row in host.db.fetchall(_REFERENCES, ("wiki_chunks", "page_fk")):
        yield "what wiki_chunks.page_fk references", [*row], ["wiki_pages", "id"]


def _count(repository: Any, branch: str) -> int:
    return int(repository.db.fetchone(_READ, (branch,)) is not None)


@check("columns", "Let every call open the same database file, with a connection of its own.")
def factory(host: Host) -> Seen:
    """Each call of the factory opens the same file anew."""
    path = "SELECT file FROM pragma_database_list WHERE seq = 0"
    yield "file of the second", host.other.db.fetchone(path, ())[0], host.value(path) or "a file"
    flag = "PRAGMA cell_size_check"  # a harmless one, which every connection has for itself
    before = host.other.db.fetchone(flag, ())[0]
    host.db.fetchone(f"{flag} = {1 - before}", ())
    after = host.other.db.fetchone(flag, ())[0]
    host.db.fetchone(f"{flag} = {before}", ())
    yield "connections of two repositories", 1 + (before == after), 2


@check("factory", "Let __enter__ give a cursor, and __exit__ commit when it is called with None.")
def commit(host: Host) -> Seen:
    """A block that completes is committed: a second repository sees it."""
    with host.db.transaction() as cursor:
        there = hasattr(cursor, "execute")
    yield f"a block gives a cursor, with execute: {cursor!r}", there, True
    host.store_state(host.branch)
    # One that has read before may hold on to what it saw: that is the next check's matter.
    seen = _count(host.other, host.branch) or _count(host.make(), host.branch)
    yield "rows of the block that a second repository on the same file sees", seen, 1


@check("commit", "Read anew at each call: keep no rows, leave no transaction open behind a read.")
def fresh_reads(host: Host) -> Seen:
    """Reads see what has been committed since the last one."""
    for rows in (0, 1):
        for name, one in (("the first", host.repository), ("a second", host.other)):
            seen = _count(one, host.branch), len(one.db.fetchall(_READ, (host.branch,)))
            yield f"rows that fetchone and fetchall of {name} repository see", seen, (rows, rows)
        if not rows:
            host.store_state(host.branch)


def _raised(host: Host, branch: str, raised: BaseException, undo: str = "") -> bool:
    """Whether a block that stores a row, undoes it by itself if told so, and raises, does so."""
    try:
        with host.db.transaction() as cursor:
            host.store_state(branch, cursor)
            for statement in undo.split():
                cursor.execute(statement, ())
            raise raised
    except BaseException as caught:
        return caught is raised
    return False


@check("commit", "Return False from __exit__ for an exception, and catch no error of a statement.")
def errors(host: Host) -> Seen:
    """An error reaches the caller as it was raised."""
    yield "an error raised in a block came out", _raised(host, host.branch, ValueError()), True
    for read in (host.db.fetchone, host.db.fetchall, lambda text, _: host.write(text)):
        yield f"an error of {_WRONG} came out", raises(read, _WRONG, ()), True


@check("errors", "Begin a transaction in __enter__, and let no statement commit by itself.")
def one_transaction(host: Host) -> Seen:
    """The statements of a block are committed together, at its end."""
    _raised(host, host.branch, ValueError())
    if _count(host.other, host.branch):
        # By the statement itself, or by __exit__? Undone in the block, only by the former.
        _raised(host, host.digits, ValueError(), undo="ROLLBACK BEGIN")
        yield "rows that were committed as soon as written", _count(host.other, host.digits), 0


@check("one_transaction fresh_reads", "Roll back in __exit__ for any type of error but None.")
def undone(host: Host) -> Seen:
    """A block that raises is undone, also for KeyboardInterrupt."""
    for raised in (ValueError(), KeyboardInterrupt()):
        yield f"{raised!r}, raised in a block, came out", _raised(host, host.branch, raised), True
        for one in (host.other, host.repository):
            yield f"rows that are there after {raised!r}", _count(one, host.branch), 0


@check("errors", "Let execute return the cursor, executemany run all, rowcount count the last.")
def cursor(host: Host) -> Seen:
    """A block's cursor has execute, executemany and rowcount."""
    read, delete = (_READ, (host.branch,)), "DELETE FROM wiki_state WHERE branch = ?"
    with host.db.transaction() as cursor:
        none = cursor.execute(*read).fetchone()
        host.store_state(host.branch, cursor)
        cursor.executemany(_ADD, [(10, host.branch), (100, host.branch)])
        cursor.executemany(_ADD, [])
        row, rows = cursor.execute(*read).fetchone(), cursor.execute(*read).fetchall()
        counts = [cursor.execute(delete, (host.branch,)) and cursor.rowcount for _ in range(2)]
        rows = [*rows]  # they were there before the deletion, whenever they are looked at
    yield "fetchone without a row, and fetchall's rows of one", (none, len(rows)), (None, 1)
    for one in (row, *rows):
        yield from _row(one, host.branch, 111, None)
    yield "rowcount of deleting a row, and again", counts, [1, 0]
