"""What ``pages``, ``citing`` and ``status`` print."""

from __future__ import annotations

import json
import os
import sys
import time
from collections import Counter
from datetime import UTC, datetime
from pathlib import Path
from typing import Any

from demo.build import Plan, make_plan
from demo.draft import BuildCache
from demo.embedder import Embedder
from demo.errors import UserError
from demo.git import checkout
from demo.search import mismatch
from demo.show import Progress, Style, cut, cut_left, plural, width
from demo.wiki import Wiki

_SHOWN_CHANGES = 10
_SHORT_FIELDS = (
    "page_id title importance description summary source_files symbols citations".split()
)


def print_pages(wiki: Wiki, pages: list[dict[str, Any]], as_json: bool) -> None:
    """One line a page: importance, sections, id and description, cut to the terminal's width."""
    if as_json:
        print(json.dumps([_short(page) for page in pages], indent=2))
        return
    headings = wiki.repository.wiki_chunk_headings(wiki.branch)
    sections = Counter(page_id for page_id, _heading in headings)
    style, columns = Style(sys.stdout), width()
    room = min(max((len(page["page_id"]) for page in pages), default=0), columns // 2)
    for page in pages:
        words = page["description"] if page["status"] == "built" else "(not finished)"
        figures = f"{page['importance']:<6} {sections[page["page_id"]]:>4}  "
        name = cut_left(page["page_id"], room)
        rest = cut(words, columns - len(figures) - room - 2)
        print(f"{style.dim(figures)}{style.path(name.ljust(room))}  {rest}".rstrip())


def print_page(wiki: Wiki, page_id: str, as_json: bool) -> None:
    """Everything about one page; UserError when there is no such page."""
    page = wiki.repository.get_wiki_page(wiki.branch, path_in_tree(wiki, page_id))
    if page is None:
        raise UserError(f"branch '{wiki.branch}' has no page '{page_id}'")
    if as_json:
        print(json.dumps(_short(page), indent=2))
        return
    style = Style(sys.stdout)
    print(style.bold(cut(page["title"], width())))
    for line in (page["description"], f"{page['summary']}, {page['importance']} importance"):
        print(cut(line, width()))
    texts = wiki.repository.wiki_chunk_texts(wiki.branch)
    for _chunk, owner, _title, heading, content in texts:
        if owner == page["page_id"]:
            lines = content.partition("\n")[0].rpartition(":")[2]
            print(f"  {style.dim(lines.rjust(11))}  {cut(heading, width() - 15)}")


def _short(page: dict[str, Any]) -> dict[str, Any]:
    return {name: page[name] for name in _SHORT_FIELDS}


def path_in_tree(wiki: Wiki, path: str) -> str:
    """A path as typed, made relative to the tree if it names a file in it from here."""
    typed = path.replace("\\", "/")
    if (wiki.root / typed).exists() and not os.path.isabs(typed):
        return os.path.normpath(typed).replace(os.sep, "/")
    try:
        return Path(typed).resolve().relative_to(wiki.root).as_posix()
    except (ValueError, OSError):
        return typed


def print_status(wiki: Wiki, embedder: Embedder, progress: Progress, as_json: bool) -> None:
    """Where the wiki stands against its tree and this embedder. Changes nothing."""
    if not wiki.root.is_dir():
        raise UserError(f"the tree of this wiki, {wiki.root}, is gone")
    state = wiki.repository.get_wiki_state(wiki.branch) or {}
    pages = wiki.repository.get_wiki_pages(wiki.branch)
    plan = make_plan(wiki, None, progress)
    head = checkout(wiki.root)
    problem = mismatch(wiki, embedder)
    unfinished = sum(page["status"] != "built" for page in pages)
    caches = [BuildCache.parse(page["build_cache"]) for page in pages]
    facts = {
        "repository": str(wiki.root),
        "database": str(wiki.database),
        "branch": wiki.branch,
        "last_built_at": state.get("last_built_at"),
        "last_commit": state.get("last_commit"),
        "head": head.commit if head else None,
        "model": state.get("model"),
        "dimension": wiki.repository.wiki_chunk_dimension(wiki.branch),
        "pages": len(pages),
        "chunks": sum(len(cache.sections) for cache in caches if cache),
        "unfinished": unfinished,
        "counted_changes": state.get("changed_since_build", 0),
        "changed": [one.path for one in plan.sources if one.path not in plan.added],
        "new": sorted(plan.added),
        "gone": plan.gone,
        "problem": problem,
    }
    if as_json:
        print(json.dumps(facts, indent=2))
    else:
        _print_facts(facts, plan, wiki.database.stat().st_size)


def _print_facts(facts: dict[str, Any], plan: Plan, size: int) -> None:
    style = Style(sys.stdout)
    built, commit, head = facts["last_built_at"], facts["last_commit"], facts["head"]
    moved = f", now at {head[:12]}" if head and head != commit else ""
    rows = [
        ("tree", facts["repository"]),
        ("database", f"{facts['database']} ({size / 1e6:.1f} MB)"),
        ("branch", facts["branch"]),
        ("last build", f"{built} UTC ({_ago(built)})" if built else "never finished"),
        ("commit", f"{commit[:12]}{moved}" if commit else f"none{moved}"),
        ("embeddings", _embeddings(facts)),
        ("holds", f"{plural(facts['pages'], 'page')}, {plural(facts['chunks'], 'chunk')}"),
        ("since then", _changes(plan, facts)),
    ]
    for name, value in rows:
        print(f"{style.dim(name.ljust(11))} {value}")
    kinds = ("changed", "new", "gone")
    changed = [f"{kind:<8} {path}" for kind in kinds for path in facts[kind]]
    for line in changed[:_SHOWN_CHANGES]:
        print(f"  {cut(line, width() - 2)}")
    if len(changed) > _SHOWN_CHANGES:
        print(f"  and {len(changed) - _SHOWN_CHANGES:,} more")
    print(style.bold(facts["problem"] or _verdict(plan, built is None)))


def _embeddings(facts: dict[str, Any]) -> str:
    dimension = f"{facts['dimension']} numbers a chunk" if facts["dimension"] else "none"
    return f"{(facts['model'] or 'mixed').rpartition('/')[0] or 'mixed'}, {dimension}"


def _changes(plan: Plan, facts: dict[str, Any]) -> str:
    if not plan.waiting:
        return "nothing changed"
    added = len(plan.added)
    parts = [(len(plan.sources) - added, "changed"), (added, "new"), (len(plan.gone), "gone")]
    return ", ".join(f"{count:,} {what}" for count, what in parts if count) + (
        f" ({facts['counted_changes']:,} counted)"
    )


def _verdict(plan: Plan, unfinished: bool) -> str:
    if unfinished:
        return "the first build was stopped: 'build' continues it"
    if not plan.waiting:
        return "up to date"
    return "'refresh' moves what only shifted, 'build' does the rest"


def _ago(built: str) -> str:
    then = datetime.strptime(built, "%Y-%m-%d %H:%M:%S").replace(tzinfo=UTC)
    seconds = max(0, int(time.time() - then.timestamp()))
    for unit, length in (("day", 86400), ("hour", 3600), ("minute", 60)):
        if seconds >= 2 * length:
            return f"{plural(seconds // length, unit)} ago"
    return f"{plural(seconds, 'second')} ago"
