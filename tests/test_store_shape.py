"""What can be seen of the module and the class from outside, and calls with wrong arguments."""

from __future__ import annotations

import builtins
import gc
import inspect
import itertools
import logging
import pickle
import sys
import types
import weakref
from typing import Any
from unittest import mock

from benchmarks.plain_store import PlainWikiStore
from tessaly.storage import repository_wiki
from tessaly.storage.repository_wiki import WikiStore
from tests.support import StoreTestCase, import_anew, refresh

Text = type("Text", (str,), {})
NAME = "tessaly.storage.repository_wiki"
PLAIN = {name: one for name, one in vars(PlainWikiStore).items() if inspect.isfunction(one)}
put = mock.patch.object


class Shape(StoreTestCase):
    def test_module_and_class_look_like_python_ones(self) -> None:
        self.assertIs(repository_wiki.logger, logging.getLogger(NAME))
        self.assertRegex(
            repository_wiki.__doc__,
            r"(?s)\A\S[^\n]*wiki store of the repository.*\n\nA mixin of"
            r" :class:`tessaly.storage.repository.Repository`: its methods use the"
            r" repository's\s``db``.\n\Z",
        )
        given = {name: one for name, one in vars(WikiStore).items() if name not in PLAIN}
        names = "__module__ __doc__ __firstlineno__ __annotations__ __static_attributes__".split()
        self.assertEqual(list(given)[:5], names)
        self.assertEqual([given[name] for name in names[::2]], [NAME, 22, ()])
        self.assertEqual(WikiStore.__basicsize__, type("Empty", (), {}).__basicsize__)

    def test_methods_are_functions_of_the_class(self) -> None:
        for name in PLAIN:
            method = vars(WikiStore)[name]
            self.assertEqual((type(method), method.__dict__), (types.FunctionType, {}))
            self.assertIs(pickle.loads(pickle.dumps(method)), method)
        one = type("Deriving", (WikiStore, dict), {})()
        one.db = types.SimpleNamespace(fetchone=lambda _statement, parameters: None)
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
        own, native = method.__code__, cell.cell_contents
        self.assertEqual(types.FunctionType(own, {}, "f", ("b",), (cell,))(store), [])
        self.assertEqual(method(store, **{Text("branch"): "b"}), [])
        number = list(PLAIN).index("get_wiki_pages")
        for code, called, expected in (
            (WikiStore.get_wiki_state.__code__, native, None),
            (one_variable().__code__, native, ("b", native)),
            (own, lambda *given: given, (number, store, "b")),
            (own, "{0}{2}".format, f"{number}b"),
            (own, native, []),
        ):
            method.__code__, cell.cell_contents = code, called
            self.assertEqual(method(store, "b"), expected)
        for given in ((), (0,), ("x", store), (99, store), (-1, store), (10, store, "b", "c")):
            with self.assertRaises((TypeError, OverflowError)):
                native(*given)

    def test_what_sets_the_closure_or_the_code_during_a_call_does_not_end_it(self) -> None:
        def harm(_statement: Any, _parameters: Any) -> list[Any]:
            method.__code__ = WikiStore.get_wiki_page.__code__
            cell.cell_contents = method.__defaults__ = None
            gc.collect()
            return [(1,) * 3, (2,) * 3]

        again = import_anew()
        method = again.WikiStore.get_wiki_pages
        [cell] = method.__closure__
        again.WIKI_PAGE_COLUMNS, again.row_to_wiki_page = "x", tuple
        store = mock.Mock(**{"db.fetchall": harm})
        del again
        self.assertEqual(method(store, "b"), [(1,) * 3, (2,) * 3])

    def test_defaults_that_are_set_are_used(self) -> None:
        def harm(branch: str) -> Any:
            search.__defaults__ = search.__kwdefaults__ = None
            return mock.MagicMock(dimension=0, ranked=lambda *given: asked.append((branch, given)))

        asked: list[Any] = []
        one, search = mock.MagicMock(_wiki_chunk_index=harm), WikiStore.search_wiki_chunks
        with put(search, "__defaults__", ("b", 7)), put(search, "__kwdefaults__", None):
            search.__kwdefaults__ = {"terms": "".join(("wo", "rd"))}  # soon held by the call alone
            self.assertRaises(TypeError, search, one, [])  # of what the index answers, None
        self.assertEqual(asked, [("b", ([], 7, "word"))])
        for given, attribute, missing in (
            (([], "b"), "__kwdefaults__", "1 required keyword-only .*: 'terms'"),
            (([],), "__defaults__", "arguments: 'branch' and 'top_k'"),
        ):
            with put(search, attribute, None), self.assertRaisesRegex(TypeError, missing):
                search(one, *given)

    def test_wrong_arguments_are_refused_in_the_interpreters_words(self) -> None:
        for name, plain in PLAIN.items():
            parameters = list(inspect.signature(plain).parameters.values())[1:]
            names = [one.name for one in parameters]
            required = [one.name for one in parameters if one.default is one.empty]
            keywords: list[dict[str, Any]] = [{}, {"self": 1}, {"": 0}, {"x": 1, "citaton": 2}]
            keywords += [{key: 1} for key in names] + [{Text(key): 1 for key in required}]
            keywords += [{key: 1 for key in required if key != left} for left in required]
            keywords += [dict.fromkeys([*required, "self"], 1), dict.fromkeys(names, 1)]
            for count, given in itertools.product(range(len(required) + 3), keywords):
                errors = []
                for store in (PlainWikiStore, WikiStore):
                    with self.assertRaises((TypeError, AttributeError)) as caught:
                        getattr(store, name)(*[object()] * count, **given)
                    errors.append(str(caught.exception).replace("PlainWikiStore", "WikiStore"))
                self.assertEqual(*errors, (name, count, list(given)))


class Life(StoreTestCase):
    def test_modules_their_classes_and_methods_are_collected(self) -> None:
        for _ in range(10 if self.repeating else 100):
            again = import_anew()
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
        with put(builtins, "__import__", lambda *what: asked.append(what[0]) or real(*what)):
            import_anew()
        host = "database vector_codec vector_index wiki_chunk_words wiki_rows".split()
        bound = "json logging collections.abc typing".split()
        self.assertEqual(asked, bound + [f"tessaly.storage.{name}" for name in host])

    def test_names_that_a_host_module_takes_away_while_the_store_is_imported(self) -> None:
        class Taking(types.ModuleType):
            def __getattr__(self, name: str) -> Any:
                vars(sys.modules[NAME]).pop(taken, None)
                return getattr(rows, name)

        rows = sys.modules["tessaly.storage.wiki_rows"]
        with mock.patch.dict(sys.modules, {rows.__name__: Taking(rows.__name__)}):
            for taken in ("Database", "WikiChunkIndex"):
                self.assertRaisesRegex(NameError, f"^name '{taken}' is not defined$", import_anew)
            taken = "json"
            store = import_anew().WikiStore()
        store.db = mock.MagicMock()
        store.upsert_wiki_page("b", "p", "t")
        with self.assertRaisesRegex(NameError, "^name 'json' is not defined$"):
            store.update_wiki_page_citations("b", "p", rewrite=str, **refresh())
