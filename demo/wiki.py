"""Finds and opens the wiki a command works on: which database, which tree, which branch."""

from __future__ import annotations

import os
import sqlite3
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from hashlib import blake2b
from pathlib import Path

from tessaly.storage.database import Database
from tessaly.storage.repository import Repository

from demo.errors import UserError
from demo.git import branch_of

# Which trees and branches a database holds is kept as pages of a branch that git cannot have.
_CATALOGUE = ":wikis"


@dataclass(frozen=True, slots=True)
class Wiki:
    """One branch of one database, and the source tree it is about."""

    repository: Repository
    database: Path
    root: Path
    branch: str

    def enter_in_catalogue(self) -> None:
        """Notes the tree, so that ``--db`` alone finds it again."""
        self.repository.upsert_wiki_page(
            _CATALOGUE, self.branch, self.branch, rel_path=str(self.root), page_type="wiki"
        )


def default_database(root: Path) -> Path:
    """Where the wiki of a tree lies unless told otherwise: in the user's cache, not in the tree."""
    cache = os.environ.get("XDG_CACHE_HOME")
    try:
        caches = Path(cache) if cache else Path.home() / ".cache"
    except RuntimeError as error:
        raise UserError("there is no home folder to keep the wiki in: give --db") from error
    digest = blake2b(os.fsencode(root), digest_size=5).hexdigest()
    return caches / "tessaly-wiki" / f"{root.name or 'root'}-{digest}.db"


@contextmanager
def wiki_to_build(repo: str, db: str | None, branch: str | None) -> Iterator[Wiki]:
    """The wiki of the tree ``repo``; its database file is created when there is none."""
    root = folder(repo)
    chosen = _valid(branch) or branch_of(root) or "main"
    path = default_database(root) if db is None else _file(db)
    if db is None:
        path.parent.mkdir(parents=True, exist_ok=True)
    with _opened(path) as repository:
        entry = repository.get_wiki_page(_CATALOGUE, chosen)
        if entry and entry["rel_path"] != str(root) and Path(entry["rel_path"]).is_dir():
            raise UserError(
                f"{path} holds branch '{chosen}' of another tree, {entry['rel_path']}:"
                " choose another --db or --branch"
            )
        yield Wiki(repository, path, root, chosen)


@contextmanager
def built_wiki(repo: str | None, db: str | None, branch: str | None) -> Iterator[Wiki]:
    """A wiki that was built before; UserError when there is none."""
    root = folder(repo) if repo else None
    path = _nearest_database(root) if db is None else _file(db)
    if not path.exists() or path.stat().st_size == 0:
        raise UserError(f"no wiki at {path}: make one with 'build'")
    with _opened(path) as repository:
        pages = repository.get_wiki_pages(_CATALOGUE)
        trees = {page["page_id"]: Path(page["rel_path"]) for page in pages}
        chosen = _valid(branch) or _likely_branch(root, trees)
        if chosen not in trees:
            held = f"it holds {', '.join(sorted(trees))}" if trees else "it holds none"
            raise UserError(
                f"branch '{chosen}' has no wiki in {path} ({held}): make one with 'build'"
            )
        yield Wiki(repository, path, root or trees[chosen], chosen)


@contextmanager
def _opened(path: Path) -> Iterator[Repository]:
    """The repository over a database file, closed at the end; UserError when it is not one."""
    try:
        if not path.parent.is_dir():
            raise UserError(f"cannot open the database {path}: there is no folder {path.parent}")
        database = Database(str(path))
    except (sqlite3.Error, OSError, ValueError) as error:
        raise UserError(str(error)) from error
    try:
        yield Repository(database)
    finally:
        database.close()


def folder(repo: str) -> Path:
    """The folder that was named, absolute; UserError when there is none."""
    root = Path(repo).resolve()
    if not root.exists():
        raise UserError(f"there is no folder {repo}")
    if not root.is_dir():
        raise UserError(f"{repo} is not a folder")
    return root


def _file(db: str) -> Path:
    if not db:
        raise UserError("--db needs the name of a file")
    return Path(db)


def _valid(branch: str | None) -> str | None:
    if branch is not None and (not branch.strip() or branch.startswith(":")):
        raise UserError(f"'{branch}' is not the name of a branch")
    return branch


def _nearest_database(root: Path | None) -> Path:
    """The default database of ``root``; else of this folder or the nearest above that has one."""
    if root is not None:
        return default_database(root)
    here = Path.cwd()
    for place in map(default_database, (here, *here.parents)):
        if place.exists():
            return place
    raise UserError(f"no wiki of {here} or a folder above it: make one with 'build', or give --db")


def _likely_branch(root: Path | None, trees: dict[str, Path]) -> str:
    """The branch checked out, if it has a wiki or a tree was named; else the only one there is."""
    folders = [root] if root else sorted(set(trees.values()))
    current = branch_of(folders[0]) if len(folders) == 1 and folders[0].is_dir() else None
    if root or current in trees:
        return current or "main"
    if len(trees) > 1:
        raise UserError(f"choose one with --branch: {', '.join(sorted(trees))}")
    return next(iter(trees), "main")
