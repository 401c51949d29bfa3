"""What ``pages``, ``branches`` and ``status`` print."""

from __future__ import annotations

import json
import os
from dataclasses import replace
from difflib import get_close_matches
from typing import Any

from demo.build import make_plan
from demo.errors import UserError
from demo.git import checkout
from demo.show import Progress, cut, cut_left, plural, styled, width
from demo.wiki import Wiki

_SHORT_FIELDS = "page_id title importance description summary symbols related_pages citations"


def print_pages(wiki: Wiki, as_json: bool) -> None:
    """One line a page: importance, sections, id and description, cut to the terminal's width."""
    pages = wiki.repository.get_wiki_pages(wiki.branch)
    if as_json:
        print(json.dumps([_short(page) for page in pages], indent=2))
        return
    longest, columns = max((len(page["page_id"]) for page in pages), default=0), width()
    room = min(longest, columns // 2)
    for page in pages:
        words = page["description"] if page["status"] == "built" else "(not finished)"
        figures = f"{page['importance']:<6} {len(page['citations']):>4}  "
        name = styled("path", cut_left(page["page_id"], room).ljust(room))
        rest = cut(words, columns - len(figures) - room - 2)
        print(f"{styled('dim', figures)}{name}  {rest}".rstrip())


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
    columns = width()
    print(styled("bold", cut(page["title"], columns)))
    for line in (page["description"], f"{page['summary']}, {page['importance']} importance"):
        print(cut(line, columns))
    for _chunk, owner, _title, heading, content in wiki.repository.wiki_chunk_texts(wiki.branch):
        if owner == page["page_id"]:
            lines = content.partition("\n")[0].rpartition(":")[2]
            print(f"  {styled('dim', lines.rjust(11))}  {cut(heading, columns - 15)}")
    for other in page["related_pages"]:
        print(f"  {styled('dim', 'uses'.rjust(11))}  {cut_left(other, columns - 15)}")


def _short(page: dict[str, Any]) -> dict[str, Any]:
    return {name: page[name] for name in _SHORT_FIELDS.split()}


def _path_in_tree(wiki: Wiki, path: str) -> str:
    """A path as typed, made relative to the tree if it names a file in it from here."""
    typed = path.replace("\\", "/")
    if (wiki.root / typed).exists() and not os.path.isabs(typed):
        return os.path.normpath(typed)
    relative = os.path.relpath(os.path.realpath(typed), wiki.root)
    return typed if relative.startswith("..") else relative


def print_branches(found: list[dict[str, Any]], as_json: bool) -> None:
    """One line a branch of the database."""
    if as_json:
        print(json.dumps(found, indent=2))
        return
    for one in found:
        built = f"built {one['last_built_at']} UTC" if one["last_built_at"] else "not finished"
        pages = plural(one["page_count"] or 0, "page")
        print(f"{one['branch']}: {pages}, {built}, {one['repository']}")


def print_status(wiki: Wiki, as_json: bool) -> None:
    """Where the wiki stands against its tree. Changes nothing."""
    if not wiki.root.is_dir():
        raise UserError(f"the tree of this wiki, {wiki.root}, is gone")
    plan = make_plan(replace(wiki, checkout=checkout(wiki.root)), None, Progress())
    facts: dict[str, Any] = {"repository": str(wiki.root), "database": str(wiki.database)}
    facts |= {"branch": wiki.branch, "is_being_built": wiki.is_being_built}
    facts |= {name: wiki.state().get(name) for name in ("last_built_at", "last_commit", "model")}
    facts |= {"changed": plan.changed, "gone": plan.gone, "unreadable": plan.unreadable}
    if as_json:
        print(json.dumps(facts, indent=2))
        return
    for name, value in facts.items():
        shown = f"{len(value):,}" if isinstance(value, list) else value
        print(f"{styled('dim', name.replace('_', ' ').ljust(14))} {shown}")
    print("'build' brings it up to date" if plan.changed or plan.gone else "up to date")
