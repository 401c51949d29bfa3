"""Walks a source tree and reads the files that deserve a page."""

from __future__ import annotations

import io
import os
import re
import tokenize
from collections.abc import Iterator
from dataclasses import dataclass
from hashlib import blake2b
from pathlib import Path

from demo.git import Checkout
from demo.languages import PYTHON, Language, language_of, may_be_source

MAX_BYTES = 1 << 20
MAX_MEAN_LINE = 250  # bytes a line; above it a file is minified or data, not written by hand

_VENDORED = frozenset(
    "node_modules vendor vendored _vendor third_party third-party thirdparty site-packages "
    "bower_components .git .hg .svn __pycache__".split()
)
_LEFT_BY_TOOLS = frozenset("build dist target out .tox .nox .venv venv .eggs .idea .vscode".split())
_GENERATED = re.compile(rb"@generated\b|code generated .{0,80}do not edit", re.IGNORECASE)


@dataclass(frozen=True, slots=True)
class Source:
    """One file as read; ``path`` is relative to the tree, with forward slashes."""

    path: str
    language: Language
    data: bytes
    digest: str

    def text(self) -> str:
        """The file decoded, with every line ending as a single newline; never raises."""
        encoding = "utf-8-sig"
        if self.language is PYTHON:
            try:
                encoding, _ = tokenize.detect_encoding(io.BytesIO(self.data).readline)
            except SyntaxError:
                pass
        try:
            text = self.data.decode(encoding)
        except (UnicodeDecodeError, LookupError):
            text = self.data.decode("latin-1")
        return text.replace("\r\n", "\n").replace("\r", "\n")


def source_paths(root: Path, checkout: Checkout | None) -> list[str]:
    """Paths that may be source, sorted; git's own list where there is a checkout."""
    paths = checkout.paths if checkout is not None else _walk(root)
    return sorted(path for path in paths if _is_candidate(path))


def read_source(root: Path, path: str) -> Source | None:
    """The file, or None when it is gone, unreadable, empty, binary, huge or generated."""
    place = root / path
    try:
        if place.is_symlink() or not place.is_file() or place.stat().st_size > MAX_BYTES:
            return None
        data = place.read_bytes()
    except OSError:
        return None
    if b"\0" in data or not data.strip() or len(data) / (data.count(b"\n") + 1) > MAX_MEAN_LINE:
        return None
    language = language_of(path, data)
    if language is None or _GENERATED.search(data[:600]):
        return None
    return Source(path, language, data, blake2b(data, digest_size=16).hexdigest())


def _walk(root: Path) -> Iterator[str]:
    for folder, folders, files in os.walk(root):
        folders[:] = [name for name in folders if name not in _LEFT_BY_TOOLS | _VENDORED]
        for name in files:
            yield os.path.relpath(os.path.join(folder, name), root).replace(os.sep, "/")


def _is_candidate(path: str) -> bool:
    *folders, name = path.split("/")
    if not _VENDORED.isdisjoint(folders) or ".min." in name or not may_be_source(path):
        return False
    # A name that is no text (lone surrogates) or that breaks lines cannot be cited.
    return not any(char < " " or "\ud800" <= char <= "\udfff" for char in path)
