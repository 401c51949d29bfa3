"""Builds the wiki of a tree: only what changed is drafted and embedded anew.

A page and its chunks are separate transactions: a page is "building" until its chunks are stored.
So a build that was cut short is noticed and continued by the next one, page by page.
"""

from collections import Counter
from dataclasses import dataclass, field
from datetime import UTC, datetime
from itertools import batched

from demo.draft import Draft, draft_page, embedding_text
from demo.embedder import Embedder
from demo.errors import UserError
from demo.imports import Files
from demo.show import tracked
from demo.source_tree import list_tree, read_source
from demo.wiki import Wiki

BATCH = 256  # texts handed to the embedder at once

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
    built: int = 0
    moved: int = 0
    chunks: int = 0

    @property
    def files(self) -> int:
        return len(self.changed) + self.unchanged

    @property
    def progress(self) -> str:
        return f"{self.unchanged + self.built + self.moved:,} of {self.files:,} files"


def build(wiki: Wiki, embedder: Embedder) -> Result:
    """Brings the wiki up to date; nothing is written before the embedder has succeeded once.

    UserError when there is nothing to build from or the embedder fails.
    """
    plan = _plan(wiki, embedder.model)
    if not plan.files:
        raise UserError(f"no source or document under {wiki.root}; nothing was changed")
    try:
        _Work(wiki, embedder, plan).run()
    except KeyboardInterrupt:
        raise KeyboardInterrupt(f"stopped after {plan.progress}; build again to continue") from None
    except UserError as error:
        raise UserError(f"{error}; {plan.progress} are done") from error
    return plan


def _plan(wiki: Wiki, model: str) -> Result:
    """Compares the tree with the pages."""
    pages = {page["page_id"]: page for page in wiki.repository.get_wiki_pages(wiki.branch)}
    plan = Result(mixed=any(page["model"] != model for page in pages.values()))
    paths = list_tree(wiki.root, wiki.checkout, plan.left_out, plan.unreadable)
    hidden = tuple(plan.unreadable)
    for path in tracked("reading", paths):
        source = read_source(wiki.root, path)
        if source == "unreadable":
            plan.unreadable.append(path)
        elif isinstance(source, str):
            plan.left_out[source] += 1
        else:
            page = pages.pop(path, None)
            is_whole = page and page["status"] == "built" and page["model"] == model
            if is_whole and page["source_hashes"] == {path: source.digest}:
                plan.unchanged += 1
            else:
                plan.changed.append(path)
    for path in sorted(pages):
        if path.startswith(hidden) or read_source(wiki.root, path) == "unreadable":
            plan.unchanged += 1
        else:
            plan.gone.append(path)
    return plan


@dataclass(slots=True)
class _Work:
    """One run of a build."""

    wiki: Wiki
    embedder: Embedder
    plan: Result
    has_begun: bool = False

    def run(self) -> None:
        waiting: list[Draft] = []
        shifted: list[tuple[Draft, _Moves]] = []
        for path in tracked("building", self.plan.changed):
            source = read_source(self.wiki.root, path)
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
        for page_id in self.plan.gone:
            self.wiki.repository.delete_wiki_page(self.wiki.branch, page_id)
        self._relate()
        self.wiki.repository.upsert_wiki_state(
            self.wiki.branch,
            last_built_at=datetime.now(UTC).strftime("%Y-%m-%d %H:%M:%S.%f"),
            last_commit=self.wiki.checkout.commit if self.wiki.checkout else None,
            model=self.embedder.model,
            page_count=self.plan.files,
        )

    def _begin(self) -> None:
        """Counts the waiting files as changed; with mixed embeddings the branch has no model."""
        if not self.has_begun:
            self.has_begun = True
            self.wiki.enter_in_catalogue()
            kept = {**self.wiki.state(), "branch": self.wiki.branch}
            kept["changed_since_build"] = len(self.plan.changed) + len(self.plan.gone)
            kept["model"] = None if self.plan.mixed else self.embedder.model
            self.wiki.repository.upsert_wiki_state(**kept)

    def _store(self, drafts: list[Draft]) -> None:
        """Embeds and stores pages that are new or say something else."""
        repository, branch = self.wiki.repository, self.wiki.branch
        chunks = [(draft.fields["title"], chunk) for draft in drafts for chunk in draft.chunks]
        texts = [embedding_text(title, chunk) for title, chunk in chunks]
        embedded = (self.embedder.embed([*batch]) for batch in batched(texts, BATCH))
        vectors = [vector for batch in embedded for vector in batch]
        for (_title, chunk), vector in zip(chunks, vectors, strict=True):
            chunk["embedding"] = vector
        self._begin()
        for draft in drafts:
            fields = {**draft.fields, "model": self.embedder.model}
            row = repository.upsert_wiki_page(branch, status="building", **fields)
            stored = repository.replace_wiki_chunks(row, branch, draft.chunks, fields["model"])
            repository.upsert_wiki_page(branch, status="built", **fields)
            self.plan.built += 1
            self.plan.chunks += stored

    def _moves(self, draft: Draft) -> _Moves | None:
        """Where each citation of a page has gone that says the same at other lines; else None."""
        path, new = draft.fields["page_id"], draft.fields["citations"]
        page = self.wiki.repository.get_wiki_page(self.wiki.branch, path) or {}
        said = {"status": "built", "model": self.embedder.model}
        said["content_hash"] = draft.fields["content_hash"]
        if not said.items() <= page.items():
            return None
        pairs = zip(page["citations"], new, strict=True)
        return {(path, a["start"], a["end"]): (b["start"], b["end"]) for a, b in pairs}

    def _move(self, draft: Draft, moves: _Moves) -> None:
        """Moves a page's citations to the draft's lines; nothing is embedded."""
        places = {f"{path}:{a}-{b}": f"{path}:{c}-{d}" for (path, a, b), (c, d) in moves.items()}

        def rewrite(text: str) -> str:
            place, newline, source = text.partition("\n")
            return f"{places.get(place, place)}{newline}{source}"

        fields = {**draft.fields, "model": self.embedder.model}
        moved = ("page_id", "citations", "content_hash", "build_cache")
        given = {name: fields[name] for name in moved} | {"rewrite": rewrite, "moves": moves}
        self.wiki.repository.update_wiki_page_citations(self.wiki.branch, **given)
        self.wiki.repository.upsert_wiki_page(self.wiki.branch, **fields)
        self.plan.moved += 1

    def _relate(self) -> None:
        """Notes with each page the pages that its source names: others may have come or gone."""
        pages = self.wiki.repository.get_wiki_pages(self.wiki.branch)
        files = Files(page["page_id"] for page in pages)
        for page in pages:
            related = files.related(page["page_id"], (page["build_cache"] or "").split("\n"))
            if related != page["related_pages"]:
                kept = {name: page[name] for name in page.keys() - {"id", "generated_at"}}
                self.wiki.repository.upsert_wiki_page(**kept | {"related_pages": related})
