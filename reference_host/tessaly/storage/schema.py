"""The tables of the repository's database, and the check that a file's tables are these."""

from __future__ import annotations

import sqlite3

# Row ids are never used twice (AUTOINCREMENT): a reader that still holds the id of a deleted page
# or chunk finds nothing, instead of finding a stranger. The wide columns stand last, so that
# reading a heading does not walk over an embedding.
_DEFINITIONS = """
CREATE TABLE IF NOT EXISTS wiki_pages (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    branch TEXT NOT NULL,
    page_id TEXT NOT NULL,
    title TEXT,
    description TEXT,
    importance TEXT,
    level TEXT,
    parent_section TEXT,
    rel_path TEXT,
    source_files TEXT NOT NULL DEFAULT '[]',
    source_hashes TEXT NOT NULL DEFAULT '{}',
    symbols TEXT NOT NULL DEFAULT '[]',
    related_pages TEXT NOT NULL DEFAULT '[]',
    citations TEXT NOT NULL DEFAULT '[]',
    content_hash TEXT,
    model TEXT,
    status TEXT,
    summary TEXT,
    build_cache TEXT,
    page_type TEXT,
    generated_at TEXT,
    UNIQUE (branch, page_id)
);
CREATE TABLE IF NOT EXISTS wiki_chunks (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    page_fk INTEGER NOT NULL REFERENCES wiki_pages(id) ON DELETE CASCADE,
    branch TEXT NOT NULL,
    anchor TEXT,
    heading TEXT,
    model_name TEXT,
    token_count INTEGER NOT NULL DEFAULT 0,
    citations TEXT,
    content TEXT NOT NULL,
    embedding BLOB NOT NULL
);
CREATE INDEX IF NOT EXISTS wiki_chunks_by_page ON wiki_chunks (page_fk);
CREATE INDEX IF NOT EXISTS wiki_chunks_by_branch ON wiki_chunks (branch);
CREATE TABLE IF NOT EXISTS wiki_state (
    branch TEXT PRIMARY KEY NOT NULL,
    last_built_at TEXT,
    last_commit TEXT,
    changed_since_build INTEGER NOT NULL DEFAULT 0,
    model TEXT,
    page_count INTEGER NOT NULL DEFAULT 0,
    manifest_hash TEXT
);
CREATE TABLE IF NOT EXISTS index_generation (
    id INTEGER PRIMARY KEY CHECK (id = 1),
    generation INTEGER NOT NULL
);
INSERT OR IGNORE INTO index_generation (id, generation) VALUES (1, 1);
"""

# The tables that hold the index, parents first, with every column that its users name.
TABLES: dict[str, tuple[str, ...]] = {
    "wiki_pages": (
        "id", "branch", "page_id", "title", "description", "importance", "level",
        "parent_section", "rel_path", "source_files", "source_hashes", "symbols",
        "related_pages", "citations", "content_hash", "model", "status", "summary",
        "build_cache", "page_type", "generated_at",
    ),
    "wiki_chunks": (
        "id", "page_fk", "branch", "anchor", "heading", "model_name", "token_count",
        "citations", "content", "embedding",
    ),
    "wiki_state": (
        "branch", "last_built_at", "last_commit", "changed_since_build", "model", "page_count",
        "manifest_hash",
    ),
}  # fmt: skip
_KEYS = {
    "wiki_pages": ("branch", "page_id"),
    "wiki_state": ("branch",),
    "index_generation": ("id",),
}


def absent_tables(connection: sqlite3.Connection) -> set[str]:
    """The tables that the database lacks; it is only read.

    Raises:
        ValueError: a table of such a name is there, but is not the one meant here: a view, or
            without one of the columns or keys that the statements rely on.
        sqlite3.DatabaseError: the file is not a database.
    """
    kinds = dict(connection.execute("SELECT name, type FROM sqlite_master"))
    expected = {**TABLES, "index_generation": ("id", "generation")}
    for table, columns in expected.items():
        if table not in kinds:
            continue
        if kinds[table] != "table":
            raise ValueError(f"{table} is a {kinds[table]}, not the table of that name")
        found = {row[1] for row in connection.execute(f"PRAGMA table_info({table})")}
        lacking = [column for column in columns if column not in found]
        if lacking:
            more = f" and {len(lacking) - 3} more" if len(lacking) > 3 else ""
            raise ValueError(
                f"its table {table} is another one: it lacks {', '.join(lacking[:3])}{more}"
            )
        if table in _KEYS and not _has_key(connection, table, _KEYS[table]):
            raise ValueError(f"its table {table} has no unique key ({', '.join(_KEYS[table])})")
    if "wiki_chunks" in kinds and not _has_cascade(connection):
        raise ValueError("its table wiki_chunks does not cascade from wiki_pages")
    return {table for table in expected if table not in kinds}


def create_tables(connection: sqlite3.Connection) -> None:
    """Create what is missing, all of it or nothing. Several processes may do so at once."""
    connection.executescript(f"BEGIN IMMEDIATE; {_DEFINITIONS} COMMIT;")


def _has_key(connection: sqlite3.Connection, table: str, columns: tuple[str, ...]) -> bool:
    info = connection.execute(f"PRAGMA table_info({table})").fetchall()
    if {row[1] for row in info if row[5]} == set(columns):
        return True
    for index in connection.execute(f"PRAGMA index_list({table})").fetchall():
        _sequence, name, unique, _origin, partial = index
        if unique and not partial:
            quoted = name.replace('"', '""')
            members = connection.execute(f'PRAGMA index_info("{quoted}")').fetchall()
            if {row[2] for row in members} == set(columns):
                return True
    return False


def _has_cascade(connection: sqlite3.Connection) -> bool:
    return any(
        (row[2], row[3], row[4] or "id", row[6]) == ("wiki_pages", "page_fk", "id", "CASCADE")
        for row in connection.execute("PRAGMA foreign_key_list(wiki_chunks)")
    )
