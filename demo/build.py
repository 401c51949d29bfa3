"""Builds the wiki of a tree: only what changed is drafted and embedded anew.

A page and its chunks are separate transactions. A page is first stored as "building", then its
chunks, then it is stored as "built"; so a build that was cut short between them is noticed and
continued by the next one, page by page.
"""

from __future__ import annotations

import os
import re
import time
from collections import Counter
from collections.abc import Callable
from dataclasses import dataclass, field
from hashlib import blake2b
from typing import Any

from demo.draft import FORMAT, BuildCache, Draft, draft_page, embedding_text
from demo.embedder import Embedder
from demo.errors import UserError
from demo.imports import Files
from demo.show import Progress
from demo.source_tree import list_tree, read_source
from demo.wiki import Wiki

BATCH = 256  # texts handed to the embedder at once

_PAGE_FIELDS = (
    "description importance level parent_section rel_path source_files source_hashes symbols"
    " related_pages citations content_hash summary build_cache page_type status model"
).split()
_Moves = dict[tuple[str, int, int], tuple[int, int]]


@dataclass(slots=True)
class Result:
    """What a build has to do, found without changing anything, and what it did."""

    changed: list[str] = field(default_factory=list)  # paths to be drafted
    unchanged: int = 0
    mixed: bool = False  # some pages have embeddings of another model
    gone: list[str] = field(default_factory=list)
    unreadable: list[str] = field(default_factory=list)  # their pages stay
    left_out: Counter[str] = field(default_factory=Counter)
    manifest: str = ""
    built: int = 0
    moved: int = 0
    chunks: int = 0
    seconds: float = 0.0

    @property
    def files(self) -> int:
        """Files of the tree that have, or will have, a page."""
        return len(self.changed) + self.unchanged


class Interrupted(Exception):
    """The user stopped the build; every page stored so far is whole."""


def make_plan(wiki: Wiki, model: str | None, progress: Progress) -> Result:
    """Compares the tree with the pages. Without a model, embeddings count as fitting."""
    pages = {page["page_id"]: page for page in wiki.repository.get_wiki_pages(wiki.branch)}
    listing = list_tree(wiki.root, wiki.checkout)
    plan = Result(unreadable=listing.unreadable, left_out=listing.left_out)
    plan.mixed = model is not None and any(page["model"] != model for page in pages.values())
    manifest = blake2b(str(FORMAT).encode(), digest_size=16)
    progress.start("reading", len(listing.paths))
    for path in listing.paths:
        progress.step()
        source = read_source(wiki.root, path)
        if source == "unreadable":
            plan.unreadable.append(path)
        elif isinstance(source, str):
            plan.left_out[source] += 1
        else:
            manifest.update(f"{path}\0{source.digest}\0".encode())
            page = pages.pop(path, None)
            cache = BuildCache.parse(page["build_cache"]) if page else None
            is_whole = page and page["status"] == "built" and model in (None, page["model"])
            if is_whole and cache and cache.digest == source.digest:
                plan.unchanged += 1
            else:
                plan.changed.append(path)
    progress.finish()
    hidden = tuple(path for path in plan.unreadable if path.endswith("/"))
    missing = sorted(path for path in pages if not path.startswith(hidden))
    plan.gone = [one for one in missing if one not in plan.unreadable and _is_gone(wiki, one)]
    plan.unchanged += len(pages) - len(plan.gone)
    plan.manifest = manifest.hexdigest()
    return plan


def _is_gone(wiki: Wiki, path: str) -> bool:
    """Whether a file that is not listed is not there, or is there and left out now."""
    try:
        os.lstat(wiki.root / path)
    except (FileNotFoundError, NotADirectoryError):
        return True
    except OSError:
        return False  # in a folder that cannot be looked into
    return True


def build(wiki: Wiki, embedder: Embedder, progress: Progress) -> Result:
    """Brings the wiki up to date with the tree.

    UserError when there is nothing to build from or the embedder fails, Interrupted when the user
    stops it. Nothing is written before the embedder has succeeded once.
    """
    began = time.monotonic()
    plan = make_plan(wiki, embedder.model, progress)
    if not plan.files:
        raise UserError(f"no source or document under {wiki.root}; nothing was changed")
    work = _Work(wiki, embedder, progress, plan)
    try:
        work.run()
    except KeyboardInterrupt:
        done = f"stopped after {work.done:,} of {plan.files:,} files; build again to continue"
        raise Interrupted(done) from None
    except UserError as error:
        raise UserError(f"{error}; {work.done:,} of {plan.files:,} files are done") from error
    finally:
        progress.finish()
    plan.seconds = time.monotonic() - began
    return plan


class _Work:
    """One run of a build; ``done`` counts the files that are up to date."""

    def __init__(self, wiki: Wiki, embedder: Embedder, progress: Progress, plan: Result) -> None:
        self._wiki = wiki
        self._repository = wiki.repository
        self._embedder = embedder
        self._progress = progress
        self._plan = plan
        self._has_begun = False
        self.done = plan.unchanged

    def run(self) -> None:
        plan, branch = self._plan, self._wiki.branch
        self._progress.start("building", len(plan.changed))
        waiting: list[Draft] = []
        shifted: list[tuple[Draft, _Moves]] = []
        for path in plan.changed:
            source = read_source(self._wiki.root, path)
            if isinstance(source, str):  # since the plan was made; the next build sees to it
                continue
            draft = draft_page(source)
            if moves := self._moves(draft):
                shifted.append((draft, moves))
            else:
                waiting.append(draft)
            if sum(len(one.chunks) for one in waiting) >= BATCH:
                self._store(waiting)
                waiting = []
        self._store(waiting)
        for draft, moves in shifted:
            self._move(draft, moves)
        for page_id in plan.gone:
            self._repository.delete_wiki_page(branch, page_id)
        self._relate()
        self._repository.upsert_wiki_state(
            branch,
            last_built_at=time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime()),
            last_commit=self._wiki.checkout.commit if self._wiki.checkout else None,
            model=self._embedder.model,
            page_count=plan.files,
            manifest_hash=plan.manifest,
        )

    def _begin(self) -> None:
        """Counts the waiting files as changed; with mixed embeddings the branch has no model."""
        if not self._has_begun:
            self._has_begun = True
            self._wiki.enter_in_catalogue()
            kept = {**self._wiki.state()}
            kept.pop("branch", None)
            kept["changed_since_build"] = len(self._plan.changed) + len(self._plan.gone)
            kept["model"] = None if self._plan.mixed else self._embedder.model
            self._repository.upsert_wiki_state(self._wiki.branch, **kept)

    def _step(self, chunks: int) -> None:
        self._plan.chunks += chunks
        self.done += 1
        self._progress.step()

    def _store(self, drafts: list[Draft]) -> None:
        """Embeds and stores pages that are new or say something else."""
        repository, branch, model = self._repository, self._wiki.branch, self._embedder.model
        chunks = [(draft.fields["title"], chunk) for draft in drafts for chunk in draft.chunks]
        texts = [embedding_text(title, one["heading"], one["content"]) for title, one in chunks]
        for (_title, chunk), vector in zip(chunks, self._vectors(texts), strict=True):
            chunk["embedding"] = vector
        self._begin()
        for draft in drafts:
            fields = {**draft.fields, "model": model}
            row = repository.upsert_wiki_page(branch, draft.page_id, status="building", **fields)
            stored = repository.replace_wiki_chunks(row, branch, draft.chunks, model)
            repository.upsert_wiki_page(branch, draft.page_id, status="built", **fields)
            self._plan.built += 1
            self._step(stored)

    def _moves(self, draft: Draft) -> _Moves | None:
        """Where each citation of a page has gone that says the same at other lines; else None."""
        page = self._repository.get_wiki_page(self._wiki.branch, draft.page_id)
        if page is None or page["status"] != "built" or page["model"] != self._embedder.model:
            return None
        before = BuildCache.parse(page["build_cache"])
        after = BuildCache.parse(draft.fields["build_cache"])
        if before is None or after is None or before.head != after.head:
            return None
        if [text for _s, _e, text in before.sections] != [text for _s, _e, text in after.sections]:
            return None
        ranges = zip(before.sections, after.sections, strict=True)
        return {(draft.page_id, old[0], old[1]): (new[0], new[1]) for old, new in ranges}

    def _move(self, draft: Draft, moves: _Moves) -> None:
        """Moves a page's citations to the draft's lines; nothing is embedded."""
        fields = {**draft.fields, "model": self._embedder.model}
        moved = {name: fields[name] for name in ("citations", "content_hash", "build_cache")}
        self._repository.update_wiki_page_citations(
            self._wiki.branch,
            draft.page_id,
            rewrite=_moved_first_line(draft.page_id, moves),
            moves=moves,
            **moved,
        )
        self._repository.upsert_wiki_page(self._wiki.branch, draft.page_id, **fields)
        self._plan.moved += 1
        self._step(0)

    def _relate(self) -> None:
        """Notes with each page the pages that its source names: others may have come or gone."""
        pages = self._repository.get_wiki_pages(self._wiki.branch)
        files = Files(page["page_id"] for page in pages)
        for page in pages:
            cache = BuildCache.parse(page["build_cache"])
            related = files.related(page["page_id"], cache.names if cache else [])
            if related != page["related_pages"]:
                self._update(page["page_id"], related_pages=related)

    def _update(self, page_id: str, **changed: Any) -> None:
        """Stores some fields of a page; the others stay."""
        page = self._repository.get_wiki_page(self._wiki.branch, page_id)
        if page is not None:
            fields = {name: page[name] for name in _PAGE_FIELDS} | changed
            self._repository.upsert_wiki_page(self._wiki.branch, page_id, page["title"], **fields)

    def _vectors(self, texts: list[str]) -> list[list[float]]:
        return [
            vector
            for start in range(0, len(texts), BATCH)
            for vector in self._embedder.embed(texts[start : start + BATCH])
        ]


def _moved_first_line(path: str, moves: _Moves) -> Callable[[str], str]:
    """Rewrites the place that a chunk's text begins with; the source below it stays."""
    place = re.compile(re.escape(path) + r":(\d+)-(\d+)(?=\n|$)")

    def moved(text: str) -> str:
        if (found := place.match(text)) is None:
            return text
        cited = (path, int(found[1]), int(found[2]))
        start, end = moves.get(cited, cited[1:])
        return f"{path}:{start}-{end}{text[found.end() :]}"

    return moved
