"""Tells which other files of the tree a file imports, includes or links to, where that shows."""

from __future__ import annotations

import posixpath
import re
from collections.abc import Iterable, Iterator
from pathlib import PurePosixPath

MOST = 40  # related pages of one page
_FOLDER_PAGES = 12  # a larger folder is not what an import of it means

_PYTHON = re.compile(r"\s*(?:from\s+(\.*)([\w.]*)\s+import\s+\(?([\w, ]*)|import\s+([\w., ]+))")
_INCLUDE = re.compile(r"\s*#\s*include\s*(?:\"([^\"]+)\"|<([^>]+/[^>]+)>)")
_SCRIPT = re.compile(r".*?\b(?:from|require|import)\s*\(?\s*[\"'](\.{1,2}(?:/[^\"']*)?)[\"']")
_GO = re.compile(r"\s*(?:import\s+)?(?:[\w.]+\s+)?\"([\w.~/-]+/[\w.-]+)\"\s*(?://.*)?$")
_RUST = re.compile(r"\s*(?:pub\S*\s+)?(?:mod\s+(\w+)\s*;|use\s+crate::([\w:]+))")
_JAVA = re.compile(r"\s*import\s+(?:static\s+)?([\w.]+)")
_LINK = re.compile(r"\]\(([^)#?\s:]+)|\bhref=[\"']([^\"'#?:]+)|require_relative\s+[\"']([^\"']+)")


def named_files(path: str, lines: Iterable[str]) -> list[str]:
    """The names that a file gives to others, each once: paths, of which some may exist.

    One with a leading slash counts from the top of the tree, one with a slash at its end is a
    folder; any other may lie below some folder.
    """
    return list(dict.fromkeys(name for line in lines for name in _names(path, line[:400])))


def _names(path: str, line: str) -> Iterator[str]:
    folder, suffix = posixpath.dirname(path), PurePosixPath(path).suffix.lower()
    if suffix in (".py", ".pyi"):
        if found := _PYTHON.match(line):
            dots, module, members, modules = found.groups(default="")
            whole = [one.split()[0] for one in modules.split(",") if one.strip()]
            for one in whole or [module]:
                base = "../" * (len(dots) - 1) + one.replace(".", "/")
                below = [f"{base}/{word.split()[0]}" for word in members.split(",") if word.strip()]
                for name in (base, f"{base}/__init__", *below):
                    yield _placed(folder if dots else None, name + suffix)
    elif suffix in (".js", ".mjs", ".cjs", ".jsx", ".ts", ".mts", ".tsx", ".vue"):
        if found := _SCRIPT.match(line):
            bare = re.sub(r"\.[cm]?[jt]sx?$", "", found[1])
            for name in (found[1], *(bare + end for end in (suffix, ".ts", ".js", ".tsx"))):
                yield _placed(folder, name)
            yield _placed(folder, f"{bare}/index{suffix}")
    elif suffix == ".go":
        if found := _GO.match(line):
            yield found[1] + "/"
    elif suffix == ".rs":
        if found := _RUST.match(line):
            stem = PurePosixPath(path).stem
            inner = folder if stem in ("mod", "lib", "main") else f"{folder}/{stem}"
            used = (found[2] or "").rstrip(":").replace("::", "/")
            bases = [f"/{inner}/{found[1]}"] if found[1] else [f"src/{used}"]
            bases += [] if found[1] or "/" not in used else [f"src/{posixpath.dirname(used)}"]
            for base in bases:
                yield from (f"{base}.rs", f"{base}/mod.rs")
    elif suffix in (".java", ".kt", ".scala"):
        if found := _JAVA.match(line):
            yield found[1].replace(".", "/") + suffix
    elif suffix in (".md", ".html", ".htm", ".rb"):
        for found in _LINK.finditer(line):
            name = next(filter(None, found.groups()))
            yield _placed(folder, name + (".rb" if suffix == ".rb" else ""))
    elif found := _INCLUDE.match(line):
        if found[1]:
            yield _placed(folder, found[1])
        yield found[1] or found[2]


def _placed(folder: str | None, name: str) -> str:
    """The name as seen from a folder of the tree; None: from anywhere."""
    if folder is None:
        return name
    return posixpath.normpath(posixpath.join("/", folder, name.lstrip("/")))


class Files:
    """The pages' files, to find those that names mean."""

    def __init__(self, paths: Iterable[str]) -> None:
        self._paths = set(paths)
        self._named: dict[str, list[str]] = {}
        self._within: dict[str, list[str]] = {}
        for path in sorted(self._paths):
            self._named.setdefault(posixpath.basename(path), []).append(path)
            self._within.setdefault(posixpath.dirname(path), []).append(path)

    def related(self, path: str, names: Iterable[str]) -> list[str]:
        """The files that names in ``path`` mean, in their order; ambiguous ones mean none."""
        found = (one for name in names for one in self._meant(path, name) if one != path)
        return list(dict.fromkeys(found))[:MOST]

    def _meant(self, path: str, name: str) -> list[str]:
        if name.startswith("/"):
            return [name[1:]] if name[1:] in self._paths else []
        if name.endswith("/"):
            parts = name[:-1].split("/")
            below = ("/".join(parts[start:]) for start in range(1, len(parts)))
            inside = next((self._within[one] for one in below if one in self._within), [])
            inside = [one for one in inside if "_test." not in one and one.endswith(".go")]
            return inside if len(inside) <= _FOLDER_PAGES else []
        candidates = self._named.get(posixpath.basename(name), [])
        ends = [one for one in candidates if f"/{one}".endswith(f"/{name}")]
        near = [one for one in ends if one in (name, f"{posixpath.dirname(path)}/{name}")]
        if "/" not in name and not name.endswith((".h", ".hpp", ".hh")):
            return near[:1]  # so that a standard module is not taken for a file far away
        return near[:1] or (ends if len(ends) == 1 else [])
