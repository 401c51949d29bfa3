"""What git knows of a folder: its files, branch and commit; without git, nothing."""

from __future__ import annotations

import os
import subprocess
from dataclasses import dataclass
from pathlib import Path


@dataclass(frozen=True, slots=True)
class Checkout:
    """A folder inside a git work tree; ``paths`` are relative to that folder."""

    branch: str | None
    commit: str | None
    paths: list[str]


def _git(root: Path, *arguments: str) -> bytes | None:
    """Output of one git command run in ``root``; None when it fails or there is no git."""
    environment = {k: v for k, v in os.environ.items() if not k.startswith("GIT_")}
    try:
        done = subprocess.run(
            ["git", "-C", str(root), *arguments],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            env=environment,
            check=False,
        )
    except OSError:
        return None
    return done.stdout if done.returncode == 0 else None


def _is_checkout(root: Path) -> bool:
    """True inside a work tree, but not in a folder that the tree around it ignores."""
    if (_git(root, "rev-parse", "--is-inside-work-tree") or b"").strip() != b"true":
        return False
    return _git(root, "check-ignore", "-q", ".") is None


def _text(output: bytes | None) -> str | None:
    return (os.fsdecode(output).strip() or None) if output else None


def branch_of(root: Path) -> str | None:
    """The branch checked out at ``root``; None when detached or outside a checkout."""
    if not _is_checkout(root):
        return None
    return _text(_git(root, "symbolic-ref", "--short", "-q", "HEAD"))


def checkout(root: Path) -> Checkout | None:
    """The checkout at ``root`` with its tracked and its untracked, not ignored files."""
    if not _is_checkout(root):
        return None
    listing = _git(root, "ls-files", "-z", "--cached", "--others", "--exclude-standard")
    if listing is None:
        return None
    paths = sorted({os.fsdecode(name) for name in listing.split(b"\0") if name})
    commit = _text(_git(root, "rev-parse", "--verify", "-q", "HEAD"))
    return Checkout(branch_of(root), commit, paths)
