"""What can be seen of the module and the class from outside, and calls with wrong arguments."""

from __future__ import annotations

import copy
import functools
import gc
import importlib
import inspect
import itertools
import logging
import pickle
import pydoc
import subprocess
import sys
import textwrap
import types
import unittest
import weakref
import zlib
from typing import Any
from unittest import mock

from benchmarks.plain_store import PlainWikiStore
from tessaly.storage import repository_wiki
from tessaly.storage.database import Database
from tessaly.storage.repository_wiki import WikiStore
from tests.support import StoreTestCase, describe, not_leak_checked

Text = type("Text", (str,), {})
NAME = "tessaly.storage.repository_wiki"
PLAIN = {name: one for name, one in vars(PlainWikiStore).items() if inspect.isfunction(one)}
DOCUMENTED = 0xCE697EC0  # CRC-32 of the docstrings of the class and its methods


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

    def test_every_method_shows_what_a_python_function_does(self) -> None:
        same = "__defaults__ __kwdefaults__ __name__ __closure__ __type_params__".split()
        for name, plain in PLAIN.items():
            with self.subTest(name):
                method = vars(WikiStore)[name]
                for attribute in same:
                    self.assertEqual(getattr(method, attribute), getattr(plain, attribute))
                self.assertEqual(method.__qualname__, f"WikiStore.{name}")
                self.assertEqual((method.__module__, method.__dict__), (NAME, {}))
                hints = inspect.get_annotations(plain, eval_str=True)
                self.assertEqual(list(method.__annotations__.items()), list(hints.items()))
                signature = inspect.signature(method)
                self.assertEqual(str(signature), str(inspect.signature(plain, eval_str=True)))
                helped = pydoc.render_doc(method, renderer=pydoc.plaintext)
                self.assertIn(f"{name}{signature}", describe("wiki_" + helped))
        texts = [one.__doc__ for one in (WikiStore, *(getattr(WikiStore, name) for name in PLAIN))]
        self.assertEqual(zlib.crc32("\n\n".join(texts).encode()), DOCUMENTED, "\n\n".join(texts))

    def test_methods_bind_as_functions_do(self) -> None:
        class Deriving(WikiStore, dict):
            def get_wiki_state(self, branch: str) -> Any:
                return ("derived", super().get_wiki_state(branch))

        one = Deriving()
        one.db = types.SimpleNamespace(fetchone=lambda _statement, parameters: None)
        self.assertEqual((list(one.__dict__), Deriving.__mro__[1]), (["db"], WikiStore))
        self.assertEqual(one.get_wiki_state("b"), ("derived", None))
        self.assertIsNone(WikiStore.get_wiki_state(one, "b"))
        self.assertIsNone(WikiStore.get_wiki_state(types.SimpleNamespace(db=one.db), "b"))
        self.assertIsNone(functools.partial(WikiStore.get_wiki_state, one)(branch="b"))
        method = one.get_wiki_page
        self.assertIs(type(method), types.MethodType)
        self.assertIs(method.__self__, one)
        self.assertIs(method.__func__, vars(WikiStore)["get_wiki_page"])
        self.assertIs(WikiStore.get_wiki_page, vars(WikiStore)["get_wiki_page"])
        self.assertEqual(method, one.get_wiki_page)
        self.assertIs(WikiStore.get_wiki_page.__get__(None, WikiStore), WikiStore.get_wiki_page)
        self.assertIs(method.__func__.__get__(one, None).__self__, one)
        with self.assertRaisesRegex(AttributeError, "__dict__"):
            WikiStore._wiki_chunk_indexes(object())

    def test_functions_can_be_copied_pickled_referred_to_weakly_and_given_attributes(self) -> None:
        for name in PLAIN:
            method = getattr(WikiStore, name)
            self.assertIs(pickle.loads(pickle.dumps(method)), method)
            self.assertIs(copy.deepcopy(method), method)
            self.assertIs(weakref.ref(method)(), method)
            self.assertTrue(gc.is_tracked(method))
            self.assertIn(name, repr(method))
            method.note = self
            self.assertEqual(method.__dict__, {"note": self})
            del method.note
            self.assertFalse(hasattr(method, "note"))
        for refused in ("__name__", "__code__", "__globals__"):
            self.assertRaises((AttributeError, TypeError), setattr, method, refused, 5)

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
        with put(page, "__doc__", "other"):
            self.assertEqual(inspect.getdoc(WikiStore.upsert_wiki_page), "other")

    def test_wrong_arguments_are_refused_in_the_interpreters_words(self) -> None:
        checked = 0
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
                with self.subTest(name, positional=count, keywords=list(given)):
                    errors = []
                    for store in (PlainWikiStore, WikiStore):
                        with self.assertRaises((TypeError, AttributeError)) as caught:
                            getattr(store, name)(*[object()] * count, **given)
                        text = str(caught.exception).replace("PlainWikiStore", "WikiStore")
                        errors.append((type(caught.exception), text))
                    self.assertEqual(*errors)
                    checked += 1
        self.assertGreater(checked, 1000)


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

    def test_a_method_outlives_its_module(self) -> None:
        method = self.import_anew().WikiStore.invalidate_wiki_chunk_index
        gc.collect()
        self.assertIsNone(method(types.SimpleNamespace(_wiki_chunk_indexes=dict)))

    def test_import_fails_when_the_host_lacks_a_name_or_a_module(self) -> None:
        lacking = "database.Database vector_codec.stored_vectors vector_index.EmbeddingIndex"
        lacking += " wiki_chunk_words.WikiChunkIndex wiki_rows.row_to_wiki_page"
        for home, name in (each.split(".") for each in lacking.split()):
            module = sys.modules[f"tessaly.storage.{home}"]
            value = getattr(module, name)
            missing = rf"^cannot import name '{name}' from '{module.__name__}' \(.*\)$"
            halted = f"^import of {module.__name__} halted; None in sys.modules$"
            try:
                delattr(module, name)
                self.assertRaisesRegex(ImportError, missing, self.import_anew)
                sys.modules[module.__name__] = None
                self.assertRaisesRegex(ImportError, halted, self.import_anew)
            finally:
                sys.modules[module.__name__] = module
                setattr(module, name, value)

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
