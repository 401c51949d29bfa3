"""The tables: their columns, keys and constraints."""

from __future__ import annotations

import json

from tessaly_wiki_check.checks import Broken, CheckList, expect
from tessaly_wiki_check.host import Host

TABLES = CheckList()
KEYS = CheckList()

COLUMNS = {
    "wiki_pages": (
        "id", "branch", "page_id", "title", "description", "importance", "level",
        "parent_section", "rel_path", "source_files", "source_hashes", "symbols",
        "related_pages", "citations", "content_hash", "model", "status", "summary",
        "build_cache", "page_type", "generated_at",
    ),
    "wiki_chunks": (
        "id", "page_fk", "branch", "anchor", "heading", "content", "citations", "embedding",
        "model_name", "token_count",
    ),
    "wiki_state": (
        "branch", "last_built_at", "last_commit", "changed_since_build", "model", "page_count",
        "manifest_hash",
    ),
}  # fmt: skip


@TABLES.check(
    "SQLite has UPSERT, json_each and datetime",
    "Run on an SQLite library of version 3.24 or later that has its JSON functions.",
)
def _features(host: Host) -> None:
    version = host.rows("SELECT sqlite_version()")[0][0]
    numbers = tuple(int(part) for part in version.split("."))
    expect(numbers >= (3, 24), f"this is SQLite {version}")
    rows = host.rows("SELECT j.value, datetime('now') FROM json_each(?) j", '["a", "b"]')
    expect([row[0] for row in rows] == ["a", "b"], "json_each does not list a JSON array")


@TABLES.check(
    "the tables have their columns",
    "Add what is missing to the schema; docs/host-contract.md lists every column.",
)
def _columns(host: Host) -> None:
    missing = []
    for table, columns in COLUMNS.items():
        for column in columns:
            try:
                host.rows(f"SELECT {table}.{column} FROM {table} LIMIT 0")
            except Exception:
                missing.append(f"{table}.{column}")
    expect(not missing, f"cannot be read: {', '.join(missing)}")


@KEYS.check(
    "wiki_pages is unique by (branch, page_id), and a page keeps its row id",
    "Declare UNIQUE (branch, page_id) and id INTEGER PRIMARY KEY in wiki_pages.",
)
def _page_key(host: Host) -> None:
    first = host.page(summary="old")
    again = host.page(summary="new")
    other = host.page("other")
    expect(type(first) is int and first == again, f"the row id went from {first!r} to {again!r}")
    expect(first != other, f"two pages have the row id {first!r}")
    rows = host.rows("SELECT id, summary FROM wiki_pages WHERE id = ?", first)
    expect([tuple(row) for row in rows] == [(first, "new")], "the page is not found by its row id")


@KEYS.check(
    "wiki_chunks.id ascends in order of insertion",
    "Declare id INTEGER PRIMARY KEY in wiki_chunks, so that SQLite assigns ascending row ids.",
)
def _chunk_order(host: Host) -> None:
    host.page_with_chunks()
    rows = host.rows(
        "SELECT id, heading FROM wiki_chunks WHERE branch = ? ORDER BY id", host.branch
    )
    expect(all(type(row[0]) is int for row in rows), f"an id is {rows[0][0]!r}")
    order = [row[1] for row in rows]
    expect(order == ["alpha", "bravo", "charlie"], f"by id the chunks read {', '.join(order)}")


@KEYS.check(
    "deleting a page deletes its chunks",
    "Declare page_fk REFERENCES wiki_pages(id) ON DELETE CASCADE, and run PRAGMA foreign_keys = ON"
    " on every connection.",
)
def _cascade(host: Host) -> None:
    host.page_with_chunks()
    expect(host.repository.delete_wiki_page(host.branch, "page"), "the page was not deleted")
    left = host.count("wiki_chunks")
    expect(left == 0, f"{left} chunks of the deleted page are still there")


@KEYS.check(
    "foreign keys are enforced",
    "Run PRAGMA foreign_keys = ON on every connection, outside a transaction.",
)
def _foreign_keys(host: Host) -> None:
    statement = (
        "INSERT INTO wiki_chunks (page_fk, branch, content, citations, embedding, model_name,"
        " token_count) VALUES (?, ?, 'text', '[]', x'00000000', 'check', 0)"
    )
    page = host.page()
    host.write(statement, (page, host.branch))
    host.repository.delete_wiki_page(host.branch, "page")
    try:
        host.write(statement, (page, host.branch))
    except Exception:
        return
    raise Broken("a chunk of a page that is not there was stored")


@KEYS.check(
    "wiki_state is unique by branch and counts from nothing",
    "Make branch the primary key of wiki_state, and let every other column but"
    " changed_since_build be NULL or have a default.",
)
def _state(host: Host) -> None:
    counts = [host.repository.bump_wiki_changed(host.branch, 2) for _ in range(2)]
    expect(counts == [2, 4], f"counting 2 and 2 gave {counts[0]} and {counts[1]}")
    host.repository.upsert_wiki_state(host.branch, last_commit="abc", page_count=3)
    state = host.repository.get_wiki_state(host.branch)
    kept = (state["last_commit"], state["page_count"], state["changed_since_build"])
    expect(kept == ("abc", 3, 0), f"the stored state reads {state!r}")
    expect(host.count("wiki_state") == 1, f"one branch has {host.count('wiki_state')} rows")


@KEYS.check(
    "wiki_state.changed_since_build is never NULL",
    "Declare changed_since_build INTEGER NOT NULL DEFAULT 0.",
)
def _changed(host: Host) -> None:
    statement = "INSERT INTO wiki_state (branch, changed_since_build) VALUES (?, NULL)"
    try:
        host.write(statement, (host.branch,))
    except Exception:
        return
    raise Broken("a NULL was stored")


@KEYS.check(
    "JSON columns keep their text",
    "Give the JSON columns the type TEXT, and let no converter of the driver decode them.",
)
def _json_columns(host: Host) -> None:
    files, hashes = ["a.py", "\u00fc.py"], {"a.py": "1"}
    host.page(source_files=files, source_hashes=hashes)
    row = host.rows(
        "SELECT source_files, source_hashes, symbols FROM wiki_pages WHERE branch = ?", host.branch
    )[0]
    stored = (row[0], row[1], row[2])
    expect(stored == (json.dumps(files), json.dumps(hashes), "[]"), f"they read {stored!r}")
