"""Drafts the page of one source file: what it is called, says and cites, without embeddings."""

import re
from collections.abc import Iterable
from dataclasses import dataclass
from hashlib import blake2b
from pathlib import PurePosixPath
from typing import Any

from demo.imports import named_files
from demo.languages import LICENCE
from demo.sections import Outline, comment_paragraphs, outline, plain
from demo.show import plural
from demo.source_tree import FORMAT, Source

_LOW = re.compile(
    r"(?:^|/)(?:tests?|testing|examples?|\w+_test|fixtures?)/|(?:^|/)test_|_test\.\w+$"
    r"|(?:^|/)(?:licen[cs]e|copying|changelog|changes|news|history)[^/]*$",
    re.IGNORECASE,
)
_ENTRY = ("readme", "__main__", "main", "cli", "app", "index", "lib")
_MODE_LINE = re.compile(r"-\*-.*?-\*-|^#!.*|^\W{0,5}@(?:file\s+\S+|brief\b)|coding[:=].*|-->")
# No description: a date, a version, a name of somebody, an instruction to some program.
_NO_WORDS = re.compile(
    r"(?:@\w+\s|(?:last )?(?:updated?|modified|created|date|author|version|file|by)\b.{0,60}$|\$\w+"
    r"|.*\{$|use strict|eslint|jshint|vim?:|go:build|\+build|module dependencies|import\b"
    r"|(?:\W|\d|(?:jan|feb|mar|apr|may|jun|jul|aug|sep|oct|nov|dec)[a-z]*\b|th\b|st\b)*$)",
    re.IGNORECASE,
)


@dataclass(frozen=True, slots=True)
class Draft:
    """A page to be: ``fields`` are keywords of the page upsert, ``chunks`` lack embeddings only."""

    fields: dict[str, Any]
    chunks: list[dict[str, Any]]


def draft_page(source: Source) -> Draft:
    """The page of one file; the same bytes always give the same draft."""
    path, kind = source.path, source.language.kind
    cut = outline(source.language, source.text())
    headings = (one.heading for one in cut.sections if not one.heading.startswith("overview"))
    title = next(headings, path).split(", ")[0] if kind == "document" else path
    description = _description(source, cut)
    chunks = [
        {
            "heading": one.heading,
            "content": f"{path}:{one.start}-{one.end}\n{cut.text(one)}",
            "citations": [{"path": path, "start": one.start, "end": one.end}],
        }
        for one in cut.sections
    ]
    texts = (embedding_text(title, chunk) for chunk in chunks)
    says = "\0".join([str(FORMAT), description, *cut.symbols, *texts])
    fields = {
        "page_id": path,
        "title": title,
        "description": description,
        "importance": _importance(source, cut),
        "rel_path": path,
        "source_files": [path],
        "source_hashes": {path: source.digest},
        "symbols": cut.symbols[:200],
        "citations": [chunk["citations"][0] for chunk in chunks],
        # Of what the page says, wherever its lines are.
        "content_hash": blake2b(says.encode("utf-8", "replace"), digest_size=16).hexdigest(),
        "summary": f"{source.language.name}, {plural(len(chunks), 'section')}",
        "build_cache": "\n".join(named_files(path, cut.lines)),
        "page_type": kind,
    }
    return Draft(fields, chunks)


def embedding_text(title: str, chunk: dict[str, Any]) -> str:
    """What an embedder is given of a chunk: title, heading and source, without the line numbers."""
    return f"{title}\n{chunk['heading']}\n{chunk['content'].partition('\n')[2]}"


def _description(source: Source, cut: Outline) -> str:
    """The file's own first words about itself, at most 200 characters."""
    if source.language.kind == "document":
        paragraphs = _paragraphs(cut.lines)
    else:
        paragraphs = _comments(cut.lines, source.language.name == "Python")
        if source.language.name == "Python" and cut.docstring:
            paragraphs = re.sub(r"\n(\W)\1+ *\n", "\n", cut.docstring).split("\n\n")
    each = (" ".join(paragraph.split()) for paragraph in paragraphs)
    names = ", ".join(cut.symbols[:5])
    nothing = f"Defines {names}." if names else f"{source.language.name} source."
    words = next((one for one in each if " " in one and not _NO_WORDS.match(one)), nothing)
    words = words.replace("`", "")
    return words if len(words) <= 200 else words[:199].rsplit(" ", 1)[0].rstrip(".,;:") + "…"


def _paragraphs(lines: list[str]) -> Iterable[str]:
    """The paragraphs near the top of a document; no front matter, headings or lists."""
    ends = ("---",) if lines[0].strip() == "---" else ("<body",)
    start = next((n for n, line in enumerate(lines[1:99], 2) if line.startswith(ends)), 0)
    for block in re.split(r"\n\s*\n", "\n".join(lines[start : start + 200])):
        block = re.sub(r"(?s)^.*\n(\W)\1{2,}[ \t]*(?:\n|$)", "", block)  # an underlined heading
        kept = (line for line in block.split("\n") if not re.match(r"\s*(?:[#=*|:]|<h\d)", line))
        words = plain(" ".join(kept))
        if words[:1].isalnum():
            yield words


def _comments(lines: list[str], leading: bool) -> Iterable[str]:
    """The paragraphs of the comments near the top; nothing about a licence."""
    for paragraph in comment_paragraphs(lines[:120], leading):
        if re.match(r"\s{2}|\t", lines[paragraph[0] - 1]):
            continue  # within a function
        each = (_MODE_LINE.sub("", lines[number - 1].strip()) for number in paragraph)
        words = re.split(r"\s@\w", " ".join(line.strip("#/*-=;!< \t") for line in each))[0]
        if not LICENCE.search(words):
            yield words


def _importance(source: Source, cut: Outline) -> str:
    """Entry points first; tests, examples, data and tiny files last."""
    stem = PurePosixPath(source.path).name.lower().partition(".")[0]
    is_tiny = len(cut.lines) < 15 and stem != "readme"
    if is_tiny or _LOW.search(source.path) or source.language.kind == "data":
        return "low"
    return "high" if stem in _ENTRY and "/" not in source.path else "medium"
