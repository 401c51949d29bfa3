"""A fault at every call of the host: the very error comes out, and nothing is stored."""

from __future__ import annotations

import traceback
import unittest
from collections.abc import Iterator
from pathlib import Path
from typing import Any
from unittest import mock

from tessaly.storage import repository_wiki as native_store
from tests.support import CALLS_OF_THE_STORE, Act, Case, DatabaseTestCase, Run, fill, tables

TABLE = Path(__file__).parent.parent.joinpath("storage/wiki_store.h").read_text().splitlines()


class Fault(BaseException):
    """What the host fails with."""


def raising(at: int) -> Act:
    def act(run: Run, number: int, _name: str) -> None:
        if number == at:
            run.raised = Fault(at)
            raise run.raised

    return act


class Faults(DatabaseTestCase):
    def host_calls(self) -> Iterator[tuple[Case, int, bool]]:
        """Every host call of every typical call, with whether it is inside a block."""
        for case in CALLS_OF_THE_STORE:
            names = [call[0] for call in Run(native_store, self.database, case).go().host.calls]
            for at, name in enumerate(names, 1):
                inside = "__enter__" in names[: at - 1] and "__exit__" in names[at:]
                with self.subTest(case[0][0], host_call=name, at=at):
                    yield case, at, inside

    def test_an_error_of_any_host_call_comes_out_unchanged_and_undoes_the_call(self) -> None:
        fill(self.database)
        before = tables(self.database)
        for case, at, inside in self.host_calls():
            run = self.same_outcome(case, raising(at))
            error = run.error
            self.assertIs(error, run.raised)
            self.assertEqual((error.args, error.__context__, error.__cause__), ((at,), None, None))
            self.assertEqual(tables(self.database), before)
            if run.cached is not None:
                self.assertTrue(run.kept, "the cached index went, though nothing was stored")
            if inside:
                [(kind, value, frames, handled)] = run.host.exit_saw
                self.assertEqual((kind, value, handled), (Fault, error, error))
                self.assertIsNotNone(frames)
            self.traced(run)

    def traced(self, run: Run) -> None:
        """An entry of each native method that the error went through, right above the caller's."""
        entries = traceback.extract_tb(run.error.__traceback__)
        native = [entry for entry in entries if entry.filename == "storage/wiki_store.h"]
        inner = ["_wiki_chunk_index"] if run.method == "search_wiki_chunks" else []
        self.assertIn([entry.name for entry in native], ([run.method], [run.method, *inner]))
        self.assertEqual(entries[1].name, run.method)
        for entry in native:
            self.assertIn(f"({entry.name},", TABLE[entry.lineno - 1])

    def test_an_exit_that_swallows_lets_the_method_carry_on(self) -> None:
        unbound = "cannot access local variable 'removed' where it is not associated with a value"
        counts = {"replace_wiki_chunks": 2, "update_wiki_chunk_embeddings": 1}
        for case, at, inside in self.host_calls():
            if inside:
                run = self.same_outcome(case, raising(at), exit_swallows=True)
                if run.method == "delete_wiki_page":
                    self.assertIsInstance(run.error, UnboundLocalError)
                    self.assertEqual(str(run.error), unbound)
                else:
                    at_list = counts.get(run.method)
                    self.assertEqual(run.result, at_list and len(case[0][1][at_list]))

    def test_an_exit_that_raises_has_its_error_chained_to_the_body_s(self) -> None:
        for case, at, inside in self.host_calls():
            if inside:
                run = self.same_outcome(case, raising(at), exit_raises=KeyError("exit"))
                self.assertIs(run.error, run.host.exit_raises)
                self.assertIs(run.error.__context__, run.raised)
                self.assertIsNone(run.raised.__context__)

    def test_what_is_no_context_manager_is_refused_as_a_with_statement_does(self) -> None:
        class Leaves:
            def __exit__(self, *_error: object) -> None: ...

        class Unbound(Leaves):
            __enter__ = staticmethod(lambda: None)
            __exit__ = None

        bump = (("bump_wiki_changed", ("b", 1), {}), False)
        for manager in (None, Leaves(), Unbound()):
            db = type("Db", (), {"transaction": lambda _self: manager})()
            run = self.same_outcome(bump, prepare=lambda run: vars(run.store).update(db=db))
            self.assertIsInstance(run.error, TypeError)

    def test_the_exit_is_the_one_that_the_type_has_once_the_block_is_entered(self) -> None:
        class Enters:
            def __enter__(self) -> Any:
                entered.append(self)
                self.__exit__ = None  # not looked at: it is the object's own
                return mock.MagicMock()

        class Late(Enters):
            def __enter__(self) -> Any:
                type(self).__exit__ = lambda *error: entered.append(error)
                return super().__enter__()

            def __exit__(self, *_error: object) -> None:
                raise AssertionError("looked up before the block was entered")

        entered: list[Any] = []
        store = native_store.WikiStore()
        store.db = mock.Mock(**{"transaction.side_effect": [late := Late(), Enters()]})
        store.upsert_wiki_state("b")
        self.assertEqual(entered, [late, (late, None, None, None)])
        with self.assertRaisesRegex(TypeError, "^'Enters' object .* \\(missed __exit__ method\\)$"):
            store.upsert_wiki_state("b")
        self.assertEqual(len(entered), 3)


if __name__ == "__main__":
    unittest.main()
