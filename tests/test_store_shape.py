"""What can be seen of the module and the class from outside, and calls with wrong arguments."""

from __future__ import annotations

import builtins
import gc
import importlib
import inspect
import itertools
import logging
import pickle
import subprocess
import sys
import textwrap
import types
import unittest
import weakref
from typing import Any
from unittest import mock

from benchmarks.plain_store import PlainWikiStore
from tessaly.storage import repository_wiki
from tessaly.storage.database import Database
from tessaly.storage.repository_wiki import WikiStore
from tests.support import StoreTestCase, not_leak_checked

Text = type("Text", (str,), {})
NAME = "tessaly.storage.repository_wiki"
PLAIN = {name: one for name, one in vars(PlainWikiStore).items() if inspect.isfunction(one)}


class Shape(StoreTestCase):
    def test_module_name_logger_and_docstring(self) -> None:
        self.assertEqual(repository_wiki.__name__, NAME)
        self.assertIs(repository_wiki.logger, logging.getLogger(NAME))
        self.assertRegex(
            repository_wiki.__doc__,
            r"(?s)\A\S[^\n]*wiki store of the repository.*\n\nA mixin of"
            r" :class:`tessaly.storage.repository.Repository`: its methods use the"
            r" repository's\s``db``.\n\Z",
        )

    def test_class_attributes(self) -> None:
        expected = {
            "__module__": NAME,
            "__qualname__": "WikiStore",
            "__firstlineno__": 22,
            "__annotations__": {"db": Database},
            "__static_attributes__": (),
        }
        for name, value in expected.items():
            self.assertEqual(getattr(WikiStore, name), value, name)
        order = ["__module__", "__doc__", "__firstlineno__", "__annotations__", *PLAIN]
        given = [name for name in vars(WikiStore) if name not in ("__dict__", "__weakref__")]
        self.assertEqual(given, [*order, "__static_attributes__"])
        self.assertEqual((type(WikiStore), WikiStore.__bases__), (type, (object,)))
        self.assertEqual(WikiStore.__basicsize__, type("Empty", (), {}).__basicsize__)

    def test_methods_are_functions_of_the_class(self) -> None:
        for name in PLAIN:
            method = vars(WikiStore)[name]
            self.assertIs(type(method), types.FunctionType)
            self.assertEqual(method.__qualname__, f"WikiStore.{name}")
            self.assertEqual((method.__module__, method.__dict__), (NAME, {}))
            self.assertIs(pickle.loads(pickle.dumps(method)), method)
        one = type("Deriving", (WikiStore, dict), {})()
        one.db = types.SimpleNamespace(fetchone=lambda _statement, parameters: None)
        self.assertEqual(list(one.__dict__), ["db"])
        self.assertIsNone(one.get_wiki_state("b"))
        self.assertIsNone(WikiStore.get_wiki_state(types.SimpleNamespace(db=one.db), "b"))
        with self.assertRaisesRegex(AttributeError, "__dict__"):
            WikiStore._wiki_chunk_indexes(object())

    def test_a_method_stays_a_function_whatever_is_set_on_it(self) -> None:
        def one_variable() -> Any:
            return lambda self, branch: (branch, captured)

        captured = "captured"
        method = WikiStore.get_wiki_pages
        store = mock.Mock(**{"db.fetchall.return_value": [], "db.fetchone.return_value": None})
        [cell] = method.__closure__
        copied = types.FunctionType(method.__code__, {}, "f", ("b",), method.__closure__)
        self.assertEqual((copied(store), method(store, branch="b")), ([], []))
        self.assertEqual(method(store, **{Text("branch"): "b"}), [])
        own, native = method.__code__, cell.cell_contents
        for code, expected in (
            (WikiStore.get_wiki_state.__code__, None),
            (one_variable().__code__, ("b", native)),
            (own, []),
        ):
            method.__code__ = code
            self.assertEqual(method(store, "b"), expected)
        number = list(PLAIN).index("get_wiki_pages")
        self.addCleanup(setattr, cell, "cell_contents", native)
        cell.cell_contents = lambda *given: given
        self.assertEqual(method(store, "b"), (number, store, "b"))
        cell.cell_contents = repository_wiki
        self.assertRaisesRegex(TypeError, "'module' object is not callable", method, store, "b")
        cell.cell_contents = native
        for given in ((), (0,), ("x", store), (99, store), (-1, store), (10, store, "b", "c")):
            with self.assertRaises((TypeError, OverflowError)):
                native(*given)
        self.assertEqual(native(number, store, "b"), [])

    def test_what_sets_the_closure_or_the_code_during_a_call_does_not_end_it(self) -> None:
        def harm(_statement: Any, _parameters: Any) -> list[Any]:
            method.__code__ = WikiStore.get_wiki_page.__code__
            cell.cell_contents = method.__defaults__ = None
            gc.collect()
            return [(1,) * 3, (2,) * 3]

        again = Life().import_anew()
        method = again.WikiStore.get_wiki_pages
        [cell] = method.__closure__
        again.WIKI_PAGE_COLUMNS, again.row_to_wiki_page = "x", tuple
        store = mock.Mock(**{"db.fetchall": harm})
        del again
        self.assertEqual(method(store, "b"), [(1,) * 3, (2,) * 3])
        self.assertRaisesRegex(TypeError, "missing 1 .*: 'page_id'", method, store, "b")
        self.assertRaisesRegex(TypeError, "'NoneType' .* not callable", method, store, "b", "p")

    def test_defaults_that_are_set_are_used(self) -> None:
        page, search = WikiStore.upsert_wiki_page, WikiStore.search_wiki_chunks
        put = mock.patch.object
        asked: list[Any] = []
        index = types.SimpleNamespace(dimension=0, chunks={})
        index.ranked = lambda *given: asked.append(given) or []
        one = type("One", (WikiStore,), {"_wiki_chunk_index": lambda _self, _branch: index})()
        one.db = types.SimpleNamespace(fetchall=lambda _statement, _parameters: [])
        with put(search, "__defaults__", ("b", 7)), put(search, "__kwdefaults__", {"terms": ["w"]}):
            one.search_wiki_chunks([])
        self.assertEqual(asked, [([], 7, ["w"])])
        fewer = {key: None for key in page.__kwdefaults__ if key != "model"}
        for method, given, attribute, value, missing in (
            (search, ([], "b"), "__kwdefaults__", None, "1 required keyword-only .*: 'terms'"),
            (search, ([],), "__defaults__", None, "arguments: 'branch' and 'top_k'"),
            (page, ("b", "p", "t"), "__kwdefaults__", fewer, "keyword-only .*: 'model'"),
        ):
            with put(method, attribute, value), self.assertRaisesRegex(TypeError, missing):
                method(one, *given)

    def test_wrong_arguments_are_refused_in_the_interpreters_words(self) -> None:
        for name, plain in PLAIN.items():
            parameters = list(inspect.signature(plain).parameters.values())[1:]
            names = [one.name for one in parameters]
            positional = sum(one.kind is not one.KEYWORD_ONLY for one in parameters)
            required = [one.name for one in parameters if one.default is one.empty]
            keywords: list[dict[str, Any]] = [{}, {"brnch": 1}, {"self": 1}, {"x": 1, "citaton": 2}]
            keywords += [{key: 1} for key in names] + [{Text(key): 1 for key in required}]
            keywords += [{key: 1 for key in required if key != left} for left in required]
            keywords += [dict.fromkeys([*required, "self"], 1), {"": 0}, dict.fromkeys(names, 1)]
            for count, given in itertools.product(range(positional + 3), keywords):
                errors = []
                for store in (PlainWikiStore, WikiStore):
                    with self.assertRaises((TypeError, AttributeError)) as caught:
                        getattr(store, name)(*[object()] * count, **given)
                    errors.append(str(caught.exception).replace("PlainWikiStore", "WikiStore"))
                self.assertEqual(*errors, (name, count, list(given)))


class Life(StoreTestCase):
    def tearDown(self) -> None:
        sys.modules[NAME] = sys.modules["tessaly.storage"].repository_wiki = repository_wiki

    def import_anew(self) -> Any:
        sys.modules.pop(NAME, None)
        try:
            return importlib.import_module(NAME)
        finally:
            self.tearDown()

    def test_modules_their_classes_and_methods_are_collected(self) -> None:
        for _ in range(10 if self.repeating else 100):
            again = self.import_anew()
            self.assertIsNot(again.WikiStore, WikiStore)
            one = again.WikiStore()
            one.myself, one.cached = one, one._wiki_chunk_indexes
            one.cached()
            method = again.WikiStore.get_wiki_page
            gone = [weakref.ref(each) for each in (again, again.WikiStore, method, one)]
            del again, one, method
        gc.collect()
        self.assertEqual([reference() for reference in gone], [None] * 4)

    def test_importing_asks_for_what_it_binds_and_nothing_else(self) -> None:
        asked: list[str] = []
        real = builtins.__import__

        def guard(name: str, *given: Any) -> Any:
            asked.append(name)
            return real(name, *given)

        with mock.patch.object(builtins, "__import__", guard):
            self.import_anew()
        home = "tessaly.storage."
        modules = "database vector_codec vector_index wiki_chunk_words wiki_rows".split()
        bound = ["json", "logging", "collections.abc", "typing", *(home + one for one in modules)]
        self.assertEqual(asked, bound)

    def test_names_that_a_host_module_takes_away_while_the_store_is_imported(self) -> None:
        class Taking(types.ModuleType):
            def __getattr__(self, name: str) -> Any:
                sys.modules[NAME].__dict__.pop(taken, None)
                return getattr(rows, name)

        rows = sys.modules["tessaly.storage.wiki_rows"]
        sys.modules[rows.__name__] = taking = Taking(rows.__name__)
        self.addCleanup(sys.modules.__setitem__, rows.__name__, rows)
        taking.moved_citation, taking.row_to_wiki_page = rows.moved_citation, rows.row_to_wiki_page
        for taken in ("Database", "WikiChunkIndex", "Any"):
            missing = f"^name '{taken}' is not defined$"
            self.assertRaisesRegex(NameError, missing, self.import_anew)
        taken = "json"
        again = self.import_anew()
        store = again.WikiStore()
        store.db = mock.MagicMock()
        store.upsert_wiki_page("b", "p", "t")
        given = {"content_hash": None, "build_cache": None, "rewrite": str, "moves": {}}
        with self.assertRaisesRegex(NameError, "^name 'json' is not defined$"):
            store.update_wiki_page_citations("b", "p", citations=[], **given)

    @not_leak_checked("the subject runs in a process of its own")
    def test_methods_that_call_each_other_without_end_raise_a_recursion_error(self) -> None:
        code = """
            import threading
            from tessaly.storage.repository_wiki import WikiStore
            class Endless(WikiStore):
                _wiki_chunk_indexes = WikiStore.invalidate_wiki_chunk_index
            def run():
                try:
                    Endless().invalidate_wiki_chunk_index()
                except RecursionError:
                    print("refused", [[]])
            threading.stack_size(1 << 28)  # for builds whose frames are large
            threading.Thread(target=run).start()
        """
        done = subprocess.run(
            [sys.executable, "-c", textwrap.dedent(code)], capture_output=True, text=True
        )
        self.assertEqual((done.returncode, done.stdout), (0, "refused [[]]\n"))


if __name__ == "__main__":
    unittest.main()
