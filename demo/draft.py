"""Drafts the page of one source file: what it is called, says and cites, without embeddings."""

from __future__ import annotations

import re
from collections.abc import Iterable
from dataclasses import dataclass
from hashlib import blake2b
from pathlib import PurePosixPath
from typing import Any

from demo.imports import named_files
from demo.languages import LICENCE
from demo.sections import Outline, Section, comment_paragraphs, outline, plain
from demo.show import plural
from demo.source_tree import FORMAT, Source

_LOW = re.compile(
    r"(?:^|/)(?:tests?|testing|examples?|\w+_test|fixtures?)/|(?:^|/)test_|_test\.\w+$"
    r"|(?:^|/)(?:licen[cs]e|copying|changelog|changes|news|history)[^/]*$",
    re.IGNORECASE,
)
_ENTRY = frozenset("__main__ main cli app index mod lib".split())
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

    page_id: str
    fields: dict[str, Any]
    chunks: list[dict[str, Any]]


def draft_page(source: Source) -> Draft:
    """The page of one file; the same bytes always give the same draft."""
    cut = outline(source.language, source.text())
    document = source.language.kind == "document"
    headings = (one.heading for one in cut.sections if not one.heading.startswith("overview"))
    title = next(headings, source.path).split(", ")[0] if document else source.path
    description = _description(source, cut)
    folder = str(PurePosixPath(source.path).parent)
    chunks = [_chunk(source.path, cut, section) for section in cut.sections]
    texts = (text for one in cut.sections for text in (one.heading, cut.text(one)))
    fields = {
        "title": title,
        "description": description,
        "importance": _importance(source, cut),
        "level": "document" if document else "module",
        "parent_section": None if folder == "." else folder,
        "rel_path": source.path,
        "source_files": [source.path],
        "source_hashes": {source.path: source.digest},
        "symbols": cut.symbols[:200],
        "citations": [_citation(source.path, section) for section in cut.sections],
        "content_hash": _digest(str(FORMAT), title, description, *cut.symbols, *texts),
        "summary": f"{source.language.name}, {plural(len(cut.sections), 'section')}",
        "build_cache": "\n".join(named_files(source.path, cut.lines)),
        "page_type": source.language.kind,
    }
    return Draft(source.path, fields, chunks)


def embedding_text(draft: Draft, chunk: dict[str, Any]) -> str:
    """What an embedder is given of a chunk: title, heading and source, without the line numbers."""
    source = chunk["content"].partition("\n")[2]
    return f"{draft.fields['title']}\n{chunk['heading']}\n{source}"


def _digest(*texts: str) -> str:
    return blake2b("\0".join(texts).encode("utf-8", "replace"), digest_size=8).hexdigest()


def _citation(path: str, section: Section) -> dict[str, Any]:
    return {"path": path, "start": section.start, "end": section.end}


def _chunk(path: str, cut: Outline, section: Section) -> dict[str, Any]:
    """One chunk; its text begins with the place it cites, on a line of its own."""
    content = f"{path}:{section.start}-{section.end}\n{cut.text(section)}"
    return {
        "anchor": re.sub(r"\W+", "-", section.heading.lower()).strip("-"),
        "heading": section.heading,
        "content": content,
        "citations": [_citation(path, section)],
        "token_count": len(content.split()),
    }


def _description(source: Source, cut: Outline) -> str:
    """The file's own first words about itself, at most 200 characters."""
    if source.language.kind == "document":
        paragraphs = _paragraphs(cut.lines)
    else:
        paragraphs = _comments(cut.lines, source.language.name == "Python")
        if source.language.name == "Python" and cut.docstring:
            paragraphs = re.sub(r"\n(\W)\1+ *\n", "\n", cut.docstring).split("\n\n")
    each = (" ".join(paragraph.split()) for paragraph in paragraphs)
    words = next((one for one in each if " " in one and not _NO_WORDS.match(one)), "")
    if not words:
        names = ", ".join(cut.symbols[:5])
        words = f"Defines {names}." if names else f"{source.language.name} source."
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
    """Entry points and large modules first; tests, examples, data and tiny files last."""
    stem = PurePosixPath(source.path).name.lower().partition(".")[0]
    depth = source.path.count("/")
    tiny = len(cut.lines) < 15 and stem != "readme"
    if tiny or _LOW.search(source.path) or source.language.kind == "data":
        return "low"
    if (stem == "readme" and depth == 0) or (stem in _ENTRY and depth < 2) or len(cut.symbols) > 60:
        return "high"
    return "medium"
