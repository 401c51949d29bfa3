"""What ``pages``, ``branches`` and ``status`` print."""

from __future__ import annotations

import json
import os
from collections import Counter
from difflib import get_close_matches
from pathlib import Path
from typing import Any

from demo.build import make_plan
from demo.errors import UserError
from demo.show import Progress, Style, cut, cut_left, plural, width
from demo.wiki import Wiki

_SHORT_FIELDS = (
    "page_id title importance description summary symbols related_pages citations".split()
)


def print_pages(wiki: Wiki, as_json: bool) -> None:
    """One line a page: importance, sections, id and description, cut to the terminal's width."""
    pages = wiki.repository.get_wiki_pages(wiki.branch)
    if as_json:
        print(json.dumps([_short(page) for page in pages], indent=2))
        return
    headings = wiki.repository.wiki_chunk_headings(wiki.branch)
    sections = Counter(page_id for page_id, _heading in headings)
    style, columns = Style(), width()
    room = min(max((len(page["page_id"]) for page in pages), default=0), columns // 2)
    for page in pages:
        words = page["description"] if page["status"] == "built" else "(not finished)"
        figures = f"{page['importance']:<6} {sections[page["page_id"]]:>4}  "
        name = cut_left(page["page_id"], room)
        rest = cut(words, columns - len(figures) - room - 2)
        print(f"{style.dim(figures)}{style.path(name.ljust(room))}  {rest}".rstrip())


def print_page(wiki: Wiki, typed: str, as_json: bool) -> None:
    """Everything about one page; UserError with a suggestion when there is no such page."""
    page_id = _path_in_tree(wiki, typed)
    page = wiki.repository.get_wiki_page(wiki.branch, page_id)
    if page is None:
        known = [page["page_id"] for page in wiki.repository.get_wiki_pages(wiki.branch)]
        like = [one for one in known if one.endswith("/" + os.path.basename(page_id))][:3]
        like = like or get_close_matches(page_id, known, 3)
        hint = f": did you mean {' or '.join(like)}?" if like else " (see 'pages')"
        raise UserError(f"branch '{wiki.branch}' has no page '{page_id}'{hint}")
    if as_json:
        print(json.dumps(_short(page), indent=2))
        return
    style = Style()
    print(style.bold(cut(page["title"], width())))
    for line in (page["description"], f"{page['summary']}, {page['importance']} importance"):
        print(cut(line, width()))
    for _chunk, owner, _title, heading, content in wiki.repository.wiki_chunk_texts(wiki.branch):
        if owner == page["page_id"]:
            lines = content.partition("\n")[0].rpartition(":")[2]
            print(f"  {style.dim(lines.rjust(11))}  {cut(heading, width() - 15)}")
    for other in page["related_pages"]:
        print(f"  {style.dim('names'.rjust(11))}  {style.path(cut_left(other, width() - 15))}")


def _short(page: dict[str, Any]) -> dict[str, Any]:
    return {name: page[name] for name in _SHORT_FIELDS}


def _path_in_tree(wiki: Wiki, path: str) -> str:
    """A path as typed, made relative to the tree if it names a file in it from here."""
    typed = path.replace("\\", "/")
    if (wiki.root / typed).exists() and not os.path.isabs(typed):
        return os.path.normpath(typed).replace(os.sep, "/")
    try:
        return Path(typed).resolve().relative_to(wiki.root).as_posix()
    except (ValueError, OSError):
        return typed


def print_branches(found: list[dict[str, Any]], as_json: bool) -> None:
    """One line a branch of the database."""
    if as_json:
        print(json.dumps(found, indent=2))
        return
    for one in found:
        built = f"built {one['last_built_at']} UTC" if one["last_built_at"] else "not finished"
        print(f"{one['branch']}: {plural(one['page_count'] or 0, 'page')}, {built},"
              f" {one['repository']}")  # fmt: skip


def print_status(wiki: Wiki, as_json: bool) -> None:
    """Where the wiki stands against its tree. Changes nothing."""
    if not wiki.root.is_dir():
        raise UserError(f"the tree of this wiki, {wiki.root}, is gone")
    state, plan = wiki.state(), make_plan(wiki, None, Progress())
    facts = {
        "repository": str(wiki.root),
        "database": str(wiki.database),
        "branch": wiki.branch,
        "last_built_at": state.get("last_built_at"),
        "last_commit": state.get("last_commit"),
        "model": state.get("model"),
        "pages": plan.files - len(plan.changed) + len(plan.gone),
        "changed": plan.changed,
        "gone": plan.gone,
        "unreadable": plan.unreadable,
    }
    if as_json:
        print(json.dumps(facts, indent=2))
        return
    for name, value in facts.items():
        shown = f"{len(value):,}" if isinstance(value, list) else value
        print(f"{Style().dim(name.replace('_', ' ').ljust(13))} {shown}")
    if not state.get("last_built_at"):
        print("being built" if wiki.is_being_built else "the first build was stopped")
    print("'build' brings it up to date" if plan.changed or plan.gone else "up to date")
