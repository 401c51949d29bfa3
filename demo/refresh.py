"""Moves citations of pages whose sources only shifted, without embedding anything.

A source only shifted when drafting it anew gives the same page: the same title, description and
symbols, and the same sections in the same order, at other lines. Anything else is left to a build.
"""

from __future__ import annotations

import re
from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any

from demo.build import is_current
from demo.draft import BuildCache, Draft, content_hash, draft_page
from demo.git import checkout
from demo.show import Progress
from demo.source_tree import read_source, source_paths
from demo.wiki import Wiki

Moves = dict[tuple[str, int, int], tuple[int, int]]


@dataclass(slots=True)
class Refreshed:
    """Paths by what became of them."""

    moved: list[str] = field(default_factory=list)
    unchanged: int = 0
    left: list[str] = field(default_factory=list)  # changed text, new or gone: a build's business


def refresh(wiki: Wiki, progress: Progress) -> Refreshed:
    """Refreshes what it can and counts the rest as changed since the build."""
    pages = {page["page_id"]: page for page in wiki.repository.get_wiki_pages(wiki.branch)}
    result = Refreshed()
    paths = source_paths(wiki.root, checkout(wiki.root))
    progress.start("comparing", len(paths))
    try:
        for path in paths:
            progress.step()
            source = read_source(wiki.root, path)
            page = pages.pop(path, None) if source is not None else None
            if source is None:
                continue
            if page is not None and is_current(page, source.digest):
                result.unchanged += 1
            elif page is not None and _refresh_page(wiki, page, draft_page(source)):
                result.moved.append(path)
            else:
                result.left.append(path)
    finally:
        progress.finish()
    result.left += sorted(pages)
    state = wiki.repository.get_wiki_state(wiki.branch)
    counted = state["changed_since_build"] if state else 0
    if counted != len(result.left):
        wiki.repository.bump_wiki_changed(wiki.branch, len(result.left) - counted)
    return result


def _refresh_page(wiki: Wiki, page: dict[str, Any], draft: Draft) -> bool:
    """Moves the page's citations to the draft's lines; False when more than lines changed."""
    before = BuildCache.parse(page["build_cache"])
    after = BuildCache.parse(draft.fields["build_cache"])
    if page["status"] != "built" or before is None or after is None or before.head != after.head:
        return False
    if [text for _s, _e, text in before.sections] != [text for _s, _e, text in after.sections]:
        return False
    moves: Moves = {
        (draft.page_id, old[0], old[1]): (new[0], new[1])
        for old, new in zip(before.sections, after.sections, strict=True)
    }
    wiki.repository.update_wiki_page_citations(
        wiki.branch,
        draft.page_id,
        citations=draft.fields["citations"],
        content_hash=content_hash(chunk["content"] for chunk in draft.chunks),
        build_cache=draft.fields["build_cache"],
        rewrite=_moved_first_line(draft.page_id, moves),
        moves=moves,
    )
    return True


def _moved_first_line(path: str, moves: Moves) -> Callable[[str], str]:
    """Rewrites the place that a chunk's text begins with; the source below it stays."""
    place = re.compile(re.escape(path) + r":(\d+)-(\d+)(?=\n|$)")

    def moved(match: re.Match[str]) -> str:
        cited = (path, int(match[1]), int(match[2]))
        start, end = moves.get(cited, cited[1:])
        return f"{path}:{start}-{end}"

    return lambda text: moved(found) + text[found.end() :] if (found := place.match(text)) else text
