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


def stub_tree() -> ast.Module:
    """The stub that lies beside the module, where type checkers look for it."""
    path = Path(repository_wiki.__file__).with_name("repository_wiki.pyi")
    return ast.parse(path.read_text(encoding="utf-8"), str(path))


def names_bound(tree: ast.Module) -> dict[str, Any]:
    """Every name that the stub binds, in order; for what an import binds, the object itself."""
    bound: dict[str, Any] = {}
    for node in tree.body:
        if isinstance(node, ast.Import | ast.ImportFrom):
            imported: dict[str, Any] = {}
            exec(compile(ast.Module([node], []), "stub", "exec"), imported)
            bound |= {alias.asname or alias.name: imported[alias.name] for alias in node.names}
        elif isinstance(node, ast.AnnAssign) and isinstance(node.target, ast.Name):
            bound[node.target.id] = None
        elif isinstance(node, ast.ClassDef):
            bound[node.name] = None
        else:
            raise AssertionError(f"the stub has a statement of another kind: {ast.dump(node)}")
    return bound


def stub_class(tree: ast.Module) -> type:
    """The stub's class, its annotations and defaults evaluated in the module's own namespace."""
    body = [node for node in tree.body if isinstance(node, ast.ClassDef | ast.AnnAssign)]
    namespace = dict(vars(repository_wiki))
    exec(compile(ast.Module(body, []), "stub", "exec", dont_inherit=True), namespace)
    return namespace["WikiStore"]


def shape(function: Any) -> tuple[Any, ...]:
    signature = inspect.signature(function)
    parameters = [
        (one.name, one.kind, type(one.default), one.default, one.annotation)
        for one in signature.parameters.values()
    ]
    return (*parameters, signature.return_annotation)


class Stub(unittest.TestCase):
    def test_module_binds_what_the_stub_says_in_its_order(self) -> None:
        bound = names_bound(stub_tree())
        own = [name for name in vars(repository_wiki) if name not in MACHINERY]
        self.assertEqual(list(bound), own)
        for name, value in bound.items():
            if value is not None:
                self.assertIs(getattr(repository_wiki, name), value, name)

    def test_class_has_the_methods_parameters_defaults_and_annotations_of_the_stub(self) -> None:
        stub = stub_class(stub_tree())
        self.assertEqual(stub.__bases__, WikiStore.__bases__)
        self.assertEqual(stub.__annotations__, WikiStore.__annotations__)
        stubbed = {k: v for k, v in vars(stub).items() if isinstance(v, types.FunctionType)}
        methods = {k: v for k, v in vars(WikiStore).items() if not k.startswith("__")}
        self.assertEqual(list(stubbed), list(methods))
        for name, function in stubbed.items():
            with self.subTest(method=name):
                self.assertEqual(shape(function), shape(methods[name]))
                self.assertEqual(function.__annotations__, methods[name].__annotations__)
                self.assertIn(function.__doc__, (None, methods[name].__doc__))

    def test_marker_lies_beside_the_module_and_claims_no_package_above(self) -> None:
        folder = Path(repository_wiki.__file__).parent
        self.assertEqual((folder / "py.typed").read_text(encoding="utf-8"), "")
        self.assertFalse((folder.parent / "py.typed").exists())


if __name__ == "__main__":
    unittest.main()
