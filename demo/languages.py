"""Which files are worth a page, and by what lines a definition or heading in them is recognised."""

from __future__ import annotations

import re
from dataclasses import dataclass
from pathlib import PurePosixPath

MAX_BYTES = 1 << 20
_DOCUMENT_BYTES = 1 << 18  # larger texts and tables are rather data than something to read
_DATA_BYTES = 1 << 16
_COMMENTED = re.compile(r"\s*(?:#(?!\s*if|\s*e|\s*define)|//|/?\*|--|@|;)")


@dataclass(frozen=True, slots=True)
class Language:
    """A kind of file: "source", "document" or "data", and how large one may be.

    ``definition`` matches where one begins, given that line and the next; its one group that
    matched is the name. ``above`` matches lines that belong to a definition below them. Documents
    have headings: lines that match ``heading``, or that stand above a row of ``underlines``.
    """

    name: str
    definition: re.Pattern[str] | None = None
    above: re.Pattern[str] = _COMMENTED
    kind: str = "source"
    limit: int = MAX_BYTES
    heading: re.Pattern[str] = re.compile(r"(?!)")
    underlines: str = ""


LICENCE = re.compile(
    r"copyright|licen[cs]e|warrant(?:y|ies)|SPDX|all rights reserved|\bGPL\b|redistribut"
    r"|permission (?:is|to)|without fee|merchantability|\bliab(?:le|ility)\b",
    re.IGNORECASE,
)

_C = (
    r"[ ]{0,4}(?:template\s*<.*>\s*)?(?:typedef\s+)?"
    r"(?:class|struct|union|enum(?:[ ]+class)?|concept)[ ]+(?:\w+[ ]+)*?(?P<name>\w+)[^;()\n]*$"
    r"|#[ ]*define[ ]+(?P<macro>\w+)\(.*\\$"
    r"|(?!\s*(?:return|else|if|for|while|switch|namespace|using|case|goto|do|catch)\b|extern \")"
    r"(?:(?:[A-Za-z_][\w:<>,*& \[\]]*?[ *&>])?(?P<function>~?[A-Za-z_][\w:~]*)[ ]*\([^;\n]*$"
    r"|[ ]{1,4}(?P<member>~?[A-Za-z_][\w:~]*)[ ]*\([^;\n]*\)[^;\n]*\n\s*[{:])"
)
_ABOVE_C = re.compile(r"\s*(?://|/?\*|\[\[|template\b|[\w<][\w:<>,*& \[\]]*$)(?!.*[;{}]$)")
# A word that says what follows, as most languages have it; or a method by its result and braces.
_WORDS = (
    r"[ \t]{0,8}(?:(?:public|private|protected|internal|static|final|abstract|sealed|override|open|"
    r"data|partial|virtual|async|default|export|inline|unsafe|extern|readonly|local|suspend)\s+)*"
    r"(?:(?:class|interface|enum|record|@interface|object|trait|struct|protocol|extension|fun|func|"
    r"function|def|defp|defmodule|defmacro|module|sub|message|service|rpc)\s+"
    r"(?P<name>\w[\w.:<>?!]*)|c?p?def\s+(?:[\w*]+\s+)*?(?P<typed>\w+)\s*[(:])"
)
_JAVA = _WORDS + (
    r"|(?:[ ]{2,8}|\t{1,2})(?!(?:return|else|new|throw|if|for|while|switch|case|try|catch|do|assert|"
    r"await|yield|using|lock|package|import|goto|echo)\b)[\w@][\w<>\[\],.?&@ ]*[\s>\]]"
    r"(?P<method>\w+)\s*\([^=\n]*$"
)
_SCRIPT = (
    r"(?:export\s+)?(?:default\s+)?(?:declare\s+)?(?:abstract\s+)?(?:async\s+)?"
    r"(?:function\*?|class|interface|enum|namespace|type|const|let|var)\s+(?P<name>[\w$]+)"
    r"(?!.*\brequire\()"
    r"|[ \t]{0,4}(?P<value>[\w$.]+)\s*[=:]\s*(?:async\s*)?(?:function\b|(?:\([^()]*\)|\w+)\s*=>)"
    r"|(?:[ ]{2,4}|\t)(?:(?:static|async|get|set|public|private|protected|override)\s+)*[*#]?"
    r"(?!(?:if|for|while|switch|catch|function|return|with)\b)(?P<method>[\w$]+)"
    r"\s*(?:<[^>]*>)?\([^;]*\)\s*(?::\s*[^;={]+)?\{\s*$"
)
_RUST = (
    r"(?:pub(?:\([^)]*\))?\s+)?(?:(?:default|async|unsafe|const|extern(?:\s+\"\w+\")?)\s+)*"
    r"(?:fn|struct|enum|union|trait|mod|type|static|macro_rules!|impl(?:<[^{]*?>)?)\s+"
    r"(?P<name>[\w:<>' ]*\w)"
    r"|[ ]{4}(?:pub(?:\([^)]*\))?\s+)?(?:(?:async|unsafe|const)\s+)*fn\s+(?P<method>\w+)"
)
_SQL = (
    r"(?i:create\s+(?:or\s+replace\s+)?(?:\w+\s+)??(?:table|view|index|trigger|function|procedure)"
    r"\s+(?:if\s+not\s+exists\s+)?(?P<name>[\w.\"`]+))"
)
_MAKE = r"(?P<name>[\w./%$(){}-]+(?:\s+[\w./%$(){}-]+)*)\s*::?(?!=)|define\s+(?P<text>\S+)"
_SHELL = r"(?:function\s+)?(?P<name>[\w:-]+)\s*\(\)|function\s+(?P<other>[\w:-]+)"
_HASKELL = r"(?:data|newtype|class|instance|type)\s+(?P<name>[^={]*\w)|(?P<value>\w+)\s*::"
_ZIG = r"[ ]{0,4}(?:pub\s+)?(?:fn|const|test)\s+(?P<name>[\w\"]+)"


def _source(name: str, pattern: str, above: re.Pattern[str] = _COMMENTED) -> Language:
    return Language(name, re.compile(pattern, re.MULTILINE), above)


def _document(name: str, heading: str, underlines: str = "") -> Language:
    pattern = re.compile(heading, re.IGNORECASE)
    return Language(name, None, _COMMENTED, "document", _DOCUMENT_BYTES, pattern, underlines)


def _data(name: str, pattern: str) -> Language:
    return Language(name, re.compile(pattern), _COMMENTED, "data", _DATA_BYTES)


PYTHON = Language("Python")
MARKDOWN = _document("Markdown", r"#{1,6}\s+(.*?)\s*#*\s*$", "=-")
_CPP = _source("C++", _C, _ABOVE_C)
_SH = _source("shell", _SHELL)
_PERL = _source("Perl", _WORDS)
_RUBY = _source("Ruby", _WORDS)
_JAVASCRIPT = _source("JavaScript", _SCRIPT)
_MAKEFILE = _source("make", _MAKE)
_CMAKE_FILE = _source("CMake", r"(?i:function|macro)\s*\(\s*(?P<name>\w+)")
_ANY_UNDERLINE = "=-~^\"'*+#`.:"

_BY_SUFFIX: dict[str, Language] = {
    "." + suffix: language
    for suffixes, language in (
        ("py pyi pyw", PYTHON),
        ("md markdown mdx", MARKDOWN),
        ("rst", _document("reStructuredText", "(?!)", _ANY_UNDERLINE)),
        ("txt", _document("text", "(?!)", _ANY_UNDERLINE)),
        ("html htm xhtml", _document("HTML", r".*?<h[1-6][^>]*>(.*?)(?:</h[1-6]>|$)")),
        ("adoc asciidoc", _document("AsciiDoc", r"={1,6}\s+(.*)")),
        ("org", _document("Org", r"\*+\s+(.*)")),
        ("c", _source("C", _C, _ABOVE_C)),
        ("h", _source("C or C++ header", _C, _ABOVE_C)),
        ("cc cpp cxx c++ hh hpp hxx h++ inl ipp tcc cu cuh", _CPP),
        ("m mm", _source("Objective-C", _C, _ABOVE_C)),
        ("y l yy ll", _source("grammar", _C, _ABOVE_C)),
        ("js mjs cjs jsx", _JAVASCRIPT),
        ("ts mts cts tsx", _source("TypeScript", _SCRIPT)),
        ("vue", _source("Vue", _SCRIPT + r"|<(?P<part>template|script|style)")),
        ("go", _source("Go", r"(?:func\s+(?:\([^)]*\)\s*)?|type\s+|var\s+|const\s+)(?P<name>\w+)")),
        ("rs", _source("Rust", _RUST)),
        ("java", _source("Java", _JAVA)),
        ("kt kts", _source("Kotlin", _JAVA)),
        ("cs", _source("C#", _JAVA)),
        ("scala", _source("Scala", _WORDS)),
        ("swift", _source("Swift", _WORDS)),
        ("php", _source("PHP", _WORDS)),
        ("rb", _RUBY),
        ("ex exs", _source("Elixir", _WORDS)),
        ("hs", _source("Haskell", _HASKELL)),
        ("zig", _source("Zig", _ZIG)),
        ("proto", _source("Protocol Buffers", _WORDS)),
        ("sh bash zsh", _SH),
        ("pl pm", _PERL),
        ("lua", _source("Lua", _WORDS)),
        ("vim", _source("Vim script", r"\s*fu\w*!?\s+(?P<name>[\w:#.]+)")),
        ("dart groovy gradle jl nim ps1 r", _source("script", _WORDS)),
        ("sql", _source("SQL", _SQL)),
        ("pyx pxd", _source("Cython", _WORDS)),
        ("mk", _MAKEFILE),
        ("cmake", _CMAKE_FILE),
        ("css", _data("CSS", r"(?P<name>[^\s{}/*][^{}/]*?)\s*\{")),
        ("json", _data("JSON", r"(?: {2}| {4}|\t)\"(?P<name>[^\"]+)\":")),
        ("toml", _data("TOML", r"\[+(?P<name>[^\]]+)\]")),
        ("yaml yml", _data("YAML", r"(?P<name>[\w.-]+):")),
    )
    for suffix in suffixes.split()
}
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
    (re.compile(rb"^#!.*\bperl\b"), _PERL),
    (re.compile(rb"^#!.*\bruby\b"), _RUBY),
    (re.compile(rb"^#!.*\bnode\b"), _JAVASCRIPT),
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
