"""Writes a wiki as a folder of static HTML: a front page, and a page for each page.

``pages/NAME.html#L12`` is a line, ``#L12-40`` a section as it is cited.
"""

import re
from collections import Counter, defaultdict
from collections.abc import Iterable
from hashlib import blake2b
from html import escape
from pathlib import Path
from posixpath import basename, dirname
from string import Template
from typing import Any

from demo.errors import UserError
from demo.show import plural, tracked
from demo.wiki import Wiki

_GENERATOR = '<meta name="generator" content="wiki export">'
_FOLDED = 400  # pages; with more, the folders of the front page begin closed
_LONGEST_NAME = 120

_HERE = Path(__file__).parent
_Page = dict[str, Any]


def export(wiki: Wiki, folder: str) -> tuple[int, Path]:
    """Writes the pages, over an earlier export; returns their number and the file to open first."""
    target = Path(folder)
    front = target / "index.html"
    if target.exists() and any(target.iterdir()):
        if not front.is_file() or _GENERATOR not in front.read_text("utf-8", "replace"):
            raise UserError(f"{folder} is not empty and no export; choose another folder")
    (target / "pages").mkdir(parents=True, exist_ok=True)
    site = _Site(wiki)
    front.write_text(site.front(), "utf-8")  # first: an export that is cut short may be repeated
    for asset in ("style.css", "filter.js"):
        (target / asset).write_bytes((_HERE / asset).read_bytes())
    for page_id in tracked("writing", list(site.pages)):
        (target / "pages" / site.files[page_id]).write_text(site.page(page_id), "utf-8")
    for old in set(target.glob("pages/*.html")):
        if old.name not in site.files.values():
            old.unlink()
    return len(site.pages), front


def file_names(page_ids: Iterable[str]) -> dict[str, str]:
    """A file name for each page, safe in links and on disks that do not tell case apart."""
    slugs = {
        page_id: re.sub(r"[^A-Za-z0-9._]+", "-", page_id).lstrip(".-")[:_LONGEST_NAME] or "page"
        for page_id in page_ids
    }
    taken = Counter(map(str.casefold, slugs.values()))
    for page_id, slug in slugs.items():
        if taken[slug.casefold()] > 1:
            slugs[page_id] += "-" + blake2b(page_id.encode(), digest_size=5).hexdigest()
    return {page_id: f"{slug}.html" for page_id, slug in slugs.items()}


class _Site:
    """What the pages share: names, folders, who names whom, and the texts that are cited."""

    def __init__(self, wiki: Wiki) -> None:
        self._wiki = wiki
        self._name = escape(wiki.root.name or "wiki")
        self.pages = {page["page_id"]: page for page in wiki.repository.get_wiki_pages(wiki.branch)}
        self.files = file_names(self.pages)
        self._folders: dict[str, list[str]] = defaultdict(list)
        self._named_by: dict[str, list[str]] = defaultdict(list)
        for page_id, page in sorted(self.pages.items()):
            self._folders[dirname(page_id)].append(page_id)
            for other in page["related_pages"]:
                self._named_by[other].append(page_id)
        self._chunks: dict[str, list[tuple[str, str]]] = defaultdict(list)
        for _id, page_id, _title, heading, content in wiki.repository.wiki_chunk_texts(wiki.branch):
            self._chunks[page_id].append((heading, content))

    def front(self) -> str:
        """The front page: every page by folder, and the filter."""
        state, facts = self._wiki.state(), [plural(len(self.pages), "page")]
        facts.append(f"branch {escape(self._wiki.branch)}")
        if state.get("last_built_at"):
            facts.append(f"built {escape(state['last_built_at'][:16])} UTC")
        if state.get("last_commit"):
            facts.append(f"commit {escape(state['last_commit'][:10])}")
        folded = "" if len(self.pages) > _FOLDED else " open"
        folders = (
            f"<details{folded}><summary><h2>{escape(folder) or 'top folder'}</h2>"
            f"<small>{len(page_ids):,}</small></summary><ul>"
            f"{''.join(map(self._entry, page_ids))}</ul></details>\n"
            for folder, page_ids in sorted(self._folders.items())
        )
        told = " · ".join(facts)
        return _filled("front.html", name=self._name, facts=told, folders="".join(folders))

    def _entry(self, page_id: str) -> str:
        page = self.pages[page_id]
        words = f"{page_id} {page['title']} {page['description']} {' '.join(page['symbols'][:60])}"
        title = f"<b>{escape(page['title'])}</b> " if page["title"] != page_id else ""
        return (
            f'<li class="{escape(page["importance"])}" data-words="{escape(words.lower())}">'
            f'<a href="pages/{self.files[page_id]}">{escape(basename(page_id))}</a>'
            f"<span>{title}{escape(page['description'])}</span></li>\n"
        )

    def page(self, page_id: str) -> str:
        """One page: its sections with what they cite, and where to go from it."""
        page, folder = self.pages[page_id], dirname(page_id)
        sections, contents = [], ""
        for heading, content in self._chunks[page_id]:
            place, _, text = content.partition("\n")
            start, end = map(int, place.rpartition(":")[2].split("-"))
            sections.append(_section(escape(heading), start, end, text))
            link = f'<a href="#L{start}-{end}">{escape(heading)}</a>'
            contents += f"<li>{link}<small>{start}</small></li>"
        aside = f"<h2>Sections</h2><ul class=contents>{contents}</ul>"
        for heading, others, name in (
            ("Uses", page["related_pages"], str),
            ("Used by", self._named_by[page_id], str),
            (f"In {folder or 'the top folder'}", self._folders[folder], basename),
        ):
            links = "".join(
                f'<li><a href="{self.files[one]}">{escape(name(one))}</a></li>'
                for one in others
                if one in self.files and one != page_id
            )
            aside += f"<h2>{escape(heading)}</h2><ul>{links}</ul>" if links else ""
        return _filled(
            "page.html",
            wiki=self._name,
            name=escape(page["title"]),
            trail="".join(f"<span>{escape(part)}</span>" for part in page_id.split("/")),
            kind="prose" if page["page_type"] == "document" else "code",
            title=escape(page["title"]).replace("/", "/<wbr>"),
            description=escape(page["description"]),
            summary=escape(page["summary"]),
            sections="".join(sections),
            aside=aside,
        )


def _section(heading: str, start: int, end: int, text: str) -> str:
    numbered = enumerate(text.split("\n"), start)
    lines = "".join(f"<span id=L{number}>{escape(line)}\n</span>" for number, line in numbered)
    place = f'<a href="#L{start}-{end}">{start}–{end}</a>'
    return (
        f'<section id="L{start}-{end}"><h2>{heading}{place}</h2>'
        f'<pre style="--first:{start - 1}"><code>{lines}</code></pre></section>\n'
    )


def _filled(template: str, **values: str) -> str:
    return Template((_HERE / template).read_text("utf-8")).substitute(values)
