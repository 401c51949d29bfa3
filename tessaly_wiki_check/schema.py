"""The tables: their columns and keys, that they keep what is stored, and how pages are read."""

import copy
import json
import math
from typing import Any

from tessaly_wiki_check.checks import Seen, check, raises
from tessaly_wiki_check.database import COLUMNS, JSON, NULLS, SHAPE, STATE, TEXTS
from tessaly_wiki_check.host import Host

TOLERANCE = 0.02  # of a direction or a cosine: half precision and scaled bytes are well within


def in_plane(host: Host, cosine: float, length: float) -> list[float]:
    return [cosine * length, math.sqrt(1 - cosine**2) * length] + [0.0] * (host.dimension - 2)


def chunk(host: Host, text: str, cosine: float = 0.6, length: float = 1.0) -> dict[str, Any]:
    return {"content": text, "embedding": in_plane(host, cosine, length)}


@check("fetchone", "Keep its direction. A codec for one length is checked with --dimension N.")
def codec(host: Host) -> Seen:
    """The codec of stored_vectors(db) gives back the embedding that it was given."""
    codec = host.store.stored_vectors(host.db)
    parts = [(1 + at % 4) * (-1) ** at for at in range(host.dimension)]
    for turn, length in enumerate((1.0, 0.01, 100.0)):
        given = [x * length / math.hypot(*parts) for x in parts[turn:] + parts[:turn]]
        if length > 1.0 and raises(codec.encode, given):
            continue  # refused, so nothing is lost
        found = [*codec.decode(host.value("SELECT ?", codec.encode(given)))]
        yield "components", len(found), host.dimension
        size = math.hypot(*found) or 1.0
        moved = math.hypot(*(x / size - y / length for x, y in zip(found, given)))
        yield f"{found[:4]}... has the direction of {given[:4]}...", moved <= TOLERANCE, True


@check("cursor", "Declare id INTEGER PRIMARY KEY, and UNIQUE (branch, page_id) of TEXT columns.")
def page_key(host: Host) -> Seen:
    """A page has a row id for good, found by branch and page_id."""
    keys = [(name, host.branch) for name in ("page", "PAGE", "page ")]
    keys += [("page", host.capitals), ("page", host.digits)]
    ids, again = ([host.page(*key) for key in keys] for _ in range(2))
    yield f"row ids of {len(keys)} pages", len({*ids}), len(keys)
    yield "row ids of pages stored again", again, ids


@check("cursor", "Declare branch PRIMARY KEY, and changed_since_build INTEGER NOT NULL DEFAULT 0.")
def state_key(host: Host) -> Seen:
    """A branch has one state, which counts from 0 and never from NULL."""
    for branch in (host.branch, host.capitals):
        counts = [host.repository.bump_wiki_changed(branch, 2) for _ in range(2)]
        yield "counting 2 and 2", counts, [2, 4]
    null = "UPDATE wiki_state SET changed_since_build = NULL WHERE branch = ?"
    raises(host.write, null, host.branch)
    kept = host.repository.get_wiki_state(host.branch)["changed_since_build"]
    yield f"NULL is no count, {kept!r} is", kept is not None, True


@check("page_key codec", "Declare id INTEGER PRIMARY KEY, page_fk REFERENCES wiki_pages(id).")
def chunk_ids(host: Host) -> Seen:
    """Chunks can be stored, and their ids ascend."""
    pages = [host.page(name, host.branch) for name in ("first", "second")]
    for page, names in ((0, "kl"), (1, "mn"), (0, "op")):
        chunks = [chunk(host, name) for name in names]
        host.repository.replace_wiki_chunks(pages[page], host.branch, chunks, "check")
    by_id = "SELECT id, content FROM wiki_chunks WHERE branch = ? ORDER BY id"
    rows = host.db.fetchall(by_id, (host.branch,))
    yield "types of ids", {type(row[0]) for row in rows}, {int}
    yield "by id, the chunks stored as m, n, o, p", "".join(row[1] for row in rows), "mnop"


@check("cursor", "Run PRAGMA foreign_keys = ON on every connection, outside a transaction.")
def foreign_keys(host: Host) -> Seen:
    """Foreign keys are enforced."""
    for one in (host.repository, host.other):
        with one.db.transaction() as cursor:
            value = cursor.execute("PRAGMA foreign_keys", ()).fetchone()[0]
        yield "PRAGMA foreign_keys", value, 1


@check("chunk_ids foreign_keys", "Declare page_fk REFERENCES wiki_pages(id) ON DELETE CASCADE.")
def cascade(host: Host) -> Seen:
    """A chunk lives as long as its page."""
    stored = (host.page("page", host.branch), host.branch, [chunk(host, "text")], "check")
    host.repository.replace_wiki_chunks(*stored)
    host.page("page", host.branch)
    count = "SELECT count(*) FROM wiki_chunks WHERE branch = ?"
    yield "chunks of a page stored again", host.value(count, host.branch), 1
    host.repository.delete_wiki_page(host.branch, "page")
    yield "chunks of a deleted page", host.value(count, host.branch), 0
    yield "another is refused", raises(host.repository.replace_wiki_chunks, *stored), True


def _stored(host: Host, table: str, given: dict[str, Any]) -> Seen:
    select = f"SELECT {', '.join(given)} FROM {table} WHERE branch = ?"
    for name, found in zip(given, host.db.fetchone(select, (host.digits,))):
        yield f"{table}.{name}", found, given[name]


@check("page_key state_key chunk_ids", "Declare it TEXT or INTEGER, with no trigger or converter.")
def values(host: Host) -> Seen:
    """What is stored is read as it was given."""
    raw: dict[str, Any] = dict.fromkeys(JSON[1:], ["a.py", "\u00fc.py"]) | {JSON[0]: {"a": "1"}}
    as_json = {name: json.dumps(value) for name, value in raw.items()}
    encoded = host.store.stored_vectors(host.db).encode(chunk(host, "")["embedding"])
    key, kept, last = {"branch": host.digits}, host.value("SELECT ?", encoded), '[{"x": 1}, 2]'
    for text in ("007", " \u00dcn\u00efcode 'x'\n"):
        state = dict.fromkeys(STATE, text) | {"changed_since_build": 3, "page_count": 12}
        host.repository.upsert_wiki_state(host.digits, **state)
        yield from _stored(host, "wiki_state", key | state)
        texts = dict.fromkeys(TEXTS + NULLS, text)
        page = host.page("007", host.digits, **texts, **raw)
        yield from _stored(host, "wiki_pages", key | texts | as_json | {"page_id": "007"})
        fields = dict.fromkeys(("anchor", "heading", "content"), text) | {"token_count": 12}
        made = chunk(host, text) | fields | {"citations": raw["citations"]}
        host.repository.replace_wiki_chunks(page, host.digits, [made], text)
        fields |= {"page_fk": page, "model_name": text, "embedding": kept}
        for citations in (as_json["citations"], last):
            yield from _stored(host, "wiki_chunks", key | fields | {"citations": citations})
            host.write("UPDATE wiki_chunks SET citations = ? WHERE branch = ?", last, host.digits)
        host.write("UPDATE wiki_pages SET generated_at = '2000' WHERE branch = ?", host.digits)
    host.page("007", host.digits)
    at = host.value("SELECT generated_at FROM wiki_pages WHERE branch = ?", host.digits)
    yield f"generated_at, {at!r}, is a text of now", str(at) == at and at > "2001", True


@check("columns", "Separate the names by commas, and put no table before them.")
def page_columns(host: Host) -> Seen:
    """WIKI_PAGE_COLUMNS is a string of columns of wiki_pages."""
    known = {row[0] for row in host.db.fetchall(SHAPE, ("wiki_pages",))}
    names = [name.strip(' \n"`[]').lower() for name in host.store.WIKI_PAGE_COLUMNS.split(",")]
    yield "no such columns", [name for name in names if name not in known], []


@check("page_columns values", "Make a new dict of a row, with what stands in its columns.")
def record(host: Host) -> Seen:
    """row_to_wiki_page makes a page's record of its row."""
    some = {"description": "d", "summary": "s", "symbols": ["f"], "source_files": ["src\\a.py"]}
    ranks, pages = ("high", "medium", "low", "HIGH"), []
    for rank in reversed(ranks):
        host.page(rank, host.branch, importance=rank, **some)
    names = [name for name in COLUMNS["wiki_pages"] if name != "generated_at"]
    select = f"SELECT {', '.join(names)} FROM wiki_pages WHERE page_id = ? AND branch = ?"
    for rank in ranks:
        pages.append(page := host.repository.get_wiki_page(host.branch, rank))
        yield f"{page!r} is a dict", isinstance(page, dict), True
        for name, stored in zip(names, host.db.fetchone(select, (rank, host.branch))):
            # A key that is named after a column holds what stands there, decoded or not.
            if stored and page.get(name, stored) != stored:
                yield f"{name} of the record", json.dumps(page[name]), stored
    yield "pages that read the same", sum(pages.count(page) - 1 for page in pages), 0
    listed = host.repository.get_wiki_pages(host.branch)
    cited = host.repository.wiki_pages_citing(host.branch, ["src/a.py"])
    yield f"listed by importance, they are {listed}, {cited}", listed == cited == pages, True


@check("", "Give it the range that moves has for its own. Other keys than these? See --citation.")
def citations(host: Host) -> Seen:
    """moved_citation moves a citation whose range is in moves, and no other."""
    move, here, there = host.store.moved_citation, ("a.py", 1, 3), ("a.py", 5, 7)
    moves = {here: (5, 7)}
    first = json.loads(json.dumps(move(copy.deepcopy(host.citation), moves)))
    yield f"{host.citation!r} moves from {here!r}", first != host.citation, True
    yield "moves afterwards", moves, {here: (5, 7)}
    back = move(copy.deepcopy(first), {there: (1, 3)})
    yield f"{first!r} moves back to {back!r}", back == host.citation, True
    for place in (("b.py", 1, 3), ("a.py", 1, 4), ("a.py", 2, 3)):
        kept = move(copy.deepcopy(host.citation), {place: (5, 7)})
        yield f"{host.citation!r} stays, not {kept!r}", kept == host.citation, True
