"""Drafts the page of one source file: what it is called, says and cites, without embeddings."""

from __future__ import annotations

import json
import re
from dataclasses import dataclass
from hashlib import blake2b
from pathlib import PurePosixPath
from typing import Any

from demo.languages import LICENCE, MARKDOWN, PYTHON, RST
from demo.sections import Outline, Section, outline, plain
from demo.show import plural
from demo.source_tree import Source

FORMAT = 1  # raise it when drafting changes, so that the next build drafts every page anew

_TEST = re.compile(r"(?:^|/)(?:tests?|testing|examples?|\w+_test)/|(?:^|/)test_|_test\.\w+$")
_COMMENT_STARTS = ("#", "//", "/*", "*", "--", ";")
_DIRECTIVE = re.compile(r"#\s*(?:include|pragma|define|if|else|endif|undef|error|import)")
_ENTRY = frozenset("__main__ main cli app index mod lib".split())
_MODE_LINE = re.compile(r"-\*-.*?-\*-|^#!.*|^\W{0,5}@(?:file\s+\S+|brief\b)|coding[:=].*")


@dataclass(frozen=True, slots=True)
class Draft:
    """A page to be: ``fields`` are keywords of the page upsert, ``chunks`` lack embeddings only."""

    page_id: str
    fields: dict[str, Any]
    chunks: list[dict[str, Any]]


@dataclass(frozen=True, slots=True)
class BuildCache:
    """What a page remembers of its source, to tell a shift of lines from a change of text."""

    digest: str
    head: str
    sections: list[tuple[int, int, str]]  # start, end, digest of heading and text

    def dump(self) -> str:
        """The text kept in the page's ``build_cache``."""
        return json.dumps(
            {"format": FORMAT, "digest": self.digest, "head": self.head, "sections": self.sections}
        )

    @staticmethod
    def parse(stored: str | None) -> BuildCache | None:
        """The kept text read back; None when there is none or it is of another format."""
        try:
            kept = json.loads(stored or "null")
            if kept["format"] != FORMAT:
                return None
            sections = [(int(start), int(end), str(text)) for start, end, text in kept["sections"]]
            return BuildCache(kept["digest"], kept["head"], sections)
        except (ValueError, TypeError, KeyError):
            return None


def draft_page(source: Source) -> Draft:
    """The page of one file; the same bytes always give the same draft."""
    cut = outline(source.language, source.text())
    document = source.language in (MARKDOWN, RST)
    title = _document_title(source.path, cut) if document else source.path
    description = _description(source, cut)
    folder = str(PurePosixPath(source.path).parent)
    chunks = [_chunk(source.path, cut, section) for section in cut.sections]
    cache = BuildCache(
        source.digest,
        _digest(title, description, *cut.symbols),
        [(one.start, one.end, _digest(one.heading, cut.text(one))) for one in cut.sections],
    )
    fields = {
        "title": title,
        "description": description,
        "importance": _importance(source.path, cut),
        "level": "document" if document else "module",
        "parent_section": None if folder == "." else folder,
        "rel_path": source.path,
        "source_files": [source.path],
        "source_hashes": {source.path: source.digest},
        "symbols": cut.symbols[:200],
        "citations": [_citation(source.path, section) for section in cut.sections],
        "content_hash": content_hash(chunk["content"] for chunk in chunks),
        "summary": f"{source.language.name}, {plural(len(cut.sections), 'section')}",
        "build_cache": cache.dump(),
        "page_type": "document" if document else "source",
    }
    return Draft(source.path, fields, chunks)


def embedding_text(title: str, heading: str, content: str) -> str:
    """What an embedder is given of a chunk: title, heading and source, without the line numbers."""
    return f"{title}\n{heading}\n{content.partition('\n')[2]}"


def content_hash(contents: Any) -> str:
    """Hash over the texts of a page's chunks, in order."""
    return _digest(*contents)


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


def _document_title(path: str, cut: Outline) -> str:
    headings = (section.heading for section in cut.sections)
    return next((one for one in headings if not one.startswith("overview")), path).split(", ")[0]


def _description(source: Source, cut: Outline) -> str:
    """The file's own first words about itself, at most 200 characters."""
    if source.language is PYTHON:
        words = cut.docstring.partition("\n\n")[0]
    elif source.language in (MARKDOWN, RST):
        words = _first_paragraph(cut.lines)
    else:
        words = _leading_comment(cut.lines)
    words = " ".join(words.split())
    if not words:
        names = ", ".join(cut.symbols[:5])
        words = f"Defines {names}." if names else f"{source.language.name} source."
    return words if len(words) <= 200 else words[:197].rsplit(" ", 1)[0] + "..."


def _first_paragraph(lines: list[str]) -> str:
    paragraph: list[str] = []
    for line in lines[:200]:
        stripped = line.strip()
        if paragraph and not stripped:
            break
        if stripped and (stripped[0].isalnum() or (paragraph and stripped[0] not in "#=<")):
            paragraph.append(stripped)
        elif paragraph:
            paragraph.clear()  # an underlined heading, not a paragraph
    return plain(" ".join(paragraph))


def _leading_comment(lines: list[str]) -> str:
    """The first paragraph of comment near the top of a file; nothing about its licence."""
    paragraph: list[str] = []
    licence = False  # the rest of a comment that speaks of it is skipped
    for line in lines[:80]:
        stripped = line.strip()
        comment = stripped.startswith(_COMMENT_STARTS) and not _DIRECTIVE.match(stripped)
        words = _MODE_LINE.sub("", stripped).strip("#/*-=;! \t") if comment else ""
        if words:
            paragraph.append(words)
            licence = licence or bool(LICENCE.search(words))
        elif paragraph and not licence:
            break
        else:
            paragraph.clear()
            licence = licence and comment
    return "" if licence else " ".join(paragraph)


def _importance(path: str, cut: Outline) -> str:
    """Entry points and large modules first; tests, examples and tiny files last."""
    name = PurePosixPath(path).name.lower()
    stem = name.partition(".")[0]
    depth = path.count("/")
    if _TEST.search(path) or (len(cut.lines) < 15 and stem != "readme"):
        return "low"
    if (stem == "readme" and depth == 0) or (stem in _ENTRY and depth < 2) or len(cut.symbols) > 60:
        return "high"
    return "medium"
