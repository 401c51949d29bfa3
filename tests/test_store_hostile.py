"""Data and objects made to do harm: the outcome is plain Python's, and the tables stay sound."""

from __future__ import annotations

import gc
import itertools
import json
import logging
import operator
import random
import types
import unittest
import weakref
from collections.abc import Callable
from typing import Any

from tessaly.storage import repository_wiki as native_store
from tests.support import CALLS_OF_THE_STORE, Case, DatabaseTestCase, Host, Run, StoreTestCase
from tests.test_store_json import mutated, random_text
from tests.test_store_reentry import ACTS

NASTY = ["'); DROP TABLE wiki_pages; --", 'a" OR 1=1 --', "nul\0inside", "\ud800", "%s%n{0}", "*"]
NASTY += ["NEAR(a b", "AND", 'heading:"x', "-", "?", "\\", "\U0010ffff", "", "_wiki_chunk_index"]
ODD = (None, 5, 2.5, "ab", b"x", [], [{}], [(1,)], [(1, [1.0], 3)], ("x",) * 70)
COLUMNS = ["wiki_pages SET source_files", "wiki_pages SET title", "wiki_chunks SET citations"]
COLUMNS += [f"wiki_chunks SET {column}" for column in ("heading", "content", "embedding")]


def nasty(draw: random.Random) -> str:
    if draw.random() < 0.01:
        return draw.choice("aé😀 ") * 1_000_000
    return draw.choice((draw.choice(NASTY), random_text(draw)))


def spoiled(draw: random.Random, value: Any) -> Any:
    """The value with some of its parts made nasty."""
    if draw.random() < 0.07:
        return draw.choice(ODD)
    if isinstance(value, list | tuple):
        return type(value)(spoiled(draw, item) for item in value)
    if isinstance(value, dict):
        return {key: spoiled(draw, item) for key, item in value.items()}
    if draw.random() < 0.7:
        return value
    return nasty(draw) if isinstance(value, str) else draw.choice((2**63, "7", -1, 1e400, b"\0"))


class Hostile(DatabaseTestCase):
    def test_hostile_arguments_and_rows_are_taken_or_refused(self) -> None:
        draw = self.random("hostile")
        logging.disable()  # the host speaks of embeddings that it leaves out
        self.addCleanup(logging.disable, logging.NOTSET)
        for _ in range(self.rounds(3000)):
            (method, positional, keywords), warm = draw.choice(CALLS_OF_THE_STORE)
            corrupt = f"UPDATE {draw.choice(COLUMNS)} = ? WHERE id = ?"
            text = mutated(draw, draw.choice(("[{}]", json.dumps(NASTY))))
            text = draw.choice((nasty(draw), text)).encode("utf-8", "replace").decode()
            stored = draw.choice((text, draw.randbytes(draw.randint(0, 17)), bytes(12), 7, 2.5))
            parameters, in_row = (stored, draw.randint(1, 3)), draw.random() < 0.3
            if not in_row:
                positional = tuple(spoiled(draw, value) for value in positional)
                keywords = {key: spoiled(draw, value) for key, value in keywords.items()}

            def act(_run: Run, number: int, _name: str) -> None:
                if in_row and number == 1:
                    self.database.fetchall(corrupt, parameters)

            self.same_outcome(((method, positional, keywords), warm), act)
            for check, sound in (("integrity_check", [("ok",)]), ("foreign_key_check", [])):
                self.assertEqual(self.database.fetchall(f"PRAGMA {check}"), sound)


class Biting:
    """A value whose special methods are calls of the host, which may do harm at each of them."""

    def __init__(self, host: Host, value: Any) -> None:
        self.host = host
        self.value = value

    def __hash__(self) -> int:
        return hash(self.value)

    def replace(self, *given: str) -> Biting:
        return Biting(self.host, self.host.report("replace", self.value.replace, *given))


class Path(Biting, str):
    """A path that is a str, with a ``replace`` of its own."""

    def __new__(cls, _host: Host, text: str) -> Path:
        return str.__new__(cls, text)


def stop(_run: Run) -> None:
    raise StopIteration("bitten")


def bite(special: str, answer: Callable[..., Any]) -> Callable[..., Any]:
    return lambda self, *given: self.host.report(special, answer, self.value, *given)


for special, answer in {
    "__getitem__": operator.getitem,
    "__iter__": iter,
    "__len__": lambda _value: -1,
    "__bool__": bool,
    "__eq__": operator.eq,
    "__lt__": lambda _value, _other: NotImplemented,
    "__gt__": lambda _value, _other: "odd truth",
    "__round__": lambda value, digits: (value, digits),
    "__int__": int,
    "__str__": str,
}.items():
    setattr(Biting, special, bite(special, answer))


class Bites(DatabaseTestCase):
    """Rows, hits, generations and arguments whose special methods fail, or empty what is read."""

    def test_biting_objects_in_every_place(self) -> None:
        draw = self.random("bites")
        harm = ("empty answers", "empty arguments", "empty the instance", "collect")
        ways = ((True, None), (False, None), (True, Path), (True, Biting))
        for case, (parts, given) in itertools.product(CALLS_OF_THE_STORE, ways):
            for at in itertools.count(1):
                for act in (stop, ACTS[draw.choice(harm)]):
                    with self.subTest(case[0][0], parts=parts, given=given, at=at):
                        run = self.bitten(case, act, at, parts, given)
                if self.repeating or at > len(run.host.calls):  # the act was not reached
                    break

    def bitten(self, case: Case, act: Any, at: int, parts: bool, given: Any) -> Run:
        """A run with biting rows, or cells of rows, and perhaps arguments; the act at one call."""

        def prepare(run: Run) -> None:
            def biting(value: Any) -> Any:
                return value if isinstance(value, bytes) else Biting(run.host, value)

            def argument(value: Any) -> Any:
                listed = isinstance(value, list) and given is Path
                return [Path(run.host, each) for each in value] if listed else biting(value)

            run.host.cell_type = biting
            run.host.row_type = (lambda row: tuple(map(biting, row))) if parts else biting
            if given is not None:
                run.arguments = tuple(map(argument, run.arguments))

        def interfere(run: Run, number: int, _name: str) -> None:
            if number == at:
                act(run)

        return self.same_outcome(case, interfere, prepare)


class Keeping(StoreTestCase):
    def test_parameters_belong_to_whoever_keeps_them(self) -> None:
        Branch = type("Branch", (list,), {})
        kept: list[Any] = []
        keeps = [kept.append, lambda _given: None, lambda given: given[0].append(given)]
        store = native_store.WikiStore()
        for turn in range(30):
            branch = Branch([turn])
            keep = keeps[turn % 3]
            store.db = types.SimpleNamespace(fetchall=lambda _statement, given: keep(given) or [])
            store.wiki_chunk_headings(branch)
            store.wiki_pages_citing(branch, [str(turn)])
            watched = weakref.ref(branch)
            if turn % 3:
                del branch
                gc.collect()
                self.assertIsNone(watched(), "held by a tuple that the collector does not see")
        branches = [[turn] for turn in range(0, 30, 3)]
        found = [((branch,), (branch, branch, str(*branch))) for branch in branches]
        self.assertEqual(kept, [given for pair in found for given in pair])


if __name__ == "__main__":
    unittest.main()
