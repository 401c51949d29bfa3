"""The store's short ways through json and round give what the standard functions give."""

from __future__ import annotations

import builtins
import contextlib
import json
import math
import random
import sys
import types
from collections.abc import Callable, Iterator
from decimal import Decimal
from typing import Any
from unittest import mock

from benchmarks import trivial_host
from tests.support import SOAK, StoreTestCase, import_anew

put = mock.patch.object
Text = type("Text", (str,), {})
Whole = type("Whole", (int,), {"__repr__": lambda self: "whole"})
Real = type("Real", (float,), {"__repr__": lambda self: "real"})
Items = type("Items", (list,), {})
Mapping = type("Mapping", (dict,), {"items": lambda self: [("own", 1)]})
Lazy = type("Lazy", (types.ModuleType,), dict.fromkeys(("dumps", "loads"), property(lambda _: repr)))


class Cursor(trivial_host.Cursor):
    def execute(self, statement: str, parameters: tuple[Any, ...]) -> Cursor:
        if len(parameters) > 2:
            self.parameters = parameters
        return self


class Subject:
    """The JSON and the rounding that a module's store does."""

    def __init__(self, module: Any) -> None:
        module.stored_vectors = trivial_host.stored_vectors
        self.cursor = Cursor((1,), [(1, "text", "[1]")])
        self.store = module.WikiStore() if hasattr(module, "WikiStore") else module.PlainWikiStore()
        self.store.db = trivial_host.Database(rows=[(1, "p", "t", "r")])
        self.store.db.block = trivial_host.Transaction(self.cursor)

    def dumped(self, value: Any) -> str:
        self.store.upsert_wiki_page("b", "p", "t", citations=value)
        return self.cursor.parameters[12]

    def dumped_with_chunk(self, value: Any) -> str:
        chunk = {"content": "", "embedding": [], "citations": value}
        self.store.replace_wiki_chunks(1, "b", [chunk], "m")
        return self.cursor.parameters[5]

    def refreshed(self, value: Any) -> Any:
        given = {"content_hash": "h", "build_cache": None, "moves": {}, "rewrite": str}
        self.store.update_wiki_page_citations("b", "p", citations=value, **given)
        return self.cursor.parameters

    def searched(self, stored: Any, similarities: list[Any]) -> list[Any]:
        index = types.SimpleNamespace(dimension=0, chunks={1: (1, None, "text", stored)})
        index.ranked = lambda *_: [(1, similarity, None) for similarity in similarities]
        self.store._wiki_chunk_index = lambda _branch: index
        return self.store.search_wiki_chunks([], "b")

    def loaded(self, text: Any) -> Any:
        return self.searched(text, [0.0])[0]["citations"]

    def rounded(self, values: list[Any]) -> list[Any]:
        return [hit["similarity"] for hit in self.searched("", values)]


EVERY = "".join(map(chr, range(0x180))) + "中\ud800\udbff\udc00\udfff\uffff\U00010000\U0010ffff"
VALUES = [*EVERY, "", EVERY, EVERY[:256], 0.5, None, True, False, 0, [], {}, b"bytes", {1}]
VALUES += [sign * 2**bits + one for bits in (0, 31, 63, 64) for sign in (-1, 1) for one in (-1, 0)]
VALUES += [Text("t"), Whole(7), Items([1]), Mapping(a=2), {1: 2}, {Text("k"): 1}, {EVERY: ["", 1]}]
DOCUMENT = '{"k\\u00e9": [1, -20, "é\\"/"], "": {"a": null}}'
PIECES = ["", "\ufeff", '"a":', "9" * 18, "9" * 19, *'",:[]{}é中 \n\x1f\x00\f']
PIECES += "-0 0.5 01 1. 1e ,] ,} NaN -Infinity null true fals - \\x \\u12 \\u00G0 \\u00AF".split()
PIECES += "\\ud834 \\udd1e \\ud834\\udd1e \\ud834\\u0041 \\ud834\\ue000 \\ud834\\n".split()


def awkward_numbers(draw: random.Random) -> Iterator[float]:
    for scale in (1, 0.1, 1e-3, 1e6, 1e10):
        near = (draw.randint(-(10**5), 10**5) + draw.choice((0.5, 0, 0.25))) / 10**4 * scale
        yield from (near, math.nextafter(near, math.inf), math.nextafter(near, -math.inf))
    yield math.ldexp(draw.random(), draw.randint(-1074, 1023)) * draw.choice((-1, 1))


def outcome(function: Callable[[Any], Any], value: Any) -> Any:
    """The result to the last sign and type, or the error with all that it says."""
    try:
        result = function(value)
    except Exception as error:
        return type(error), str(error), getattr(error, "pos", None)
    return type(result), repr(result)


class Equality(StoreTestCase):
    def setUp(self) -> None:
        self.store = Subject(import_anew())

    def test_what_is_stored_is_what_dumps_gives(self) -> None:
        circle: list[Any] = [1]
        circle.append({"again": circle})
        values = [circle, *VALUES, *([value, {"k": value}, (1, value)] for value in VALUES)]
        for size in range(990, 1030):  # around what is kept on the stack
            values += [["x" * size, value] for value in (-(2**62), "é\U00010000", None, {"k": []})]
        values += [json.loads('[{"d":' * depth + "1" + "}]" * depth) for depth in (29, 30, 31, 200)]
        for value in values:
            expected = outcome(json.dumps, value)
            self.assertEqual(outcome(self.store.dumped_with_chunk, value), expected)

    def test_what_a_search_returns_is_what_loads_gives(self) -> None:
        texts: list[Any] = [b"[1]", bytearray(b"{}"), b"\xff", 7, [1], Text("[2]")]
        texts += [json.dumps(EVERY, ensure_ascii=ascii) for ascii in (True, False)]
        texts += [opening * depth for opening in '[{"a":' for depth in (1, 60, 61, 3000)]
        texts += ["[" * depth + "]" * depth for depth in (60, 61, 62, 10**5)]
        texts += [json.dumps({"k" * size: EVERY[:size]}) for size in (23, 24, 25, 200)]
        texts += [json.dumps({"ab" + one: 0 for one in EVERY[35:127]} | {"ab": 1})]
        for at in range(0, len(DOCUMENT) + 1, 9 if self.repeating else 1):
            before, after = DOCUMENT[:at], DOCUMENT[at:]
            texts += [before, *(before + piece + after[cut:] for piece in PIECES for cut in (0, 1))]
        for text in texts:
            expected = outcome(lambda text: json.loads(text) if text else [], text)
            self.assertEqual(outcome(self.store.loaded, text), expected, text)

    def test_similarities_are_what_round_gives(self) -> None:
        draw = random.Random(0)
        numbers: list[Any] = [0.0, -0.0, math.inf, -math.inf, math.nan, 1e300, 5e-324, -4e-5, 1e11]
        numbers += [half * sign for sign in (1, -1) for half in (5e-5, 1.5e-4, 5.00000000000001e-5)]
        for _ in range(100 if self.repeating else 40_000 if SOAK else 2000):
            numbers += awkward_numbers(draw)
        numbers += [True, -7, Real(0.12345), Whole(3), Decimal("0.12345")]
        for value, found in zip(numbers, self.store.rounded(numbers), strict=True):
            expected = round(value, 4)
            same = (type(found), repr(found)) == (type(expected), repr(expected))
            self.assertTrue(same, f"round({value!r}, 4): {found!r}, not {expected!r}")
        expected = outcome(lambda value: round(value, 4), "1")
        self.assertEqual(outcome(lambda value: self.store.rounded([value]), "1"), expected)


def own_encode(_encoder: Any, value: Any) -> str:
    return "own" if value == [1] else json.JSONEncoder().encode(value)


OWN = "types.SimpleNamespace(dumps=lambda value: repr(value), loads=lambda text: (text,))"
CHANGES = [
    "json.dumps = repr",
    "json.loads = lambda text, old=json.loads: 'own' if 'x' in text else old(text)",
    "json._default_encoder = json.JSONEncoder(ensure_ascii=False)",
    "json._default_encoder = type('Own', (json.JSONEncoder,), {'encode': own_encode})()",
    "json._default_decoder = json.JSONDecoder(object_hook=lambda one: one.get('path', one))",
    "json._default_decoder = json.JSONDecoder(object_pairs_hook=lambda one: dict(one[:3]))",
    "json._default_decoder = json.JSONDecoder(parse_int=str)",
    "del json._default_encoder, json._default_decoder",
    "del json.loads; json.JSONEncoder = None",
    f"sys.modules['json'] = {OWN}",
    f"builtins.__import__ = lambda name, *_, o=__import__: {OWN} if 'js' in name else o(name, *_)",
    "builtins.round = lambda *given: given",
]
LAZY = "native.json = plain.json = Lazy('json'); vars(native.json).update(vars(json))"
AFTER_THE_IMPORT = [f"native.json = plain.json = {OWN}", LAZY, "native.round = plain.round = max"]


class Rebinding(StoreTestCase):
    def test_functions_that_were_put_in_the_place_of_others_are_called(self) -> None:
        for change in ["json.dumps.__kwdefaults__['sort_keys'] = True", *CHANGES]:
            self.same_results(change, "")
        for change in CHANGES + AFTER_THE_IMPORT:
            self.same_results("", change)

    def same_results(self, before: str, after: str) -> None:
        same = [put(builtins, name, getattr(builtins, name)) for name in ("__import__", "round")]
        same += map(mock.patch.dict, (sys.modules, vars(json), json.dumps.__kwdefaults__))
        with contextlib.ExitStack() as stack:
            for patch in same:
                stack.enter_context(patch)
            exec(before)
            plain, native = import_anew("benchmarks.plain_store"), import_anew()
            exec(after)
            self.assertEqual(self.results(native), self.results(plain), before + after)

    def results(self, module: Any) -> list[Any]:
        one = Subject(module)
        found = [outcome(one.rounded, [0.56789, 2])]
        for value in (None, [1], [{"path": "é", "b": [None, True], "a": {"x": 1}}], [1.5]):
            found += [outcome(f, value) for f in (one.dumped, one.dumped_with_chunk, one.refreshed)]
        texts = ("[]", '[{"b": 1, "path": 2, "a": 3, "x": 4}]', "[1.5]", "[")
        return found + [outcome(one.loaded, text) for text in texts]
