"""Which files are worth a page, and by what lines a definition or heading in them is recognised."""

import re
from dataclasses import dataclass
from pathlib import PurePosixPath

MAX_BYTES = 1 << 20
_COMMENTED = re.compile(r"\s*(?:#(?!\s*if|\s*e|\s*define)|//|/?\*|--|@|;)")


@dataclass(frozen=True, slots=True)
class Language:
    """A kind of file, and how its definitions or headings are recognised."""

    name: str
    kind: str  # "source", "document" or "data"
    limit: int  # bytes that may be worth a page
    begins: re.Pattern[str]  # a definition, given its line and the next, or a heading; names it
    above: re.Pattern[str]  # lines that belong to a definition below them
    underlines: str  # rows of these make the line above them a heading


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
    r"data|partial|virtual|async|default|export|inline|unsafe|extern|readonly|local)\s+)*"
    r"(?:(?:class|@?interface|enum|record|object|trait|struct|protocol|extension|fun|"
    r"func|function!?|fn|data|newtype|instance|defp?|defmodule|defmacro|module|sub|message|service|"
    r"rpc)\s+(?P<name>\w[\w.:<>?!]*)|c?p?def\s+(?:[\w*]+\s+)*?(?P<typed>\w+)\s*[(:])"
)
_JAVA = _WORDS + (
    r"|(?:[ ]{2,8}|\t{1,2})(?!(?:return|else|new|throw|if|for|while|switch|case|try|catch|do|"
    r"assert|await|yield|using|lock|package|import|goto|echo)\b)[\w@<][\w<>\[\],.?&@ ]*[\s>\]]"
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
_UNDERLINES = "=-~^\"'*+#`.:"
_FAMILIES = (  # kind, what begins a definition or is a heading, names with their suffixes
    ("source", "(?!)", "Python: py pyi pyw python; Dockerfile: dockerfile /dockerfile"),
    ("source", _C, "C: c; C or C++ header: h; C++: cc cpp cxx c++ hh hpp hxx h++ inl ipp tcc cu;"
     " Objective-C: m mm; grammar: y l yy ll"),
    ("source", _JAVA, "Java: java; Kotlin: kt kts; C#: cs"),
    ("source", _WORDS, "Scala: scala; Swift: swift; PHP: php; Ruby: rb ruby; Elixir: ex exs;"
     " Perl: pl pm perl; Protocol Buffers: proto; Lua: lua; Cython: pyx pxd;"
     " Haskell: hs; Zig: zig; Vim script: vim; other: dart gradle jl"),
    ("source", _SCRIPT, "JavaScript: js mjs cjs jsx node; TypeScript: ts mts cts tsx; Vue: vue"),
    ("source", _RUST, "Rust: rs"),
    ("source", r"(?:func\s+(?:\([^)]*\)\s*)?|type\s+|var\s+|const\s+)(?P<name>\w+)", "Go: go"),
    ("source", r"(?:function\s+)?(?P<name>[\w:-]+)\s*\(\)|function\s+(?P<other>[\w:-]+)",
     "shell: sh bash zsh dash ksh"),
    ("source", r"(?i:create\s+(?:or\s+replace\s+)?(?:\w+\s+)??(?:table|view|index|trigger|function|"
     r"procedure)\s+(?:if\s+not\s+exists\s+)?(?P<name>[\w.\"`]+))", "SQL: sql"),
    ("source", r"(?P<name>[\w./%$(){}-]+(?:\s+[\w./%$(){}-]+)*)\s*::?(?!=)|define\s+(?P<text>\S+)",
     "make: mk /makefile /gnumakefile"),
    ("source", r"(?i:function|macro)\s*\(\s*(?P<name>\w+)", "CMake: cmake /cmakelists.txt"),
    ("document", r"#{1,6}\s+(.*?)\s*#*\s*$", "Markdown: md markdown mdx /readme /readme.txt"),
    ("document", "(?!)", "reStructuredText: rst; text: txt"),
    ("document", r"(?i:.*?<h[1-6][^>]*>(.*?)(?:</h[1-6]>|$))", "HTML: html htm xhtml"),
    ("document", r"={1,6}\s+(.*)", "AsciiDoc: adoc asciidoc"),
    ("document", r"\*+\s+(.*)", "Org: org"),
    ("data", r"(?P<name>[^\s{}/*][^{}/]*?)\s*\{", "CSS: css"),
    ("data", r"(?: {2}| {4}|\t)\"(?P<name>[^\"]+)\":", "JSON: json"),
    ("data", r"\[+(?P<name>[^\]]+)\]", "TOML: toml"),
    ("data", r"(?P<name>[\w.-]+):", "YAML: yaml yml"),
)  # fmt: skip
_LIMITS = {"source": MAX_BYTES, "document": 1 << 18, "data": 1 << 16}

_LANGUAGES: dict[str, Language] = {}  # by ".suffix" or "/name", both in small letters
for _kind, _pattern, _row in _FAMILIES:
    for _name, _files in (entry.split(": ") for entry in _row.split("; ")):
        _begins = re.compile(_pattern, re.MULTILINE)
        _above = _ABOVE_C if _pattern is _C else _COMMENTED
        _under = {"Markdown": "=-", "reStructuredText": _UNDERLINES, "text": _UNDERLINES}
        _one = Language(_name, _kind, _LIMITS[_kind], _begins, _above, _under.get(_name, ""))
        for _file in _files.split():
            _LANGUAGES[_file if _file[0] == "/" else f".{_file}"] = _one
_FIRST_LINE = re.compile(
    r"#!.*\b(python|perl|ruby|node|(?:ba|da|k|z)?sh\b)|.*-\*- *(?:mode: *)?(c\+\+) *-\*-"
)


def _named(path: str) -> Language | None:
    name = PurePosixPath(path.lower())
    return _LANGUAGES.get(f"/{name.name}") or _LANGUAGES.get(name.suffix)


def may_be_source(path: str) -> bool:
    """Whether the name alone rules the file in: a known suffix or name, or no suffix at all."""
    name = PurePosixPath(path)
    return _named(path) is not None or not (name.suffix or name.name.startswith("."))


def language_of(path: str, data: bytes) -> Language | None:
    """The language by name, else by the first line of the file; None when it is neither."""
    told = _FIRST_LINE.match(data[:200].decode("latin-1").lower())
    return _named(path) or (_LANGUAGES["." + (told[1] or told[2])] if told else None)
