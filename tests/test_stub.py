"""The stub against the running module: an editor must see the methods that are there."""

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
STUB = ast.parse(Path(repository_wiki.__file__).with_name("repository_wiki.pyi").read_bytes())


def bound_by(nodes: list[ast.stmt], names: dict[str, Any]) -> dict[str, Any]:
    """What a part of the stub binds when it runs where there are these names."""
    bound: dict[str, Any] = {}
    exec(compile(ast.Module(nodes, []), "stub", "exec", dont_inherit=True), names, bound)
    return bound


class Stub(unittest.TestCase):
    def test_module_binds_what_the_stub_says_in_its_order(self) -> None:
        [*imports, logger, class_] = STUB.body
        bound = bound_by(imports, {})
        own = {name: one for name, one in vars(repository_wiki).items() if name not in MACHINERY}
        self.assertEqual(list(own), [*bound, logger.target.id, class_.name])
        for name, value in bound.items():
            self.assertIs(own[name], value, name)

    def test_class_has_the_methods_parameters_defaults_and_annotations_of_the_stub(self) -> None:
        stub = bound_by(STUB.body[-1:], vars(repository_wiki) | {})["WikiStore"]
        self.assertEqual(stub.__bases__, WikiStore.__bases__)
        self.assertEqual(stub.__annotations__, WikiStore.__annotations__)
        stubbed = {k: v for k, v in vars(stub).items() if isinstance(v, types.FunctionType)}
        methods = {k: v for k, v in vars(WikiStore).items() if not k.startswith("__")}
        self.assertEqual(list(stubbed), list(methods))
        for name, function in stubbed.items():
            with self.subTest(method=name):
                signatures = [str(inspect.signature(one)) for one in (function, methods[name])]
                self.assertEqual(*signatures)
                self.assertEqual(function.__qualname__, methods[name].__qualname__)
