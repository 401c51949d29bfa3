"""Hosts that reach into the store while it calls them, and objects that do so in their special
methods: the outcome is that of Python code."""

from __future__ import annotations

import functools
import gc
import itertools
import operator
from collections import OrderedDict
from collections.abc import Callable
from typing import Any

from tests.support import CACHE, CALLS_OF_THE_STORE, Act, DatabaseTestCase, Run

WRITTEN = [{"content": "new", "embedding": [9.0] * 3}]
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
    cache = vars(run.store).get(CACHE) or {}
    return run.answers + [one.chunks for one in cache.values() if one]


ACTS: dict[str, Act] = {
    "invalidate": lambda run: run.store.invalidate_wiki_chunk_index(),
    "replace the cache": lambda run: vars(run.store).update({CACHE: OrderedDict(main=None)}),
    "empty the instance": lambda run: vars(run.store).clear(),
    "write the same": lambda run: run.store.replace_wiki_chunks(1, "main", WRITTEN, "n"),
    "rebuild": lambda run: run.store._wiki_chunk_index("main"),
    "collect": lambda run: gc.collect(1),
    "change the class": lambda run: setattr(run.store, "__class__", type("Other", (), {})),
    "delete the names": lambda run: [vars(run.module).pop(one, 0) for one in NAMES.split()],
}
for change, those in itertools.product((empty, grow, spoil), (arguments, answers)):
    ACTS[f"{change.__name__} {those.__name__}"] = lambda run, change=change, those=those: [
        change(container) for container in containers(those(run))
    ]


class Reentry(DatabaseTestCase):
    def test_any_act_at_any_host_call_has_the_outcome_that_python_code_has(self) -> None:
        most = 1 if self.repeating else None
        for case, (what, act) in itertools.product(CALLS_OF_THE_STORE, ACTS.items()):
            with self.subTest(case[0][0], act=what):
                often = {"row_type": lambda _run, row: list(row)}
                self.same_outcome(case, lambda run: run.number < 60 and act(run), **often)
                self.at_each_host_call(case, act, most=most)


class Biting:
    """A value whose special methods are calls of the host, which may do harm at each of them."""

    def __init__(self, run: Run, value: Any) -> None:
        self.run = run
        self.value = value

    def __hash__(self) -> int:
        return hash(self.value)

    def bite(self, special: str, answer: Callable[..., Any], *given: Any) -> Any:
        return self.run.report(special, answer, self.value, *given)


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
    "replace": str.replace,
}.items():
    setattr(Biting, special, functools.partialmethod(Biting.bite, special, answer))


def cell(run: Run, value: Any) -> Any:
    return value if isinstance(value, bytes) else Biting(run, value)


def cells(run: Run, row: Any) -> Any:
    return tuple(cell(run, value) for value in row)


def argument(run: Run, value: Any) -> Any:
    texts = isinstance(value, list) and value and isinstance(value[0], str)
    return [cell(run, each) for each in value] if texts else cell(run, value)


def stop(_run: Run) -> None:
    raise StopIteration("bitten")


class Bites(DatabaseTestCase):
    """Rows, hits, generations and arguments whose special methods fail, or empty what is read."""

    def test_biting_objects_in_every_place(self) -> None:
        harm = ("empty answers", "empty arguments", "empty the instance", "collect")
        acts = itertools.cycle(ACTS[what] for what in harm)
        most = 1 if self.repeating else None
        ways: Any = [{"row_type": cell}, {"row_type": cells, "argument_type": argument}]
        for case, way in itertools.product(CALLS_OF_THE_STORE, ways):
            self.same_outcome(case, cell_type=cell, **way)
            for act in (stop, next(acts)):
                self.at_each_host_call(case, act, most=most, cell_type=cell, **way)
