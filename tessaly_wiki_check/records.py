"""Pages as records, and citations."""

from __future__ import annotations

import json

from tessaly_wiki_check.checks import CheckList, expect
from tessaly_wiki_check.host import Host

RECORDS = CheckList()


@RECORDS.check(
    "a page is read as a record",
    "Let WIKI_PAGE_COLUMNS be a string of wiki_pages columns, and row_to_wiki_page make a dict of"
    " a row of them.",
)
def _record(host: Host) -> None:
    expect(host.repository.get_wiki_page(host.branch, "page") is None, "a page that is not there")
    host.page(source_files=["a.py"])
    record = host.repository.get_wiki_page(host.branch, "page")
    expect(isinstance(record, dict), f"the record is {record!r}, which is no dict")
    listed = host.repository.get_wiki_pages(host.branch)
    expect(listed == [record], f"listed, the page reads {listed!r}")


@RECORDS.check(
    "the pages built from a source file are found",
    "Name the columns in WIKI_PAGE_COLUMNS without a table before them.",
)
def _citing(host: Host) -> None:
    host.page(source_files=["src\\a.py"])
    host.page("other", source_files=["b.py"])
    found = host.repository.wiki_pages_citing(host.branch, ["src/a.py"])
    page = host.repository.get_wiki_page(host.branch, "page")
    expect(found == [page], f"for one file of one page {len(found)} pages were found")


@RECORDS.check(
    "a chunk's citations can be moved",
    "Let moved_citation(citation, moves) return an object that json.dumps takes, the citation"
    " itself when its range is not in moves.",
)
def _moved(host: Host) -> None:
    page = host.page()
    citations = [{"path": "a.py", "start": 1, "end": 3}, {"path": "b.py", "start": 1, "end": 3}]
    chunk = {"content": "text", "embedding": host.embedding(1, 0), "citations": citations}
    host.repository.replace_wiki_chunks(page, host.branch, [chunk], "check")
    host.repository.update_wiki_page_citations(
        host.branch, "page", citations=[], content_hash=None, build_cache=None,
        rewrite=str.upper, moves={("a.py", 1, 3): (5, 7)},
    )  # fmt: skip
    row = host.rows("SELECT content, citations FROM wiki_chunks WHERE branch = ?", host.branch)[0]
    moved = json.loads(row[1])
    expect(row[0] == "TEXT" and len(moved) == 2, f"the chunk reads {row[0]!r} with {moved!r}")
    expect(moved[1] == citations[1], f"a citation that does not move became {moved[1]!r}")
