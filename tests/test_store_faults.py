"""A fault at every call of the host: the very error comes out, and nothing is stored."""

from __future__ import annotations

import traceback
import unittest
import unittest.mock
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from tessaly.storage import repository_wiki as native_store
from tests.support import CALLS_OF_THE_STORE, DatabaseTestCase, Run, tables


TABLE = Path(__file__).parent.parent.joinpath("storage/wiki_store.h").read_text().splitlines()


class Fault(Exception):
    """What the host fails with."""


def raising(at: int, error: BaseException) -> Any:
    def act(_run: Run, number: int, _name: str) -> None:
        if number == at:
            raise error

    return act


class Faults(DatabaseTestCase):
    def cases(self) -> list[tuple[Any, list[str]]]:
        """Every typical call with the names of the host calls that it makes."""
        return [
            (case, [call[0] for call in Run(native_store, self.database, case).go().host.calls])
            for case in CALLS_OF_THE_STORE
        ]

    def in_blocks(self) -> Iterator[tuple[Any, int]]:
        """Every typical call that opens a transaction, with each host call within the block."""
        for case, names in self.cases():
            if "__exit__" in names:
                for at in range(names.index("__enter__") + 2, names.index("__exit__") + 1):
                    with self.subTest(case[0][0], at=at):
                        yield case, at

    def test_an_error_of_any_host_call_comes_out_unchanged_and_undoes_the_call(self) -> None:
        for case, names in self.cases():
            for at, name in enumerate(names, 1):
                for error in (Fault(case, at), KeyboardInterrupt(at)):
                    with self.subTest(case[0][0], host_call=name, at=at):
                        self.fail_once(case, names, at, error)

    def fail_once(self, case: Any, names: list[str], at: int, error: BaseException) -> None:
        arguments = error.args
        self.same_outcome(case, raising(at, type(error)(*arguments)))
        run = Run(native_store, self.database, case)
        before = tables(self.database)
        run.go(raising(at, error))
        self.assertIs(run.error, error)
        self.assertEqual((error.args, error.__context__, error.__cause__), (arguments, None, None))
        self.assertEqual(tables(self.database), before)
        exit_at = names.index("__exit__") + 1 if "__exit__" in names else 0
        in_block = exit_at > 0 and names.index("__enter__") + 1 < at <= exit_at
        if run.cached is not None and (in_block or not exit_at):
            self.assertTrue(run.kept, "the cached index went, though nothing was stored")
        if in_block and at < exit_at:
            [(kind, value, traceback, handled)] = run.host.exit_saw
            self.assertIs(kind, type(error))
            self.assertIs(value, error)
            self.assertIs(handled, error)
            self.assertIsNotNone(traceback)
        self.traced(run, error)

    def traced(self, run: Run, error: BaseException) -> None:
        """An entry of each native method that the error went through, right above the caller's."""
        entries = traceback.extract_tb(error.__traceback__)
        native = [entry for entry in entries if entry.filename == "storage/wiki_store.h"]
        inner = ["_wiki_chunk_index"] if run.method == "search_wiki_chunks" else []
        self.assertIn([entry.name for entry in native], ([run.method], [run.method, *inner]))
        self.assertEqual(entries[1].name, run.method)
        for entry in native:
            self.assertIn(f"({entry.name},", TABLE[entry.lineno - 1])

    def test_an_exit_that_swallows_lets_the_method_carry_on(self) -> None:
        unbound = "cannot access local variable 'removed' where it is not associated with a value"
        counts = {"replace_wiki_chunks": 2, "update_wiki_chunk_embeddings": 1}
        for case, at in self.in_blocks():
            run = self.same_outcome(
                case, raising(at, Fault()), lambda run: vars(run.host).update(exit_swallows=True)
            )
            if run.method == "delete_wiki_page":
                self.assertIsInstance(run.error, UnboundLocalError)
                self.assertEqual(str(run.error), unbound)
            else:
                at_list = counts.get(run.method)
                self.assertEqual(run.result, at_list and len(case[0][1][at_list]))
            drops = run.method in counts or run.method[:6] in ("delete", "update")
            self.assertEqual(run.kept, run.cached is None or not drops)

    def test_an_exit_that_raises_has_its_error_chained_to_the_body_s(self) -> None:
        for case, at in self.in_blocks():
            body = Fault("body")
            run = self.same_outcome(
                case,
                raising(at, body),
                lambda run: vars(run.host).update(exit_raises=KeyError("exit")),
            )
            self.assertIs(run.error, run.host.exit_raises)
            self.assertIs(run.error.__context__, body)
            self.assertIsNone(body.__context__)
            self.assertTrue(run.kept)

    def test_what_is_no_context_manager_is_refused_as_a_with_statement_does(self) -> None:
        class Leaves:
            def __exit__(self, *_error: object) -> None: ...

        class Unbound(Leaves):
            __enter__ = staticmethod(lambda: None)
            __exit__ = None

        bump = (("bump_wiki_changed", ("b", 1), {}), False)
        for manager in (None, Leaves(), Unbound()):
            db = type("Db", (), {"transaction": lambda _self: manager})()
            run = self.same_outcome(bump, prepare=lambda run: setattr(run.store, "db", db))
            self.assertIsInstance(run.error, TypeError)

    def test_the_exit_is_the_one_that_the_type_has_once_the_block_is_entered(self) -> None:
        class Enters:
            def __enter__(self) -> Any:
                entered.append(self)
                self.__exit__ = None  # not looked at: it is the object's own
                return unittest.mock.MagicMock()

        class Late(Enters):
            def __enter__(self) -> Any:
                type(self).__exit__ = lambda *error: entered.append(error)
                return super().__enter__()

            def __exit__(self, *_error: object) -> None:
                raise AssertionError("looked up before the block was entered")

        entered: list[Any] = []
        store = native_store.WikiStore()
        store.db = unittest.mock.Mock(**{"transaction.side_effect": [late := Late(), Enters()]})
        store.upsert_wiki_state("b")
        self.assertEqual(entered, [late, (late, None, None, None)])
        with self.assertRaisesRegex(TypeError, "^'Enters' object .* \\(missed __exit__ method\\)$"):
            store.upsert_wiki_state("b")
        self.assertEqual(len(entered), 3)


if __name__ == "__main__":
    unittest.main()
