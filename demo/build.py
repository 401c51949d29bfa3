"""Builds the wiki of a tree: only what changed is drafted and embedded anew.

A page and its chunks are separate transactions. A page is first stored as "building", then its
chunks, then it is stored as "built"; so a build that was cut short between them is noticed and
continued by the next one, page by page.
"""

from __future__ import annotations

import time
from dataclasses import dataclass, field
from hashlib import blake2b
from pathlib import Path
from typing import Any

from demo.draft import FORMAT, BuildCache, Draft, draft_page, embedding_text
from demo.embedder import Embedder
from demo.errors import UserError
from demo.git import Checkout, checkout
from demo.show import Progress
from demo.source_tree import Source, read_source, source_paths
from demo.wiki import Wiki

BATCH = 256  # texts handed to the embedder at once

_PAGE_FIELDS = (
    "description importance level parent_section rel_path source_files source_hashes symbols"
    " related_pages citations content_hash summary build_cache page_type status"
).split()


@dataclass(slots=True)
class Plan:
    """What a build has to do, found without changing anything."""

    sources: list[Source] = field(default_factory=list)  # to be drafted; their data is dropped
    reembed: set[str] = field(default_factory=set)
    unchanged: int = 0
    mixed: bool = False  # some pages have embeddings of another model
    gone: list[str] = field(default_factory=list)
    added: set[str] = field(default_factory=set)  # paths among the sources that have no page yet
    manifest: str = ""
    commit: str | None = None

    @property
    def files(self) -> int:
        """Files of the tree that have, or will have, a page."""
        return len(self.sources) + len(self.reembed) + self.unchanged

    @property
    def waiting(self) -> int:
        """Files that differ from what the wiki was built from."""
        return len(self.sources) + len(self.gone)


@dataclass(frozen=True, slots=True)
class Result:
    """What a build did, for the user."""

    plan: Plan
    chunks: int
    seconds: float


def require_sources(root: Path) -> None:
    """UserError when a tree has nothing to build from; a wiki of it is better left as it is."""
    if not any(read_source(root, path) for path in source_paths(root, checkout(root))):
        raise UserError(f"no source or Markdown file under {root}; nothing was changed")


class Interrupted(Exception):
    """The user stopped the build; every page stored so far is whole."""

    def __init__(self, done: int, total: int) -> None:
        super().__init__(f"stopped after {done:,} of {total:,} files; build again to continue")


def make_plan(wiki: Wiki, model: str | None, progress: Progress) -> Plan:
    """Compares the tree with the pages. Without a model, embeddings count as fitting."""
    tree: Checkout | None = checkout(wiki.root)
    pages = {page["page_id"]: page for page in wiki.repository.get_wiki_pages(wiki.branch)}
    mixed = model is not None and any(page["model"] != model for page in pages.values())
    plan = Plan(commit=tree.commit if tree else None, mixed=mixed)
    manifest = blake2b(str(FORMAT).encode(), digest_size=16)
    paths = source_paths(wiki.root, tree)
    progress.start("reading", len(paths))
    for path in paths:
        progress.step()
        source = read_source(wiki.root, path)
        if source is None:
            continue
        manifest.update(f"{path}\0{source.digest}\0".encode())
        page = pages.pop(path, None)
        if not is_current(page, source.digest):
            plan.sources.append(Source(path, source.language, b"", source.digest))
            if page is None:
                plan.added.add(path)
        elif model is not None and page is not None and page["model"] != model:
            plan.reembed.add(path)
        else:
            plan.unchanged += 1
    progress.finish()
    plan.gone = sorted(pages)
    plan.manifest = manifest.hexdigest()
    return plan


def is_current(page: dict[str, Any] | None, digest: str) -> bool:
    """Whether a page is whole and speaks of the source with this digest."""
    if page is None or page["status"] != "built":
        return False
    cache = BuildCache.parse(page["build_cache"])
    return cache is not None and cache.digest == digest


def build(wiki: Wiki, embedder: Embedder, progress: Progress) -> Result:
    """Brings the wiki up to date with the tree.

    UserError when the embedder fails, Interrupted when the user stops it.
    """
    began = time.monotonic()
    plan = make_plan(wiki, embedder.model, progress)
    work = _Work(wiki, embedder, progress, plan)
    try:
        work.run()
    except KeyboardInterrupt:
        raise Interrupted(work.done, plan.files) from None
    except UserError as error:
        raise UserError(f"{error}; {work.done:,} of {plan.files:,} files are done") from error
    finally:
        progress.finish()
    return Result(plan, work.chunks, time.monotonic() - began)


class _Work:
    """One run of a build; ``done`` counts the files that are up to date."""

    def __init__(self, wiki: Wiki, embedder: Embedder, progress: Progress, plan: Plan) -> None:
        self._wiki = wiki
        self._repository = wiki.repository
        self._embedder = embedder
        self._progress = progress
        self._plan = plan
        self.done = plan.unchanged
        self.chunks = 0

    def run(self) -> None:
        plan, branch = self._plan, self._wiki.branch
        self._wiki.enter_in_catalogue()
        self._mark_begun()
        self._progress.start("building", len(plan.sources) + len(plan.reembed))
        if plan.reembed:
            self._reembed()
        waiting: list[Draft] = []
        for listed in plan.sources:
            source = read_source(self._wiki.root, listed.path)
            if source is not None:  # else gone since the plan; the next build deletes its page
                waiting.append(draft_page(source))
            if sum(len(draft.chunks) for draft in waiting) >= BATCH:
                self._store(waiting)
                waiting = []
        self._store(waiting)
        for page_id in plan.gone:
            self._repository.delete_wiki_page(branch, page_id)
        self._repository.upsert_wiki_state(
            branch,
            last_built_at=time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime()),
            last_commit=plan.commit,
            model=self._embedder.model,
            page_count=plan.files,
            manifest_hash=plan.manifest,
        )

    def _mark_begun(self) -> None:
        """Counts the waiting files as changed; with mixed embeddings the branch has no model."""
        state = self._repository.get_wiki_state(self._wiki.branch) or {}
        self._repository.upsert_wiki_state(
            self._wiki.branch,
            last_built_at=state.get("last_built_at"),
            last_commit=state.get("last_commit"),
            changed_since_build=self._plan.waiting,
            model=None if self._plan.mixed else self._embedder.model,
            page_count=state.get("page_count") or 0,
            manifest_hash=state.get("manifest_hash"),
        )

    def _store(self, drafts: list[Draft]) -> None:
        chunks = [(draft, chunk) for draft in drafts for chunk in draft.chunks]
        vectors = self._vectors(
            [
                embedding_text(draft.fields["title"], chunk["heading"], chunk["content"])
                for draft, chunk in chunks
            ]
        )
        for (_draft, chunk), vector in zip(chunks, vectors, strict=True):
            chunk["embedding"] = vector
        for draft in drafts:
            self._store_page(draft)
            self.done += 1
            self._progress.step()

    def _store_page(self, draft: Draft) -> None:
        repository, branch, model = self._repository, self._wiki.branch, self._embedder.model
        fields = {**draft.fields, "model": model}
        row = repository.upsert_wiki_page(branch, draft.page_id, status="building", **fields)
        self.chunks += repository.replace_wiki_chunks(row, branch, draft.chunks, model)
        repository.upsert_wiki_page(branch, draft.page_id, status="built", **fields)

    def _reembed(self) -> None:
        """New embeddings for the chunks of unchanged pages; their texts stay."""
        repository, branch, model = self._repository, self._wiki.branch, self._embedder.model
        texts: dict[str, list[tuple[int, str]]] = {page_id: [] for page_id in self._plan.reembed}
        for chunk_id, page_id, title, heading, content in repository.wiki_chunk_texts(branch):
            if page_id in texts:
                texts[page_id].append((chunk_id, embedding_text(title, heading, content)))
        for page_id, chunks in texts.items():
            vectors = self._vectors([text for _chunk_id, text in chunks])
            ids = [chunk_id for chunk_id, _text in chunks]
            repository.update_wiki_chunk_embeddings(
                branch, list(zip(ids, vectors, strict=True)), model
            )
            page = repository.get_wiki_page(branch, page_id)
            if page is not None:
                fields = {name: page[name] for name in _PAGE_FIELDS}
                repository.upsert_wiki_page(branch, page_id, page["title"], model=model, **fields)
            self.chunks += len(chunks)
            self.done += 1
            self._progress.step()

    def _vectors(self, texts: list[str]) -> list[list[float]]:
        return [
            vector
            for start in range(0, len(texts), BATCH)
            for vector in self._embedder.embed(texts[start : start + BATCH])
        ]
