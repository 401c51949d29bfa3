"""The stub against the running module: an editor must see the methods that are there."""

from __future__ import annotations

import ast
import inspect
import types
import unittest
from pathlib import Path
from typing import Any

from tessaly.storage import repository_wiki
from tessaly.storage.repository_wiki import WikiStore

# What the import machinery sets on any module.
MACHINERY = {"__name__", "__doc__", "__package__", "__loader__", "__spec__", "__file__"}


# The stub that lies beside the module, where type checkers look for it.
PATH = Path(repository_wiki.__file__).with_name("repository_wiki.pyi")
STUB = ast.parse(PATH.read_text(encoding="utf-8"), str(PATH))


def stub_class() -> type:
    """The stub's class, its annotations and defaults evaluated in the module's own namespace."""
    body = [node for node in STUB.body if isinstance(node, ast.ClassDef | ast.AnnAssign)]
    namespace = dict(vars(repository_wiki))
    exec(compile(ast.Module(body, []), "stub", "exec", dont_inherit=True), namespace)
    return namespace["WikiStore"]


def shape(function: Any) -> tuple[inspect.Signature, list[type]]:
    """The signature, and what kinds its defaults are: 1 equals True and 1.0."""
    signature = inspect.signature(function)
    return signature, [type(one.default) for one in signature.parameters.values()]


class Stub(unittest.TestCase):
    def test_module_binds_what_the_stub_says_in_its_order(self) -> None:
        bound: dict[str, Any] = {}  # for what an import binds, the object itself
        for node in STUB.body:
            if isinstance(node, ast.Import | ast.ImportFrom):
                exec(compile(ast.Module([node], []), "stub", "exec"), bound)
                del bound["__builtins__"]
            else:
                bound[node.target.id if isinstance(node, ast.AnnAssign) else node.name] = None
        own = [name for name in vars(repository_wiki) if name not in MACHINERY]
        self.assertEqual(list(bound), own)
        for name, value in bound.items():
            if value is not None:
                self.assertIs(getattr(repository_wiki, name), value, name)

    def test_class_has_the_methods_parameters_defaults_and_annotations_of_the_stub(self) -> None:
        stub = stub_class()
        self.assertEqual(stub.__bases__, WikiStore.__bases__)
        self.assertEqual(stub.__annotations__, WikiStore.__annotations__)
        stubbed = {k: v for k, v in vars(stub).items() if isinstance(v, types.FunctionType)}
        methods = {k: v for k, v in vars(WikiStore).items() if not k.startswith("__")}
        self.assertEqual(list(stubbed), list(methods))
        for name, function in stubbed.items():
            with self.subTest(method=name):
                self.assertEqual(shape(function), shape(methods[name]))
                self.assertIn(function.__doc__, (None, methods[name].__doc__))
