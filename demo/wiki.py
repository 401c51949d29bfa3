"""Finds and opens the wiki a command works on: which database, which tree, which branch."""

import fcntl
import os
import shutil
import sqlite3
import tempfile
import time
from collections.abc import Iterator
from contextlib import contextmanager, nullcontext
from dataclasses import dataclass
from hashlib import blake2b
from pathlib import Path
from typing import Any, BinaryIO

from tessaly.storage.database import Database
from tessaly.storage.repository import Repository

from demo.errors import UserError
from demo.source_tree import Checkout, branch_of, checkout

# Which trees and branches a database holds is kept as pages of a branch that git cannot have.
_CATALOGUE = ":wikis"
ANY_BRANCH = ":any"


@dataclass(frozen=True, slots=True)
class Wiki:
    """One branch of one database, and the source tree it is about."""

    repository: Repository
    database: Path
    root: Path
    branch: str
    checkout: Checkout | None = None  # known to a build alone
    is_being_built: bool = False

    def enter_in_catalogue(self) -> None:
        """Notes the tree, so that ``--db`` alone finds it again."""
        level = "checkout" if self.checkout else "folder"
        fields: dict[str, Any] = {"rel_path": str(self.root), "level": level, "page_type": "wiki"}
        self.repository.upsert_wiki_page(_CATALOGUE, self.branch, self.branch, **fields)

    def state(self) -> dict[str, Any]:
        """The branch's state; empty before its first build."""
        return self.repository.get_wiki_state(self.branch) or {}


def default_database(root: Path) -> Path:
    """Where the wiki of a tree lies unless told otherwise: in the user's cache, not in the tree."""
    cache = os.environ.get("XDG_CACHE_HOME") or os.path.expanduser("~/.cache")
    if cache.startswith("~"):
        raise UserError("there is no home folder to keep the wiki in: give --db")
    digest = blake2b(os.fsencode(root), digest_size=5).hexdigest()
    return Path(cache) / "tessaly-wiki" / f"{root.name or 'root'}-{digest}.db"


@contextmanager
def wiki_to_build(repo: str, db: str | None, branch: str | None) -> Iterator[Wiki]:
    """The wiki of a tree, for one build at a time; a new file goes when none was begun."""
    root = folder(repo)
    tree = checkout(root)
    chosen = _valid(branch) or (tree.branch if tree else "main")
    path = _file(db, root)
    if db is None:
        path.parent.mkdir(parents=True, exist_ok=True)
    is_new = not path.exists()
    try:
        with _locked(path), _opened(path) as repository:
            entry = repository.get_wiki_page(_CATALOGUE, chosen)
            if entry and entry["rel_path"] != str(root) and Path(entry["rel_path"]).is_dir():
                other = f"{path} holds branch '{chosen}' of another tree, {entry['rel_path']}"
                raise UserError(f"{other}: choose another --db or --branch")
            try:
                yield Wiki(repository, path, root, chosen, tree)
            finally:
                is_new = is_new and not repository.get_wiki_pages(_CATALOGUE)
    finally:
        if is_new:
            path.unlink(missing_ok=True)


@contextmanager
def built_wiki(
    repo: str | None, db: str | None, branch: str | None, to_change: bool = False
) -> Iterator[Wiki]:
    """A wiki that was built before, ``to_change`` or just to read; UserError when there is none."""
    root = folder(repo) if repo else None
    path = _file(db, root)
    if not path.exists() or path.stat().st_size == 0:
        raise UserError(f"no wiki at {path}: make one with 'build'")
    with path.open("rb") as file:  # before SQLite has locks of its own on it
        is_being_built = not _lock(file, fcntl.LOCK_SH)
    with (
        _locked(path) if to_change else nullcontext(),
        _writable(path) as place,
        _opened(place) as repository,
    ):
        pages = repository.get_wiki_pages(_CATALOGUE)
        trees = {page["page_id"]: Path(page["rel_path"]) for page in pages}
        first = next(iter(trees), "")
        if not root and len(set(trees.values())) == 1:
            root = trees[first]
        has_git = any(page["level"] == "checkout" for page in pages)
        current = branch_of(root) if root and has_git and root.is_dir() else None
        likely = first if len(trees) == 1 else "main" if root else ""
        chosen = first if branch == ANY_BRANCH else _valid(branch) or current or likely
        if chosen not in trees:
            lacking = f"branch '{chosen}' has no wiki in {path}"
            held = ", ".join(sorted(trees)) or "none"
            raise UserError(f"{lacking} (it holds {held}): 'build' one, or choose with --branch")
        yield Wiki(repository, path, root or trees[chosen], chosen, None, is_being_built)


def branches(wiki: Wiki) -> list[dict[str, Any]]:
    """Each branch of the database: its name, tree, number of pages and time of the last build."""
    rows = []
    for page in wiki.repository.get_wiki_pages(_CATALOGUE):
        branch = page["page_id"]
        state = wiki.repository.get_wiki_state(branch) or {"page_count": 0, "last_built_at": None}
        told = {name: state[name] for name in ("page_count", "last_built_at")}
        rows.append({"branch": branch, "repository": page["rel_path"], **told})
    return rows


def delete_branch(wiki: Wiki, branch: str) -> int:
    """Deletes a branch's pages and returns their number."""
    wiki.repository.delete_wiki_page(_CATALOGUE, branch)
    pages = wiki.repository.get_wiki_pages(branch)
    for page in pages:
        wiki.repository.delete_wiki_page(branch, page["page_id"])
    wiki.repository.upsert_wiki_state(branch)
    return len(pages)


@contextmanager
def _opened(path: Path) -> Iterator[Repository]:
    """The repository over a database file, closed at the end; UserError when it is not one."""
    try:
        database = Database(str(path))
    except (sqlite3.Error, OSError, ValueError) as error:
        if "malformed" in str(error):  # it was one
            raise
        raise UserError(str(error)) from error
    try:
        yield Repository(database)
    finally:
        database.close()


@contextmanager
def _locked(path: Path) -> Iterator[None]:
    """Keeps other builds away from a database file until the end; they are told so at once."""
    if not path.parent.is_dir():
        raise UserError(f"cannot open the database {path}: there is no folder {path.parent}")
    with path.open("ab") as file:
        if not _lock(file, fcntl.LOCK_EX):
            time.sleep(0.2)  # a search that just looks holds it for a moment
            if not _lock(file, fcntl.LOCK_EX):
                raise UserError(f"another build of {path} is running: wait for it")
        yield


def _lock(file: BinaryIO, kind: int) -> bool:
    try:
        fcntl.flock(file, kind | fcntl.LOCK_NB)
    except BlockingIOError:
        return False
    return True


@contextmanager
def _writable(path: Path) -> Iterator[Path]:
    """The file, or a copy of it where SQLite could not keep its log beside it."""
    if os.access(path, os.W_OK) and os.access(path.parent, os.W_OK):
        yield path
        return
    with tempfile.TemporaryDirectory() as folder_of_copy:
        for name in (path.name, f"{path.name}-wal"):
            if path.with_name(name).exists():
                shutil.copyfile(path.with_name(name), Path(folder_of_copy, name))
        yield Path(folder_of_copy, path.name)


def folder(repo: str) -> Path:
    """The folder that was named, absolute; UserError when there is none."""
    root = Path(repo).resolve()
    if not root.is_dir():
        raise UserError(f"there is no folder {repo}")
    return root


def _file(db: str | None, root: Path | None) -> Path:
    """The database that was named; else the default of ``root``, or of a folder above this one."""
    if db == "":
        raise UserError("--db needs the name of a file")
    if db is not None:
        return Path(db)
    if root is not None:
        return default_database(root)
    here = Path.cwd()
    for place in map(default_database, (here, *here.parents)):
        if place.exists():
            return place
    raise UserError(f"no wiki of {here} or a folder above it: make one with 'build', or give --db")


def _valid(branch: str | None) -> str | None:
    if branch is not None and (not branch.strip() or branch.startswith(":")):
        raise UserError(f"'{branch}' is not the name of a branch")
    return branch
