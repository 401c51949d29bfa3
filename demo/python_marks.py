"""Finds the definitions of a Python file in its syntax tree."""

from __future__ import annotations

import ast
import warnings

_Definition = ast.FunctionDef | ast.AsyncFunctionDef | ast.ClassDef
PythonMark = tuple[int, str | None, str, bool]  # line, heading, group, symbol


def python_marks(text: str, lines: list[str], large: int) -> tuple[list[PythonMark], str] | None:
    """The fields of each mark, and the file's docstring; None when it does not parse.

    There is a mark for each definition and each run of other statements. The members of a class
    of more than ``large`` lines get marks of their own. Imports are marked as not worth citing, so
    that adding one does not change what is cited.
    """
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            tree = ast.parse(text)
    except (SyntaxError, ValueError, RecursionError, MemoryError):
        return None
    marks: list[PythonMark] = []
    for position, node in enumerate(tree.body):
        if isinstance(node, _Definition):
            _definition(node, "", lines, large, marks)
        elif isinstance(node, ast.Import | ast.ImportFrom):
            _add(marks, node.lineno, None, "imports")
        elif position == 0 and _is_docstring(node):
            _add(marks, node.lineno, "overview", "overview")
        else:
            _add(marks, node.lineno, "module level", "module level")
    return marks, ast.get_docstring(tree) or ""


def _is_docstring(node: ast.stmt) -> bool:
    return (
        isinstance(node, ast.Expr)
        and isinstance(node.value, ast.Constant)
        and isinstance(node.value.value, str)
    )


def _add(marks: list[PythonMark], line: int, heading: str | None, group: str) -> None:
    """Adds a mark, unless it continues the run before it or shares its line."""
    if not marks or (marks[-1][0] < line and marks[-1][1:3] != (heading, group)):
        marks.append((line, heading, group, False))


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
    if is_large:
        for member in node.body:
            if isinstance(member, _Definition):
                _definition(member, name, lines, large, marks)
