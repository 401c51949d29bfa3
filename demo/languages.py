"""Which files are source, and by what lines a definition in each language is recognised."""

from __future__ import annotations

import re
from dataclasses import dataclass
from pathlib import PurePosixPath


@dataclass(frozen=True, slots=True)
class Language:
    """A kind of file.

    ``definition`` matches where one begins, given that line and the next; its one group that
    matched is the name. ``above`` matches lines that belong to a definition below them.
    """

    name: str
    definition: re.Pattern[str] | None = None
    above: re.Pattern[str] = re.compile(r"\s*(?:#(?!\s*if|\s*e|\s*define)|//|/?\*|--|@|;)")


LICENCE = re.compile(
    r"copyright|licen[cs]e|warranty|SPDX|all rights reserved|\bGPL\b", re.IGNORECASE
)

_MODIFIERS = (
    r"(?:(?:public|private|protected|internal|static|final|abstract|sealed|override|open|data|"
    r"partial|virtual|async|default|export|inline|unsafe|extern|readonly)\s+)*"
)
_C = re.compile(
    r"[ ]{0,4}(?:template\s*<.*>\s*)?(?:typedef\s+)?"
    r"(?:class|struct|union|enum(?:[ ]+class)?|concept)[ ]+(?:\w+[ ]+)*?(?P<name>\w+)[^;()\n]*$"
    r"|#[ ]*define[ ]+(?P<macro>\w+)\(.*\\$"
    r"|(?!\s*(?:return|else|if|for|while|switch|namespace|using|case|goto|do|catch)\b|extern \")"
    r"(?:(?:[A-Za-z_][\w:<>,*& \[\]]*?[ *&>])?(?P<function>~?[A-Za-z_][\w:~]*)[ ]*\([^;\n]*$"
    r"|[ ]{1,4}(?P<member>~?[A-Za-z_][\w:~]*)[ ]*\([^;\n]*\)[^;\n]*\n\s*[{:])",
    re.MULTILINE,
)
_ABOVE_C = re.compile(r"\s*(?://|/?\*|\[\[|template\b|[\w<][\w:<>,*& \[\]]*$)(?!.*[;{}]$)")
_SCRIPT = re.compile(
    r"^(?:export\s+)?(?:default\s+)?(?:declare\s+)?(?:abstract\s+)?(?:async\s+)?"
    r"(?:function\*?|class|interface|enum|namespace|type|const|let|var)\s+(?P<name>[\w$]+)"
)
_JAVA = re.compile(
    rf"^\s{{0,4}}{_MODIFIERS}(?:class|interface|enum|record|@interface|object|trait|struct|"
    r"protocol|extension|fun|func|function|def)\s+(?P<name>\w[\w.<>]*)"
    r"|^\s{4}(?:public|private|protected|internal)\s[^=;\n]*?\b(?P<method>\w+)\s*\([^;\n]*$"
)
_GO = re.compile(r"^(?:func\s+(?:\([^)]*\)\s*)?|type\s+|var\s+|const\s+)(?P<name>\w+)")
_RUST = re.compile(
    r"^(?:pub(?:\([^)]*\))?\s+)?(?:(?:default|async|unsafe|const|extern(?:\s+\"\w+\")?)\s+)*"
    r"(?:fn|struct|enum|union|trait|mod|type|static|macro_rules!|impl(?:<[^{]*?>)?)\s+"
    r"(?P<name>[\w:<>' ]*\w)"
)
_RUBY = re.compile(r"^\s{0,4}(?:def|class|module)\s+(?P<name>[\w.:?!=]+)")
_SHELL = re.compile(r"^(?:function\s+)?(?P<name>[\w:-]+)\s*\(\)|^function\s+(?P<other>[\w:-]+)")
_MAKE = re.compile(
    r"^(?P<name>[\w./%$(){}-]+(?:\s+[\w./%$(){}-]+)*)\s*::?(?!=)|^define\s+(?P<text>\S+)"
)
_CMAKE = re.compile(r"^(?:function|macro)\s*\(\s*(?P<name>\w+)", re.IGNORECASE)
_PERL = re.compile(r"^\s*(?:sub|package)\s+(?P<name>[\w:]+)")
_LUA = re.compile(r"^(?:local\s+)?function\s+(?P<name>[\w.:]+)")
_SQL = re.compile(
    r"^create\s+(?:or\s+replace\s+)?(?:\w+\s+)??(?:table|view|index|trigger|function|procedure)\s+"
    r"(?:if\s+not\s+exists\s+)?(?P<name>[\w.\"`]+)",
    re.IGNORECASE,
)
_CYTHON = re.compile(r"^(?:def|cdef|cpdef|class|async def)\s+(?:[\w*]+\s+)*?(?P<name>\w+)\s*[(:]")

PYTHON = Language("Python")
MARKDOWN = Language("Markdown")
RST = Language("reStructuredText")
_CPP = Language("C++", _C, _ABOVE_C)
_SH = Language("shell", _SHELL)
_MAKEFILE = Language("make", _MAKE)
_CMAKE_FILE = Language("CMake", _CMAKE)

_BY_SUFFIX: dict[str, Language] = {}
for _suffixes, _language in (
    ("py pyi pyw", PYTHON),
    ("md markdown mdx", MARKDOWN),
    ("rst", RST),
    ("c", Language("C", _C, _ABOVE_C)),
    ("h", Language("C or C++ header", _C, _ABOVE_C)),
    ("cc cpp cxx c++ hh hpp hxx h++ inl ipp tcc cu cuh", _CPP),
    ("m mm", Language("Objective-C", _C, _ABOVE_C)),
    ("js mjs cjs jsx", Language("JavaScript", _SCRIPT)),
    ("ts mts cts tsx", Language("TypeScript", _SCRIPT)),
    ("go", Language("Go", _GO)),
    ("rs", Language("Rust", _RUST)),
    ("java", Language("Java", _JAVA)),
    ("kt kts", Language("Kotlin", _JAVA)),
    ("cs", Language("C#", _JAVA)),
    ("scala", Language("Scala", _JAVA)),
    ("swift", Language("Swift", _JAVA)),
    ("php", Language("PHP", _JAVA)),
    ("rb", Language("Ruby", _RUBY)),
    ("sh bash zsh", _SH),
    ("pl pm", Language("Perl", _PERL)),
    ("lua", Language("Lua", _LUA)),
    ("sql", Language("SQL", _SQL)),
    ("pyx pxd", Language("Cython", _CYTHON)),
    ("mk", _MAKEFILE),
    ("cmake", _CMAKE_FILE),
):
    for _suffix in _suffixes.split():
        _BY_SUFFIX["." + _suffix] = _language
_BY_NAME = {
    "makefile": _MAKEFILE,
    "gnumakefile": _MAKEFILE,
    "cmakelists.txt": _CMAKE_FILE,
    "dockerfile": Language("Dockerfile"),
    "readme": MARKDOWN,
    "readme.txt": MARKDOWN,
}
_BY_FIRST_LINE = (
    (re.compile(rb"-\*- *(?:mode: *)?C\+\+ *-\*-"), _CPP),
    (re.compile(rb"^#!.*\bpython"), PYTHON),
    (re.compile(rb"^#!.*\b(?:ba|da|k|z)?sh\b"), _SH),
    (re.compile(rb"^#!.*\bperl\b"), Language("Perl", _PERL)),
    (re.compile(rb"^#!.*\bruby\b"), Language("Ruby", _RUBY)),
    (re.compile(rb"^#!.*\bnode\b"), Language("JavaScript", _SCRIPT)),
)


def may_be_source(path: str) -> bool:
    """Whether the name alone rules the file in: a known suffix or name, or no suffix at all."""
    name = PurePosixPath(path)
    known = name.suffix.lower() in _BY_SUFFIX or name.name.lower() in _BY_NAME
    return known or (not name.suffix and not name.name.startswith("."))


def language_of(path: str, data: bytes) -> Language | None:
    """The language by name, else by the first line of the file; None when it is neither."""
    name = PurePosixPath(path)
    named = _BY_NAME.get(name.name.lower()) or _BY_SUFFIX.get(name.suffix.lower())
    if named is not None:
        return named
    first_line = data[:200].split(b"\n", 1)[0]
    for pattern, language in _BY_FIRST_LINE:
        if pattern.search(first_line):
            return language
    return None
