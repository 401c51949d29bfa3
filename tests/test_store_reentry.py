"""Hosts that reach into the store while it calls them, and objects that do so in their special
methods: the outcome is that of Python code."""

from __future__ import annotations

import gc
import itertools
import operator
import unittest
from collections import OrderedDict
from collections.abc import Callable
from typing import Any

from tessaly.storage import repository_wiki as native_store
from tests.support import CALLS_OF_THE_STORE, Case, DatabaseTestCase, Host, Run

WRITTEN = [{"content": "new", "embedding": [9.0] * 3}]
CACHE = "_wiki_chunk_index_cache"
NAMES = "WIKI_PAGE_COLUMNS ChunkWords EmbeddingIndex WikiChunkIndex json logger moved_citation"
NAMES += " row_to_wiki_page stored_vectors"


def containers(value: Any) -> list[Any]:
    """The lists and dicts in a value, outermost first."""
    found = [value] if isinstance(value, list | dict) else []
    inner = list(value.values()) if isinstance(value, dict) else value
    if isinstance(inner, list | tuple):
        for item in inner:
            found += containers(item)
    return found


def empty(container: Any) -> None:
    container.clear()


def grow(container: Any) -> None:
    if isinstance(container, dict):
        container["more"] = "grown"
    elif container and len(container) < 9:
        container.append(container[0])


def spoil(container: Any) -> None:
    """Puts a fresh object in every place, so that the old ones are freed."""
    for key in range(len(container)) if isinstance(container, list) else list(container):
        container[key] = [object()] * 3


def arguments(run: Run) -> Any:
    return [*run.arguments, *run.keywords.values()]


def answers(run: Run) -> Any:
    """The rows and hits that the host gave, and the chunks of the cached index."""
    cache = run.store.__dict__.get(CACHE) or {}
    return run.host.answers + [one.chunks for one in cache.values() if one]


ACTS: dict[str, Callable[[Run], Any]] = {
    "invalidate": lambda run: run.store.invalidate_wiki_chunk_index(),
    "replace the cache": lambda run: vars(run.store).update({CACHE: OrderedDict(main=None)}),
    "empty the instance": lambda run: vars(run.store).clear(),
    "write the same": lambda run: run.store.replace_wiki_chunks(1, "main", WRITTEN, "n"),
    "rebuild": lambda run: run.store._wiki_chunk_index("main"),
    "collect": lambda run: gc.collect(1),
    "change the class": lambda run: setattr(run.store, "__class__", type("Other", (), {})),
    "delete the names": lambda run: [vars(run.host.module).pop(one, 0) for one in NAMES.split()],
}
for change, those in itertools.product((empty, grow, spoil), (arguments, answers)):
    ACTS[f"{change.__name__} {those.__name__}"] = lambda run, change=change, those=those: [
        change(container) for container in containers(those(run))
    ]


class Reentry(DatabaseTestCase):
    def setUp(self) -> None:
        super().setUp()
        gc.freeze()  # what was there before need not be looked through by every collection
        self.addCleanup(gc.unfreeze)

    def test_any_act_at_any_host_call_has_the_outcome_that_python_code_has(self) -> None:
        for case, (what, act) in itertools.product(CALLS_OF_THE_STORE, ACTS.items()):
            calls = len(Run(native_store, self.database, case).go().host.calls)
            for at in range(1 if self.repeating else calls + 1):  # 0: at every call

                def interfere(run: Run, number: int, _name: str) -> None:
                    if at in (0, number) and number < 60:
                        act(run)

                with self.subTest(case[0][0], act=what, at=at):
                    self.same_outcome(case, interfere, row_type=list if at % 2 else tuple)


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


def stop(_run: Run) -> None:
    raise StopIteration("bitten")


class Bites(DatabaseTestCase):
    """Rows, hits, generations and arguments whose special methods fail, or empty what is read."""

    def test_biting_objects_in_every_place(self) -> None:
        draw = self.random("bites")
        harm = ("empty answers", "empty arguments", "empty the instance", "collect")
        ways = ((True, False), (False, False), (True, True))
        for case, (cells, given) in itertools.product(CALLS_OF_THE_STORE, ways):
            for at in itertools.count(1):
                for act in (stop, ACTS[draw.choice(harm)]):
                    with self.subTest(case[0][0], cells=cells, given=given, at=at):
                        run = self.bitten(case, act, at, cells, given)
                if self.repeating or at > len(run.host.calls):  # the act was not reached
                    break

    def bitten(self, case: Case, act: Any, at: int, cells: bool, given: bool) -> Run:
        """A run with biting rows, or cells of rows, and perhaps arguments; the act at one call."""

        def prepare(run: Run) -> None:
            def biting(value: Any) -> Any:
                return value if isinstance(value, bytes) else Biting(run.host, value)

            def argument(value: Any) -> Any:
                paths = isinstance(value, list) and value and isinstance(value[0], str)
                return [Path(run.host, each) for each in value] if paths else biting(value)

            run.host.cell_type = biting
            run.host.row_type = (lambda row: tuple(map(biting, row))) if cells else biting
            if given:
                run.arguments = tuple(map(argument, run.arguments))

        def interfere(run: Run, number: int, _name: str) -> None:
            if number == at:
                act(run)

        return self.same_outcome(case, interfere, prepare)


if __name__ == "__main__":
    unittest.main()
