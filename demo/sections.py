"""Cuts a file into sections: line ranges with a heading, each to become one chunk.

Every language gives *marks*, the lines at which something begins; the rest is the same for all:
small neighbours are merged, long sections are split at blank lines.
"""

import ast
import re
import warnings
from collections.abc import Iterator
from dataclasses import dataclass, replace

from demo.languages import LICENCE, Language

MERGE_LINES = 30  # neighbours are merged while they fit into this
TINY_LINES = 4  # shorter ones always join the next, such as the first lines of a large class
SPLIT_LINES = 100  # a section longer than this is split
BLOCK_LINES = 60  # into parts of about this
LONG_NOTICE = 25  # lines; no licence speaks that long without a pause
MAX_DEFINITION = 400  # characters; a longer line is data, and patterns would be slow on it

_Definition = ast.FunctionDef | ast.AsyncFunctionDef | ast.ClassDef
_HEADING = "heading"  # the group of the sections of a document
_BETWEEN = "between"  # the group of what is no import, comment or definition
_MARKUP = re.compile(r":[\w:-]+:(?=`)|!?\[([^\]]*)\]\([^)]*\)|</?[A-Za-z][^>]*>|[*`]")
_COMMENT = re.compile(
    r"\s*(?:#(?!\s*(?:include|pragma|define|if|ifn?def|el\w+|endif|undef|error|line|import)\b)|//"
    r"|/\*|\*(?![\w(])|--|;|<!--)"
)
_IMPORT = re.compile(
    r"\s*(?:#\s*(?:include|pragma|ifndef|import)|import|from|use|using|package|require|extern crate"
    r"|include|source|module|'use strict'|\"use strict\")\b"
)


@dataclass(frozen=True, slots=True)
class Mark:
    """Something begins at ``line``, counted from 1."""

    line: int
    heading: str | None  # None: not worth citing until the next mark
    group: str = ""  # only marks of one group are merged
    symbol: bool = False  # the heading is a name that the file defines


@dataclass(frozen=True, slots=True)
class Section:
    """Lines ``start`` to ``end``, both included, counted from 1."""

    heading: str
    start: int
    end: int
    group: tuple[str, int]  # the mark's, and how much is left out before


@dataclass(frozen=True, slots=True)
class Outline:
    """A file cut up: sections in file order, none overlapping, and the names it defines."""

    sections: list[Section]
    symbols: list[str]
    lines: list[str]
    docstring: str = ""

    def text(self, section: Section) -> str:
        """The source of one section."""
        return "\n".join(self.lines[section.start - 1 : section.end])


def outline(language: Language, text: str) -> Outline:
    """Cuts a file; one that does not parse, or has nothing to cut at, is cut into line blocks."""
    lines = text.split("\n")
    docstring = ""
    if language.name == "Python":
        marks, docstring = _python_marks(text, lines)
    elif language.kind == "document":
        marks = _heading_marks(lines, language)
    else:
        marks = _definition_marks(lines, language)
    symbols = [mark.heading for mark in marks if mark.symbol and mark.heading]
    sections = _ranges(marks, lines) or _ranges([Mark(1, "overview")], lines)
    parts = [part for one in _merged(sections) for part in _split(one, lines)]
    return Outline(parts, list(dict.fromkeys(symbols)), lines, docstring)


def plain(heading: str) -> str:
    """A heading or paragraph without links, tags and emphasis."""
    return _MARKUP.sub(lambda match: match[1] or "", heading).strip()


def _python_marks(text: str, lines: list[str]) -> tuple[list[Mark], str]:
    """Marks at definitions, members of large classes included, and at runs of other statements.

    With them the file's docstring; nothing of a file that does not parse.
    """
    try:
        with warnings.catch_warnings(action="ignore"):
            tree = ast.parse(text)
    except (SyntaxError, ValueError, RecursionError, MemoryError):
        return [], ""
    marks: list[Mark] = []
    docstring = ast.get_docstring(tree)
    for position, node in enumerate(tree.body):
        if isinstance(node, _Definition):
            _mark_definition(node, "", lines, marks)
            continue
        named = "overview" if position == 0 and docstring is not None else "module level"
        is_import = isinstance(node, ast.Import | ast.ImportFrom)
        mark = Mark(node.lineno, None if is_import else named, "imports" if is_import else named)
        # Not when it continues the run before it or shares its line.
        if not marks or (marks[-1].line < mark.line and replace(marks[-1], line=mark.line) != mark):
            marks.append(mark)
    return marks, docstring or ""


def _mark_definition(node: _Definition, parent: str, lines: list[str], marks: list[Mark]) -> None:
    start = min([node.lineno, *(decorator.lineno for decorator in node.decorator_list)])
    above = marks[-1].line + 1 if marks else 1
    while start > above and lines[start - 2].lstrip().startswith("#"):
        start -= 1
    name = f"{parent}.{node.name}" if parent else node.name
    end = node.end_lineno or start
    is_large = isinstance(node, ast.ClassDef) and end - start >= SPLIT_LINES
    if not marks or marks[-1].line < start:
        marks.append(Mark(start, name, name if is_large else parent, True))
    for member in node.body if is_large else ():
        if isinstance(member, _Definition):
            _mark_definition(member, name, lines, marks)


def _heading_marks(lines: list[str], language: Language) -> list[Mark]:
    """Marks at headings: marked and underlined ones; nothing inside a fenced block counts."""
    rows = re.escape(language.underlines)
    underline = re.compile(rf"([{rows}])\1+\s*$" if rows else r"(?!)")
    marks = [Mark(1, "overview")]
    fence = above = ""
    for number, line in enumerate(lines, 1):
        opening = language.name == "Markdown" and re.match(r"\s{0,3}(```+|~~~+)", line)
        is_title = re.match(r"[ ]?[ ]?[\w:`]", above) and len(line.rstrip()) >= len(above) - 2
        if fence:
            if opening and opening[1].startswith(fence) and not line.strip().strip(fence[0]):
                fence = ""
        elif opening:
            fence = opening[1]
        elif found := language.begins.match(line):
            marks.append(Mark(number, plain(found[1]) or "untitled", _HEADING))
        elif is_title and underline.match(line):
            marks.append(Mark(number - 1, plain(above), _HEADING))
        above = line
    return marks


def _definition_marks(lines: list[str], language: Language) -> list[Mark]:
    """Marks at the lines that look like definitions, their comments above them included."""
    marks: list[Mark] = []
    above = 1  # no comment above this line belongs to the next definition
    notice = _notice_lines(lines)
    bracket = ""  # what closes a group of imports
    for number, line in enumerate(lines, 1):
        if number in notice or not (marks or _has_words(line)):
            above = number + 1
            if not marks or marks[-1].heading is not None:
                marks.append(Mark(number, None))
            continue
        near = lines[number - 1 : number + 1] if len(line) <= MAX_DEFINITION else []
        if not bracket and (found := language.begins.match("\n".join(near))):
            start = number
            while start > above and language.above.match(lines[start - 2]):
                start -= 1
            marks.append(Mark(start, next(filter(None, found.groups())), "", True))
            above = number + 1
        elif (not marks or not marks[-1].symbol) and line.strip():
            if imports := bool(bracket or _IMPORT.match(line)):
                closed = "" if bracket in line else bracket
                bracket = {"(": ")", "{": "}"}.get(line.rstrip()[-1:], closed)
            if not marks or (marks[-1].heading is None) != imports:
                group = "overview" if language.above.match(line) else _BETWEEN
                marks.append(Mark(number, None if imports else "overview", group))
    kept: list[Mark] = []  # without those whose comment a definition has taken over
    for mark in marks:
        while kept and kept[-1].line >= mark.line:
            kept.pop()
        kept.append(mark)
    return kept


def comment_paragraphs(lines: list[str], leading: bool) -> Iterator[list[int]]:
    """Line numbers of each paragraph of comment; ``leading``: of those at the top alone."""
    paragraph: list[int] = []
    inside = False  # a comment whose lines need no mark of their own
    for number, line in enumerate([*lines, ""], 1):
        is_comment = inside or _COMMENT.match(line)
        if inside or line.lstrip().startswith("/*"):
            inside = "*/" not in line
        if is_comment and _has_words(line):
            paragraph.append(number)
        elif paragraph:
            yield paragraph
            paragraph = []
        if leading and not is_comment and line.strip():
            return


def _notice_lines(lines: list[str]) -> set[int]:
    """The lines of a file's leading comment that speak of its licence: nothing to search for.

    Paragraphs go whole, with what is between them; of a long one, the lines that say it.
    """
    notice: set[int] = set()
    for paragraph in comment_paragraphs(lines, leading=True):
        told = [number for number in paragraph if LICENCE.search(lines[number - 1])]
        if told and len(paragraph) <= LONG_NOTICE:
            between = range(max(notice, default=paragraph[0]), paragraph[0])
            notice.update(paragraph, between if len(between) <= LONG_NOTICE else ())
        notice.update(told)
    first, last = min(notice, default=1), max(notice, default=0)
    return notice.union(n for n in range(first, last) if not _has_words(lines[n - 1]))


def _has_words(line: str) -> bool:
    return any(map(str.isalnum, line))


def _ranges(marks: list[Mark], lines: list[str]) -> list[Section]:
    """Each mark's lines up to the next mark, but a lone one between imports and definitions."""
    sections = []
    part = 0
    for mark, end in zip(marks, [*(mark.line - 1 for mark in marks[1:]), len(lines)]):
        part += mark.heading is None
        full = [line for line in range(mark.line, end + 1) if lines[line - 1].strip()]
        if mark.heading is not None and len(full) > (mark.group == _BETWEEN):
            sections.append(Section(mark.heading, full[0], full[-1], (mark.group, part)))
    return sections


def _merged(sections: list[Section]) -> list[Section]:
    merged: list[Section] = []
    for section in sections:
        if not merged or not _joins(merged[-1], section):
            merged.append(section)
            continue
        heading = merged[-1].heading
        if section.heading not in heading.split(", ") and len(heading) < 60:
            heading = f"{heading}, {section.heading}"
        merged[-1] = replace(merged[-1], heading=heading, end=section.end)
    return merged


def _joins(last: Section, section: Section) -> bool:
    lines = last.end - last.start + 1
    if last.group[0] == _HEADING:  # every heading of a document is worth finding; a bare one is not
        return lines <= 2
    fits = lines <= TINY_LINES or section.end - last.start < MERGE_LINES
    return fits and last.group == section.group


def _split(section: Section, lines: list[str]) -> Iterator[Section]:
    """Parts of about ``BLOCK_LINES``, cut at a blank line where one is near."""
    rest, number = section, 1
    while rest.end - rest.start >= SPLIT_LINES:
        cut = rest.start + BLOCK_LINES
        near = range(cut, cut - BLOCK_LINES // 3, -1)
        cut = next((line for line in near if not lines[line - 1].strip()), cut)
        yield replace(rest, end=cut)
        number += 1
        rest = replace(rest, heading=f"{section.heading} ({number})", start=cut + 1)
    yield rest
