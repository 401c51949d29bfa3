"""Rows of the wiki tables as the records that callers see."""

from __future__ import annotations

import json
from collections.abc import Mapping, Sequence
from typing import Any

WIKI_PAGE_COLUMNS = (
    "id, branch, page_id, title, description, importance, level, parent_section, rel_path,"
    " source_files, source_hashes, symbols, related_pages, citations, content_hash, model, status,"
    " summary, build_cache, page_type, generated_at"
)


def row_to_wiki_page(row: Sequence[Any]) -> dict[str, Any]:
    """The page record of one row of ``WIKI_PAGE_COLUMNS``: its columns, JSON ones decoded.

    Raises:
        json.JSONDecodeError: A JSON column holds something else.
    """
    return {
        "id": row[0],
        "branch": row[1],
        "page_id": row[2],
        "title": row[3],
        "description": row[4],
        "importance": row[5],
        "level": row[6],
        "parent_section": row[7],
        "rel_path": row[8],
        "source_files": _decoded(row[9], "[]"),
        "source_hashes": _decoded(row[10], "{}"),
        "symbols": _decoded(row[11], "[]"),
        "related_pages": _decoded(row[12], "[]"),
        "citations": _decoded(row[13], "[]"),
        "content_hash": row[14],
        "model": row[15],
        "status": row[16],
        "summary": row[17],
        "build_cache": row[18],
        "page_type": row[19],
        "generated_at": row[20],
    }


def moved_citation(
    citation: Any, moves: Mapping[tuple[str, int, int], tuple[int, int]]
) -> Any:
    """The citation with its range taken from ``moves``, as a new object.

    A citation is an object with ``path``, ``start`` and ``end`` (line numbers); other keys stay.
    One whose range is not in ``moves`` stays as it is, and so does whatever is no such object.
    """
    if not isinstance(citation, dict):
        return citation
    path, start, end = citation.get("path"), citation.get("start"), citation.get("end")
    # A number that merely equals a line (True, 1.0) is none; a list could not be looked up.
    if type(path) is not str or type(start) is not int or type(end) is not int:
        return citation
    moved = moves.get((path, start, end))
    if moved is None:
        return citation
    start, end = moved
    return {**citation, "start": start, "end": end}


def _decoded(text: str | None, empty: str) -> Any:
    if text == "[]":
        return []
    return json.loads(text or empty)
