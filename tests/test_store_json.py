"""The store's short ways through json and round give what the standard functions give."""

from __future__ import annotations

import builtins
import json
import math
import random
import subprocess
import sys
import textwrap
import types
import unittest
from collections.abc import Callable, Iterator
from decimal import Decimal
from fractions import Fraction
from typing import Any
from unittest import mock

from tessaly.storage import repository_wiki
from tests.support import StoreTestCase, not_leak_checked

Text = type("Text", (str,), {})
Whole = type("Whole", (int,), {"__repr__": lambda self: "whole"})
Real = type("Real", (float,), {"__repr__": lambda self: "real"})
Items = type("Items", (list,), {})
Mapping = type("Mapping", (dict,), {"items": lambda self: [("own", 1)]})


class Store(repository_wiki.WikiStore):
    """A store that is its own database, transaction and cursor, and whose index is given."""

    def __init__(self) -> None:
        self.db = self
        self.rows = [(1, "text", "[1]")]
        self.parameters: tuple[Any, ...] = ()

    def execute(self, _statement: Any = None, parameters: tuple[Any, ...] = ()) -> Store:
        if len(parameters) > 2:
            self.parameters = parameters
        return self

    transaction = __enter__ = execute

    def __exit__(self, *_error: object) -> None: ...

    def fetchone(self) -> Any:
        return self.rows[0]

    def fetchall(self, *of_the_database: Any) -> list[Any]:
        return [(1, "p", "t", "r")] if of_the_database else self.rows

    def dumped(self, value: Any) -> str:
        self.upsert_wiki_page("b", "p", "t", citations=value)
        return self.parameters[12]

    def dumped_with_chunk(self, value: Any) -> str:
        chunk = {"content": "", "embedding": [], "citations": value}
        codec = types.SimpleNamespace(encode=bytes)
        with mock.patch.object(repository_wiki, "stored_vectors", lambda _db: codec):
            self.replace_wiki_chunks(1, "b", [chunk], "m")
        return self.parameters[5]

    def searched(self, stored: Any, similarities: list[Any]) -> list[Any]:
        index = types.SimpleNamespace(dimension=0, chunks={1: (1, None, "text", stored)})
        index.ranked = lambda *_: [(1, similarity, None) for similarity in similarities]
        self._wiki_chunk_index = lambda _branch: index
        return self.search_wiki_chunks([], "b")

    def loaded(self, text: Any) -> Any:
        return self.searched(text, [0.0])[0]["citations"]

    def rounded(self, values: list[Any]) -> list[Any]:
        return [hit["similarity"] for hit in self.searched("", values)]


ALPHABETS = ["abc xyz", 'quote"back\\slash/', "".join(map(chr, range(32))) + "\x7f\x80\xa0"]
ALPHABETS += ["äßéÿĀ中文", "\ud800\udbff\udc00\udfff\uffff", "\U00010000😀\U0010ffff"]
EVERY = "".join(map(chr, range(0x900)))


def random_text(draw: random.Random) -> str:
    letters = "".join(draw.choices(ALPHABETS, k=draw.randint(1, 3)))
    return "".join(draw.choices(letters, k=draw.choice((0, 1, 3, 30, 1100))))


def random_number(draw: random.Random) -> int | float:
    whole = draw.choice((-1, 1)) * (2 ** draw.randint(0, 70) + draw.randint(-2, 2))
    odd = draw.choice((0, -0.0, 1e16, 1e22, 1e-7, 5e-324, sys.float_info.max, 10**18, 10**400))
    unsure = draw.choice((math.inf, -math.inf, math.nan))
    return draw.choice((whole, odd, unsure, draw.uniform(-1, 1) * 10 ** draw.randint(-20, 20)))


def random_value(draw: random.Random, depth: int = 0) -> Any:
    kind = draw.randrange(12 if depth < 5 else 6)
    if kind < 6:
        plain = (None, True, False, "", 0)
        return draw.choice((random_text(draw), random_number(draw), draw.choice(plain)))
    items = [random_value(draw, depth + 1) for _ in range(draw.choice((0, 1, 2, 5)))]
    if kind < 8:
        return draw.choice((list, tuple))(items)
    if kind < 11:
        return {random_text(draw): item for item in items}
    odd = [Text("t"), Whole(7), Real(0.5), Items([1]), Mapping(a=2), {1: 2}, {None: 1, True: 2}]
    odd += [{1.5: Real(2)}, {Text("k"): 1}, b"bytes", {3, 4}, {(1, 2): 3}, object, Decimal(1)]
    return draw.choice(odd)


def mutated(draw: random.Random, text: str) -> str:
    pieces = ["", "\ufeff", '"a":', "1" * 25, "0.1" + "2" * 80, *'",:[]{}é \n\x1f\x00\f']
    pieces += "NaN -Infinity null tru - -0 -0.0 01 1. .5 1e 1E+5 1e999 999999999999999999".split()
    pieces += "\\u00G0 ,] ,} \\u00G0 \\u12 \\ud834 \\udd1e \\ud834\\u0041 \\ud834\\ue000".split()
    for _ in range(draw.choice((0, 1, 1, 2, 5))):
        at = draw.randint(0, len(text))
        text = text[:at] + draw.choice(pieces) + text[at + draw.choice((0, 0, 1, 3)) :]
    return text


def awkward_numbers(draw: random.Random) -> Iterator[Any]:
    for scale in (1, 0.1, 1e-3, 10, 1e6, 1e10):
        whole = draw.randint(-(10**5), 10**5)
        near = (whole + draw.choice((0.5, 0, 0.25))) / 10**4 * scale
        yield from (near, math.nextafter(near, math.inf), math.nextafter(near, -math.inf), -near)
    tiny_or_huge = math.ldexp(draw.random(), draw.randint(-1074, 1023)) * draw.choice((-1, 1))
    yield from (draw.uniform(-1, 1), random_number(draw), tiny_or_huge)


def outcome(function: Callable[[Any], Any], value: Any) -> Any:
    """The result to the last sign and type, or the error with all that it says."""
    try:
        result = function(value)
    except Exception as error:
        more = [getattr(error, name, None) for name in ("pos", "lineno", "__notes__")]
        return type(error), str(error), more
    return type(result), repr(result)


class Equality(StoreTestCase):
    def setUp(self) -> None:
        self.store = Store()

    def test_what_is_stored_is_what_dumps_gives(self) -> None:
        draw = self.random("dumps")
        circle: list[Any] = [1]
        circle.append({"again": circle})
        values = [circle, EVERY, {EVERY: "x" * 5000}, "\ud83d\ude00", ["\ud800" * 999]]
        deep: Any = []
        for depth in range(1200):
            deep = [deep] if depth % 2 else {"d": deep}
            if depth in (50, 58, 59, 60, 61, 62, 70, 1199):
                values.append(deep)
        values += [random_value(draw) for _ in range(self.rounds(6000))]
        for value in values:
            expected = outcome(json.dumps, value)
            self.assertEqual(outcome(self.store.dumped_with_chunk, value), expected)
        circle.clear()

    def test_what_a_search_returns_is_what_loads_gives(self) -> None:
        draw = self.random("loads")
        texts: list[Any] = ["\ufeff[]", b"[1]", bytearray(b"{}"), b"\xff", 7, [1], Text("[2]")]
        texts += [json.dumps(EVERY, ensure_ascii=ascii) for ascii in (True, False)]
        texts += [opening * depth for opening in '[{"a":' for depth in (1, 59, 60, 61, 62, 3000)]
        texts += ["[" * depth + "]" * depth for depth in (59, 60, 61, 62, 900)]
        for _ in range(self.rounds(12000)):
            try:
                text = json.dumps(random_value(draw), ensure_ascii=draw.random() < 0.5)
            except TypeError:
                continue
            texts.append(mutated(draw, draw.choice((text, text[: draw.randint(0, 90)]))))
        for text in texts:
            expected = outcome(lambda text: json.loads(text) if text else [], text)
            self.assertEqual(outcome(self.store.loaded, text), expected, text)

    def test_similarities_are_what_round_gives(self) -> None:
        class Rounds:
            def __round__(self, digits: int) -> tuple[str, int]:
                return "rounded", digits

        draw = self.random("round")
        numbers = [value for _ in range(self.rounds(3000)) for value in awkward_numbers(draw)]
        numbers += [half * sign for sign in (1, -1) for half in (5e-5, 1.5e-4, 5.00000000000001e-5)]
        numbers += [0.0, -0.0, math.inf, -math.inf, math.nan, 1e300, 5e-324, -4e-5, 2.5, True, -7]
        numbers += [Real(0.12345), Whole(3), Decimal("0.12345"), Fraction(1, 3), Rounds()]
        for value, found in zip(numbers, self.store.rounded(numbers), strict=True):
            expected = round(value, 4)
            same = (type(found), repr(found)) == (type(expected), repr(expected))
            self.assertTrue(same, f"round({value!r}, 4): {found!r}, not {expected!r}")
        for value in (None, "1", [], 1j):
            expected = outcome(lambda value: round(value, 4), value)
            self.assertEqual(outcome(lambda value: self.store.rounded([value]), value), expected)


class Rebinding(StoreTestCase):
    def test_a_function_that_was_put_in_the_place_of_another_is_called(self) -> None:
        def refresh() -> Any:
            store = Store()
            given = {"citations": [2], "content_hash": "h", "build_cache": None, "moves": {}}
            store.update_wiki_page_citations("b", "p", rewrite=str, **given)
            return store.parameters

        def import_own(name: str, *rest: Any) -> Any:
            return own if name == "json" else old_import(name, *rest)

        own = types.SimpleNamespace(dumps=lambda _value: "own", loads=lambda _text: ["own"])
        encoder, decoder = json.JSONEncoder(), json.JSONDecoder()
        encoder.encode, decoder.decode = own.dumps, own.loads
        old_import = builtins.__import__
        calls: dict[str, Callable[[], Any]] = {
            "page": lambda: Store().dumped([1]),
            "page without": lambda: Store().dumped(None),
            "chunk": lambda: Store().dumped_with_chunk([1]),
            "search": lambda: Store().loaded("[1]"),
            "refresh": refresh,
        }
        put = mock.patch.object
        writers = "page page without chunk"
        table: list[tuple[Any, str]] = [
            (put(json, "dumps", own.dumps), f"{writers} refresh"),
            (put(json, "loads", own.loads), "search refresh"),
            (put(json, "_default_encoder", encoder), f"{writers} refresh"),
            (put(json, "_default_decoder", decoder), "search refresh"),
            (put(repository_wiki, "json", own), "search refresh"),
            (mock.patch.dict(sys.modules, json=own), writers),
            (put(builtins, "__import__", import_own), writers),
        ]
        for number, (patch, seers) in enumerate(table):
            genuine = [str(call()) for call in calls.values()]
            self.assertFalse([text for text in genuine if "own" in text])
            with patch:
                seen = [name for name, call in calls.items() if "own" in str(call())]
            self.assertEqual(" ".join(seen), seers, f"patch {number}")
        for home in (builtins, repository_wiki):
            with put(home, "round", lambda *given: given, create=home is not builtins):
                self.assertEqual(Store().rounded([0.5]), [(0.5, 4)])
        with put(builtins, "__import__", side_effect=ImportError("none")):
            self.assertRaisesRegex(ImportError, "none", calls["page"])
        with mock.patch.dict(sys.modules, json=None):
            self.assertRaisesRegex(ImportError, "import of json halted", calls["chunk"])

    @not_leak_checked("the subject runs in processes of its own")
    def test_json_that_was_changed_before_the_import_is_used_as_it_is(self) -> None:
        for change in CHANGES:
            source = textwrap.dedent(CHANGED).format(change=change)
            done = subprocess.run([sys.executable, "-c", source], capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stderr), (0, ""), change)


CHANGES = [
    "pass",
    "json._default_encoder = json.JSONEncoder(ensure_ascii=False)",
    "json._default_encoder = type('Own', (json.JSONEncoder,), {'encode': repr})()",
    "json._default_decoder = json.JSONDecoder(object_pairs_hook=OrderedDict)",
    "json._default_decoder = json.JSONDecoder(object_hook=lambda d: 'hit' if 'path' in d else d)",
    "json._default_decoder = json.JSONDecoder(parse_int=str)",
    "json.JSONEncoder.encode = lambda self, value: repr(value)",
    "json.JSONDecoder.decode = lambda self, text: [text]",
    "json.dumps.__kwdefaults__['sort_keys'] = True",
    "json.dumps.__kwdefaults__ = json.dumps.__kwdefaults__ | {'indent': 1}",
    "json.loads.__kwdefaults__['parse_int'] = str",
    "json.dumps.__code__ = (lambda obj, **options: str(obj)).__code__",
    "json.loads = lambda text: ['own', text]",
    "json.dumps = eval('lambda value: [1][value == 5:]', vars(json))",
    "del json._default_encoder, json._default_decoder",
    "del json.loads; json.JSONEncoder = None",
    "sys.modules['json'] = types.SimpleNamespace(dumps=repr, loads=lambda text: (text,))",
]
CHANGED = """
    import json, sys, types
    from collections import OrderedDict
    {change}
    from tests.test_store_json import Store, outcome
    json = sys.modules["json"]
    for value in ([], [1], [{{"path": "é", "b": [None, True], "a": 1}}], [1.5], [object]):
        for dumped in (Store().dumped, Store().dumped_with_chunk):
            assert outcome(dumped, value) == outcome(lambda one: json.dumps(one), value), value
    for text in ('[]', '[{{"path": "x", "n": 1}}]', '{{"b": [1], "a": 2}}', '[1.5]', '[', 'é'):
        assert outcome(Store().loaded, text) == outcome(lambda one: json.loads(one), text), text
"""


if __name__ == "__main__":
    unittest.main()
