"""Finds the definitions of a Python file in its syntax tree."""

from __future__ import annotations

import ast
import warnings

_Definition = ast.FunctionDef | ast.AsyncFunctionDef | ast.ClassDef
PythonMark = tuple[int, str | None, str, bool]  # line, heading, group, symbol


def python_marks(text: str, lines: list[str], large: int) -> tuple[list[PythonMark], str]:
    """The fields of each mark, and the file's docstring; nothing when it does not parse.

    There is a mark for each definition and each run of other statements. The members of a class
    of more than ``large`` lines get marks of their own. Imports are marked as not worth citing, so
    that adding one does not change what is cited.
    """
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            tree = ast.parse(text)
    except (SyntaxError, ValueError, RecursionError, MemoryError):
        return [], ""
    marks: list[PythonMark] = []
    docstring = ast.get_docstring(tree)
    for position, node in enumerate(tree.body):
        if isinstance(node, _Definition):
            _definition(node, "", lines, large, marks)
            continue
        named = "overview" if position == 0 and docstring is not None else "module level"
        is_import = isinstance(node, ast.Import | ast.ImportFrom)
        heading, group = (None, "imports") if is_import else (named, named)
        # Not when it continues the run before it or shares its line.
        if not marks or (marks[-1][0] < node.lineno and marks[-1][1:3] != (heading, group)):
            marks.append((node.lineno, heading, group, False))
    return marks, docstring or ""


def _definition(
    node: _Definition, parent: str, lines: list[str], large: int, marks: list[PythonMark]
) -> None:
    start = min([node.lineno, *(decorator.lineno for decorator in node.decorator_list)])
    above = marks[-1][0] + 1 if marks else 1
    while start > above and lines[start - 2].lstrip().startswith("#"):
        start -= 1
    name = f"{parent}.{node.name}" if parent else node.name
    is_large = isinstance(node, ast.ClassDef) and (node.end_lineno or start) - start >= large
    if not marks or marks[-1][0] < start:
        marks.append((start, name, name if is_large else parent, True))
    for member in node.body if is_large else ():
        if isinstance(member, _Definition):
            _definition(member, name, lines, large, marks)
