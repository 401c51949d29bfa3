"""Writes a wiki as a folder of static HTML: a front page, and a page for each page.

``pages/NAME.html#L12`` is a line, ``#L12-40`` a section as it is cited.
"""

from __future__ import annotations

import re
from collections import defaultdict
from collections.abc import Iterable
from hashlib import blake2b
from html import escape
from pathlib import Path
from posixpath import basename, dirname
from typing import Any

from demo.errors import UserError
from demo.show import plural, tracked
from demo.wiki import Wiki

_GENERATOR = '<meta name="generator" content="wiki export">'
_ASSETS = ("style.css", "filter.js")
_FOLDED = 400  # pages; with more, the folders of the front page begin closed
_SHOWN_FIRST = 6
_LONGEST_NAME = 120

_Page = dict[str, Any]
_Section = tuple[str, int, int, str]  # heading, first and last line, text


def export(wiki: Wiki, folder: str) -> tuple[int, Path]:
    """Writes the pages and returns their number and the file to open first.

    UserError when the folder holds something else than an earlier export, which is replaced.
    """
    target = Path(folder)
    front = target / "index.html"
    if target.exists() and not target.is_dir():
        raise UserError(f"{folder} is not a folder")
    if target.is_dir() and any(target.iterdir()):
        if not front.is_file() or _GENERATOR not in front.read_text("utf-8", "replace"):
            raise UserError(f"{folder} is not empty and no export; choose another folder")
    (target / "pages").mkdir(parents=True, exist_ok=True)
    pages = {page["page_id"]: page for page in wiki.repository.get_wiki_pages(wiki.branch)}
    site = _Site(wiki, pages)
    front.write_text(site.front(), "utf-8")  # first: an export that is cut short may be repeated
    for asset in _ASSETS:
        (target / asset).write_bytes(Path(__file__).with_name(asset).read_bytes())
    for page_id in tracked("writing", list(pages)):
        (target / "pages" / site.files[page_id]).write_text(site.page(pages[page_id]), "utf-8")
    for old in set(target.glob("pages/*.html")):
        if old.name not in site.names:
            old.unlink()
    return len(pages), front


def file_names(page_ids: Iterable[str]) -> dict[str, str]:
    """A file name for each page, safe in links and on disks that do not tell case apart."""
    slugs: dict[str, list[str]] = defaultdict(list)
    for page_id in page_ids:
        slug = re.sub(r"[^A-Za-z0-9._]+", "-", page_id).lstrip(".-")[:_LONGEST_NAME] or "page"
        slugs[slug.casefold()].append(slug + "\0" + page_id)
    names = {}
    for slug, page_id in (one.split("\0") for same in slugs.values() for one in same):
        alone = len(slugs[slug.casefold()]) == 1
        digest = "" if alone else "-" + blake2b(page_id.encode(), digest_size=5).hexdigest()
        names[page_id] = f"{slug}{digest}.html"
    return names


class _Site:
    """What the pages share: names, folders, who names whom, and the texts that are cited."""

    def __init__(self, wiki: Wiki, pages: dict[str, _Page]) -> None:
        self._wiki = wiki
        self._pages = pages
        self.files = file_names(pages)
        self.names = set(self.files.values())
        self._folders: dict[str, list[str]] = defaultdict(list)
        self._named_by: dict[str, list[str]] = defaultdict(list)
        for page_id, page in sorted(pages.items()):
            self._folders[dirname(page_id)].append(page_id)
            for other in page["related_pages"]:
                self._named_by[other].append(page_id)
        self._sections: dict[str, list[_Section]] = defaultdict(list)
        for _id, page_id, _title, heading, content in wiki.repository.wiki_chunk_texts(wiki.branch):
            place, _, text = content.partition("\n")
            if lines := re.search(r":(\d+)-(\d+)$", place):
                self._sections[page_id].append((heading, int(lines[1]), int(lines[2]), text))

    def front(self) -> str:
        """The front page: what to read first, then every page by folder, and the filter."""
        state, name = self._wiki.state(), escape(self._wiki.root.name or "wiki")
        first = sorted(self._pages.values(), key=self._standing)[:_SHOWN_FIRST]
        facts = [plural(len(self._pages), "page"), f"branch {escape(self._wiki.branch)}"]
        if state.get("last_built_at"):
            facts.append(f"built {state['last_built_at'][:16]} UTC")
        if state.get("last_commit"):
            facts.append(f"commit {escape(state['last_commit'][:10])}")
        cards = "".join(
            f'<li><a href="pages/{self.files[one["page_id"]]}"><b>{_broken(one["title"])}</b>'
            f"<span>{escape(one['description'])}</span></a></li>"
            for one in first
        )
        folded = "" if len(self._pages) > _FOLDED else " open"
        folders = "".join(
            f"<details{folded}><summary><h2>{escape(folder) or 'top folder'}</h2>"
            f"<small>{len(page_ids):,}</small></summary><ul>"
            f"{''.join(map(self._entry, page_ids))}</ul></details>\n"
            for folder, page_ids in sorted(self._folders.items())
        )
        body = (
            f"<header><h1>{name}</h1><p class=facts>{' · '.join(facts)}</p></header>\n"
            '<p class=filter hidden><input type=search id=filter aria-label="Filter the pages"'
            ' placeholder="Filter by name, word or symbol" autocomplete=off spellcheck=false>'
            "<output id=count></output></p>\n"
            + (f"<ul class=cards>{cards}</ul>\n" if cards else "")
            + f'<main id=folders class=list>\n{folders}</main>\n<script src="filter.js"></script>\n'
        )
        return _document(name, "style.css", "front", body)

    def _standing(self, page: _Page) -> tuple[bool, bool, int]:
        """What to read first: the top folder's document, then what most others use."""
        page_id, importance = page["page_id"], page["importance"]
        is_front = importance == "high" and page["page_type"] == "document"
        return importance == "low", not is_front, -len(self._named_by[page_id])

    def _entry(self, page_id: str) -> str:
        page = self._pages[page_id]
        words = f"{page_id} {page['title']} {page['description']} {' '.join(page['symbols'][:60])}"
        title = page["title"] if page["title"] != page_id else ""
        says = f"<b>{escape(title)}</b> " * bool(title) + escape(page["description"])
        return (
            f'<li class="{escape(page["importance"])}" data-words="{escape(words.lower())}">'
            f'<a href="pages/{self.files[page_id]}">{escape(basename(page_id))}</a>'
            f"<span>{says}</span></li>\n"
        )

    def page(self, page: _Page) -> str:
        """One page: its sections with what they cite, and where to go from it."""
        page_id = page["page_id"]
        folder, sections = dirname(page_id), self._sections[page_id]
        near = [one for one in self._folders[folder] if one != page_id]
        links = [
            ("Uses", [(one, one) for one in page["related_pages"] if one in self._pages]),
            ("Used by", [(one, one) for one in self._named_by[page_id]]),
            (f"In {folder or 'the top folder'}", [(one, basename(one)) for one in near]),
        ]
        contents = "".join(
            f'<li><a href="#L{start}-{end}">{escape(heading)}</a><small>{start}</small></li>'
            for heading, start, end, _text in sections
        )
        aside = f"<h2>Sections</h2><ul class=contents>{contents}</ul>" if contents else ""
        for heading, others in links:
            if others:
                items = (f'<li><a href="{self.files[one]}">{escape(text)}</a></li>'
                         for one, text in others)  # fmt: skip
                aside += f"<h2>{escape(heading)}</h2><ul>{''.join(items)}</ul>"
        trail = "".join(f"<span>{escape(part)}</span>" for part in page_id.split("/"))
        kind = "prose" if page["page_type"] == "document" else "code"
        body = (
            f'<nav class=trail><a href="../index.html">{escape(self._wiki.root.name or "wiki")}</a>'
            f'{trail}<a class=jump href="#about">sections</a></nav>\n<div class=columns>'
            f"<main class={kind}><h1>{_broken(page['title'])}</h1>\n"
            f"<p class=lead>{escape(page['description'])}</p>\n"
            f"<p class=facts>{escape(page['summary'])}</p>\n"
            f"{''.join(map(_section, sections))}</main>\n"
            f"<aside id=about>{aside}</aside></div>\n"
        )
        return _document(escape(page["title"]), "../style.css", "page", body)


def _broken(title: str) -> str:
    """A title that may be broken after its slashes."""
    return escape(title).replace("/", "/<wbr>")


def _section(section: _Section) -> str:
    heading, start, end, text = section
    lines = "".join(
        f"<span id=L{number}>{escape(line)}\n</span>"
        for number, line in enumerate(text.split("\n"), start)
    )
    return (
        f'<section id="L{start}-{end}"><h2>{escape(heading)}'
        f'<a href="#L{start}-{end}">{start}–{end}</a></h2>'
        f'<pre style="--first:{start - 1}"><code>{lines}</code></pre></section>\n'
    )


def _document(title: str, style: str, kind: str, body: str) -> str:
    return (
        '<!doctype html>\n<html lang=en>\n<meta charset=utf-8>\n'
        '<meta name=viewport content="width=device-width, initial-scale=1">\n'
        f'{_GENERATOR}\n<title>{title}</title>\n<link rel=stylesheet href="{style}">\n'
        f"<body class={kind}>\n{body}"
    )
