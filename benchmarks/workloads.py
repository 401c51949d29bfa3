"""The named workloads: what is called, on what, and how fast it has to be."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any

from benchmarks import trivial_host


@dataclass(frozen=True)
class Workload:
    """One call of ``store``, timed over either host.

    ``row`` and ``rows`` are what the trivial host answers; ``real`` prepares the reference host;
    ``limits`` are the ratios to reach over (the trivial host, the reference host).
    """

    name: str
    call: str
    row: Any = None
    rows: list[Any] = field(default_factory=list)
    trivial: Callable[[Any], None] = lambda store: None
    values: dict[str, Any] = field(default_factory=dict)
    limits: tuple[float, float] = (1.25, 1.05)


_TEXT_ROWS = [(i, f"page{i}", f"Title {i}", f"Heading {i}", f"Text {i}") for i in range(100)]
_HEADING_ROWS = [(f"page{i}", f"Heading {i}") for i in range(100)]
_CITED_ROWS = [(i, f"Text of chunk {i}", trivial_host.CITATION) for i in range(1, 21)]
_PAGE_ROWS = [(i, f"page{i}", f"Title {i}", f"src/page{i}.py") for i in range(0, 8)]
_CHUNKS = [
    {
        "heading": f"Heading {i}",
        "content": f"Text of chunk {i}",
        "embedding": [0.5, 0.5],
        "citations": [{"path": "src/module.py", "start": 10 * i, "end": 10 * i + 9}],
        "token_count": 12,
    }
    for i in range(5)
]


MEAN_LIMITS = (0.54, 0.86)  # of the geometric mean of all workloads


class _PagesAfterChunks(trivial_host.Database):
    """Answers the first read with chunk rows, all later ones with page rows."""

    def __init__(self, chunks: list[Any], pages: list[Any]) -> None:
        super().__init__(None, chunks)
        self.pages = pages

    def fetchall(self, statement: str, parameters: tuple[Any, ...]) -> list[Any]:
        return self.pages


def _cached_index(store: Any) -> None:
    rows = trivial_host.chunk_rows(100)
    store.db = trivial_host.Database(None, rows)
    store._wiki_chunk_index("main")
    store.db = _PagesAfterChunks(rows, _PAGE_ROWS)


WORKLOADS = [
    Workload("_wiki_chunk_indexes", "store._wiki_chunk_indexes()"),
    Workload("invalidate_wiki_chunk_index", "store.invalidate_wiki_chunk_index()"),
    Workload(
        "upsert_wiki_page",
        "store.upsert_wiki_page('main', 'page', 'A title', source_files=files)",
        row=(7,),
        values={"files": ["src/module.py", "src/other.py"]},
        limits=(0.15, 0.65),
    ),
    Workload(
        "replace_wiki_chunks",
        "store.replace_wiki_chunks(1, 'main', chunks, 'model')",
        values={"chunks": _CHUNKS},
        limits=(0.28, 1.05),
    ),
    Workload(
        "wiki_chunk_headings",
        "store.wiki_chunk_headings('main')",
        rows=_HEADING_ROWS,
        limits=(0.08, 1.05),
    ),
    Workload(
        "wiki_chunk_texts", "store.wiki_chunk_texts('main')", rows=_TEXT_ROWS, limits=(0.08, 1.05)
    ),
    Workload(
        "update_wiki_chunk_embeddings",
        "store.update_wiki_chunk_embeddings('main', pairs, 'model')",
        values={"pairs": [(i, [0.5, 0.5]) for i in range(1, 6)]},
    ),
    Workload(
        "wiki_chunk_dimension",
        "store.wiki_chunk_dimension('main')",
        row=([0.5, 0.5],),
        limits=(1.60, 1.05),
    ),
    Workload(
        "search_wiki_chunks",
        "store.search_wiki_chunks(query, 'main')",
        trivial=_cached_index,
        values={"query": [0.5, 0.5]},
        limits=(0.30, 0.40),
    ),
    Workload(
        "_wiki_chunk_index, cached", "store._wiki_chunk_index('main')", trivial=_cached_index
    ),
    Workload(
        "_wiki_chunk_index, build",
        "cache.clear(); store._wiki_chunk_index('main')",
        rows=trivial_host.chunk_rows(100),
        limits=(1.00, 1.05),
    ),
    Workload("get_wiki_pages", "store.get_wiki_pages('main')", rows=[trivial_host.PAGE_ROW] * 3),
    Workload(
        "wiki_pages_citing",
        "store.wiki_pages_citing('main', paths)",
        rows=[trivial_host.PAGE_ROW],
        values={"paths": ["src/module.py", "src\\other.py"]},
    ),
    Workload(
        "get_wiki_page", "store.get_wiki_page('main', 'page')", row=trivial_host.PAGE_ROW
    ),
    Workload(
        "update_wiki_page_citations",
        "store.update_wiki_page_citations('main', 'page', citations=citations,"
        " content_hash='hash', build_cache=None, rewrite=rewrite, moves=moves)",
        row=(1,),
        rows=_CITED_ROWS,
        values={
            "citations": [{"path": "src/module.py", "start": 10, "end": 42}],
            "rewrite": lambda text: text,
            "moves": {("src/module.py", 10, 42): (11, 43)},
        },
        limits=(0.21, 0.60),
    ),
    Workload("delete_wiki_page", "store.delete_wiki_page('main', 'gone')"),
    Workload("get_wiki_state", "store.get_wiki_state('main')", row=trivial_host.STATE_ROW),
    Workload(
        "upsert_wiki_state",
        "store.upsert_wiki_state('main', last_commit='abc', page_count=20)",
    ),
    Workload("bump_wiki_changed", "store.bump_wiki_changed('main', 1)", row=(3,)),
]


def prepare_trivial(store_class: type, workload: Workload) -> dict[str, Any]:
    """The names that the call of ``workload`` uses, over the trivial host."""
    store = store_class()
    store.db = trivial_host.Database(workload.row, workload.rows)
    workload.trivial(store)
    return {"store": store, "cache": store._wiki_chunk_indexes(), **workload.values}


def fill(store: Any) -> None:
    """A small wiki for the calls over the reference host: 8 pages, 100 chunks."""
    names = [f"page{i}" for i in range(8)]
    row_ids = [
        store.upsert_wiki_page("main", name, f"Title of {name}", source_files=["src/module.py"])
        for name in ["page", *names]
    ]
    for number, row_id in enumerate(row_ids[1:]):
        store.replace_wiki_chunks(
            row_id,
            "main",
            [
                {
                    "heading": f"Heading {i}",
                    "content": f"Text of chunk {number}-{i}",
                    "embedding": [0.5 + i / 100, 0.5 - number / 100],
                    "citations": [{"path": "src/module.py", "start": 10, "end": 42}],
                }
                for i in range(13)
            ],
            "model",
        )
    store.replace_wiki_chunks(row_ids[0], "main", _CHUNKS * 4, "model")
    store.upsert_wiki_state("main", last_built_at="2026-01-01", page_count=9)


def prepare_real(store_class: type, workload: Workload, database: Any) -> dict[str, Any]:
    """The same, over a database of the reference host."""
    store = store_class()
    store.db = database
    fill(store)
    store.invalidate_wiki_chunk_index()
    store._wiki_chunk_index("main")
    return {"store": store, "cache": store._wiki_chunk_indexes(), **workload.values}
