"""Tells which other files of the tree a file imports, includes or links to, where that shows."""

import re
from collections.abc import Iterable, Iterator
from pathlib import PurePosixPath
from posixpath import basename, dirname, join, normpath

_PATTERNS = {
    "py pyi": r"\s*(?:from\s+(\.*)([\w.]*)\s+import\s+\(?([\w, ]*)|import\s+([\w., ]+))",
    "js mjs cjs jsx ts mts tsx vue": r".*?\b(?:from|require|import)\s*\(?\s*[\"'](\.[^\"']*)[\"']",
    "go": r"\s*(?:import\s+)?(?:[\w.]+\s+)?\"([\w.~/-]+/[\w.-]+)\"\s*(?://.*)?$",
    "rs": r"\s*(?:pub\S*\s+)?(?:mod\s+(\w+)\s*;|use\s+crate::([\w:]+))",
    "java kt scala": r"\s*import\s+(?:static\s+)?([\w.]+)",
    "md html htm": r".*?(?:\]\(|\bhref=[\"'])([^)#?\s:\"']+)",
    "c h cc cpp cxx hh hpp m mm": r"\s*#\s*include\s*(?:\"([^\"]+)\"|<([^>]+/[^>]+)>)",
}
_BY_SUFFIX = {
    suffix: re.compile(text) for ends, text in _PATTERNS.items() for suffix in ends.split()
}


def named_files(path: str, lines: Iterable[str]) -> list[str]:
    """The paths that a file names, of which some may exist, from some folder or "/" of the tree."""
    suffix = PurePosixPath(path).suffix[1:].lower()
    pattern = _BY_SUFFIX.get(suffix, re.compile("(?!)"))
    found = filter(None, (pattern.match(line[:400]) for line in lines))
    each = (name for one in found for name in _names(path, suffix, one.groups(default="")))
    return list(dict.fromkeys(each))


def _names(path: str, suffix: str, said: tuple[str, ...]) -> Iterator[str]:
    folder = dirname(path)

    def near(name: str) -> str:
        return normpath(join("/", folder, name.lstrip("/")))

    if suffix in ("py", "pyi"):
        dots, module, members, modules = said
        for one in [word.split()[0] for word in modules.split(",") if word.strip()] or [module]:
            base = "../" * (len(dots) - 1) + one.replace(".", "/")
            below = [f"{base}/{word.split()[0]}" for word in members.split(",") if word.strip()]
            for name in (base, f"{base}/__init__", *below):
                yield near(f"{name}.{suffix}") if dots else f"{name}.{suffix}"
    elif suffix == "go":
        yield said[0] + "/"  # a folder
    elif suffix == "rs":
        stem = PurePosixPath(path).stem
        inner = folder if stem in ("mod", "lib", "main") else f"{folder}/{stem}"
        used = said[1].rstrip(":").replace("::", "/")
        bases = [f"/{inner}/{said[0]}"] if said[0] else [f"src/{used}", f"src/{dirname(used)}"]
        yield from (base + end for base in bases for end in (".rs", "/mod.rs"))
    elif suffix in ("java", "kt", "scala"):
        yield f"{said[0].replace('.', '/')}.{suffix}"
    elif suffix in ("md", "html", "htm"):
        yield near(said[0])
    elif len(said) == 2:  # a header
        yield from (near(said[0]), said[0]) if said[0] else (said[1],)
    else:
        bare = re.sub(r"\.[cm]?[jt]sx?$", "", said[0])
        ends = ("", f".{suffix}", ".ts", ".js", ".tsx", f"/index.{suffix}")
        yield from (near(name) for name in (said[0], *(bare + end for end in ends)))


class Files:
    """The pages' files, to find those that names mean."""

    def __init__(self, paths: Iterable[str]) -> None:
        self._paths = set(paths)
        self._named: dict[str, list[str]] = {}
        self._within: dict[str, list[str]] = {}
        for path in sorted(self._paths):
            self._named.setdefault(basename(path), []).append(path)
            self._within.setdefault(dirname(path), []).append(path)

    def related(self, path: str, names: Iterable[str]) -> list[str]:
        """The files that names in ``path`` mean, in their order; ambiguous ones mean none."""
        found = (one for name in names for one in self._meant(path, name) if one != path)
        return list(dict.fromkeys(found))[:40]

    def _meant(self, path: str, name: str) -> list[str]:
        if name.startswith("/"):
            return [name[1:]] if name[1:] in self._paths else []
        if name.endswith("/"):
            parts = name[:-1].split("/")
            below = ("/".join(parts[start:]) for start in range(1, len(parts)))
            inside = next((self._within[one] for one in below if one in self._within), [])
            inside = [one for one in inside if one.endswith(".go") and "_test." not in one]
            return inside if len(inside) <= 12 else []  # not a folder of everything
        alike = self._named.get(basename(name), ())
        ends = [one for one in alike if f"/{one}".endswith(f"/{name}")]
        near = [one for one in ends if one in (name, join(dirname(path), name))]
        # A standard module is not to be taken for a file far away.
        is_told = "/" in name or name.endswith((".h", ".hpp", ".hh"))
        return near[:1] or (ends if is_told and len(ends) == 1 else [])
