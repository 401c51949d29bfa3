"""Hosts that reach into the store while it calls them, and objects that do so in their special
methods: the outcome is that of Python code."""

from __future__ import annotations

import gc
import itertools
import operator
import types
import unittest
from collections.abc import Callable
from typing import Any

from benchmarks.plain_store import PlainWikiStore
from tessaly.storage import repository_wiki as native_store
from tests.support import CALLS_OF_THE_STORE, Case, DatabaseTestCase, Host, Named, Run

Act = Callable[[Run], None]
WRITTEN = [{"content": "new", "embedding": [9.0] * 3}]
CACHE = "_wiki_chunk_index_cache"


def containers(value: Any) -> list[Any]:
    """The lists and dicts in a value, outermost first."""
    found = [value] if isinstance(value, list | dict) else []
    inner = list(value.values()) if isinstance(value, dict) else value
    if isinstance(inner, list | tuple):
        for item in inner:
            found += containers(item)
    return found


def to_arguments(change: Callable[[Any], None]) -> Act:
    def act(run: Run) -> None:
        for container in containers([*run.arguments, *run.keywords.values()]):
            change(container)

    return act


def to_answers(change: Callable[[Any], None]) -> Act:
    """Changes the rows and hits that the host gave, and the chunks of the cached index."""

    def act(run: Run) -> None:
        cache = run.store.__dict__.get(CACHE) or {}
        indexed = [one.chunks for one in cache.values() if one]
        for container in containers(run.host.answers + indexed):
            change(container)

    return act


def shorten(container: Any) -> None:
    if isinstance(container, list):
        del container[:1]
    elif container:
        del container[next(iter(container))]


def grow(container: Any) -> None:
    if isinstance(container, list) and container and len(container) < 9:
        container.append(container[0])
    elif isinstance(container, dict):
        container["more"] = "grown"


def spoil(container: Any) -> None:
    """Puts a fresh object in every place, so that the old ones are freed."""
    for key in range(len(container)) if isinstance(container, list) else list(container):
        container[key] = [object()] * 3


REBOUND: dict[str, Callable[[str], Any]] = {  # the rest stay what they were, and say so
    "WIKI_PAGE_COLUMNS": lambda old: old.replace("id, branch", "branch, id"),
    "json": lambda _old: types.SimpleNamespace(dumps=lambda value: f"<{value}>", loads=list),
    "logger": lambda _old: None,
}


def rebind(name: str) -> Act:
    def act(run: Run) -> None:
        names = vars(run.host.module)
        again = REBOUND.get(name, lambda old: run.host.reported("rebound", old))
        names[name] = again(names[name])

    return act


def delete(name: str) -> Act:
    return lambda run: vars(run.host.module).pop(name, None) and None


NAMES = (
    "WIKI_PAGE_COLUMNS ChunkWords EmbeddingIndex WikiChunkIndex json logger moved_citation"
    " row_to_wiki_page stored_vectors"
).split()
ACTS: dict[str, Act] = {
    "invalidate": lambda run: run.store.invalidate_wiki_chunk_index(),
    "replace the cache": lambda run: run.store.__dict__.update({CACHE: {"main": None}}),
    "replace the cache by no dict": lambda run: run.store.__dict__.update({CACHE: 5}),
    "delete the cache": lambda run: run.store.__dict__.pop(CACHE, None) and None,
    "empty the instance": lambda run: run.store.__dict__.clear(),
    "replace db": lambda run: setattr(run.store, "db", None),
    "write elsewhere": lambda run: run.store.upsert_wiki_state("main", model="another"),
    "write the same": lambda run: run.store.replace_wiki_chunks(1, "main", WRITTEN, "n"),
    "rebuild": lambda run: run.store._wiki_chunk_index("main"),
    "collect": lambda run: gc.collect(1) and None,
    "change the class": lambda run: setattr(run.store, "__class__", Named),
    "empty arguments": to_arguments(lambda container: container.clear()),
    "shorten arguments": to_arguments(shorten),
    "grow arguments": to_arguments(grow),
    "spoil arguments": to_arguments(spoil),
    "empty answers": to_answers(lambda container: container.clear()),
    "shorten answers": to_answers(shorten),
    "grow answers": to_answers(grow),
    "spoil answers": to_answers(spoil),
    **{f"rebind {name}": rebind(name) for name in NAMES},
    **{f"delete {name}": delete(name) for name in NAMES},
}


def acts_for(method: str, *given: Any) -> list[str]:
    """The acts that can make a difference to a call."""
    steps = (method, "_wiki_chunk_index") if method == "search_wiki_chunks" else (method,)
    read = {name for step in steps for name in vars(PlainWikiStore)[step].__code__.co_names}
    mutable = any(map(containers, (given[0], [*given[1].values()])))
    acts = [what for what in ACTS if mutable or not what.endswith("arguments")]
    return [what for what in acts if what.split()[-1] in read or what.split()[-1] not in NAMES]


class Reentry(DatabaseTestCase):
    def setUp(self) -> None:
        super().setUp()
        gc.freeze()  # what was there before need not be looked through by every collection
        self.addCleanup(gc.unfreeze)

    def test_any_act_at_any_host_call_has_the_outcome_that_python_code_has(self) -> None:
        for case in CALLS_OF_THE_STORE:
            calls = len(Run(native_store, self.database, case).go().host.calls)
            for what in acts_for(*case[0]):
                for at in range(1 if self.repeating else calls + 1):  # 0: at every call
                    with self.subTest(case[0][0], act=what, at=at):
                        self.act_at(case, ACTS[what], at)

    def act_at(self, case: Any, act: Act, at: int) -> None:
        def interfere(run: Run, number: int, _name: str) -> None:
            if at in (0, number) and number < 60:
                act(run)

        rows: Any = {"row_type": list if at % 2 else tuple}
        self.same_outcome(case, interfere, lambda run: vars(run.host).update(rows))


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


if __name__ == "__main__":
    unittest.main()
