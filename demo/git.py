"""What git knows of a folder: its files, branch and commit; without git, nothing."""

from __future__ import annotations

import os
import subprocess
from dataclasses import dataclass
from pathlib import Path

DETACHED = "HEAD"  # the branch of a checkout that is on none


@dataclass(frozen=True, slots=True)
class Checkout:
    """A folder inside a git work tree; ``paths`` are relative to that folder."""

    branch: str
    commit: str | None
    paths: list[str]


def _git(root: Path, *arguments: str) -> tuple[int, bytes]:
    """Exit status and output of one git command run in ``root``; -1 when there is no git."""
    environment = {k: v for k, v in os.environ.items() if not k.startswith("GIT_")}
    try:
        call = ["git", "-C", str(root), *arguments]
        done = subprocess.run(call, capture_output=True, env=environment, check=False)
    except OSError:
        return -1, b""
    return done.returncode, done.stdout


def branch_of(root: Path) -> str | None:
    """The branch checked out at ``root``, DETACHED without one; None outside a checkout."""
    status, name = _git(root, "symbolic-ref", "--short", "-q", "HEAD")
    return {0: os.fsdecode(name).strip(), 1: DETACHED}.get(status)


def checkout(root: Path) -> Checkout | None:
    """The checkout at ``root`` with its tracked and its untracked, not ignored files.

    None outside of a work tree, and in a folder that the tree around it ignores.
    """
    if _git(root, "check-ignore", "-q", ".")[0] != 1 or (branch := branch_of(root)) is None:
        return None
    status, names = _git(root, "ls-files", "-z", "--cached", "--others", "--exclude-standard")
    if status != 0:
        return None
    paths = sorted({os.fsdecode(name) for name in names.split(b"\0") if name})
    commit = os.fsdecode(_git(root, "rev-parse", "--verify", "-q", "HEAD")[1]).strip()
    return Checkout(branch, commit or None, paths)
