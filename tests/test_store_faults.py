"""A fault at every call of the host: the very error comes out, and nothing is stored."""

from __future__ import annotations

import traceback
from collections.abc import Callable
from pathlib import Path
from typing import Any
from unittest import mock

from tests.support import CALLS_OF_THE_STORE, STORES, DatabaseTestCase, Run, fill, tables

TABLE = Path(__file__).parent.parent.joinpath("storage/wiki_store.h").read_text().splitlines()


class Fault(BaseException):
    """What the host fails with."""


def fail(run: Run) -> None:
    run.raised = Fault()
    raise run.raised


class Faults(DatabaseTestCase):
    def check_faults(self, check: Callable[[Run], None], **given: Any) -> None:
        for case in CALLS_OF_THE_STORE:
            self.at_each_host_call(case, fail, check, **given)

    def test_an_error_of_any_host_call_comes_out_unchanged_and_undoes_the_call(self) -> None:
        def check(run: Run) -> None:
            error: Any = run.error
            self.assertIs(error, run.raised)
            self.assertEqual((error.args, error.__context__, error.__cause__), ((), None, None))
            self.assertEqual(tables(self.database), before)
            if run.cached is not None:
                self.assertIs(run.entry(), run.cached, "dropped, though nothing was stored")
            if run.exit_saw[0]:
                *given, frames, handled = run.exit_saw
                self.assertEqual((given, handled), ([Fault, error], error))
                self.assertIsNotNone(frames)
            # An entry of each native method that it went through, right above the caller's.
            _caller, entry, *entries = traceback.extract_tb(error.__traceback__)
            native = [entry] + [one for one in entries if one.filename == entry.filename]
            inner = ["_wiki_chunk_index"] if run.method == "search_wiki_chunks" else []
            self.assertIn([one.name for one in native], ([run.method], [run.method, *inner]))
            for one in native:
                row = [line for line in TABLE[: one.lineno] if "TESSALY_METHOD(" in line][-1]
                self.assertIn(f"wiki_store.h    TESSALY_METHOD({one.name},", one.filename + row)

        fill(self.database)
        before = tables(self.database)
        self.check_faults(check)

    def test_an_exit_that_swallows_lets_the_method_carry_on(self) -> None:
        def check(run: Run) -> None:
            if run.exit_saw[0] and run.method == "delete_wiki_page":
                self.assertIsInstance(run.error, UnboundLocalError)
                self.assertRegex(str(run.error), "^cannot access local variable 'removed' where it")
            elif run.exit_saw[0]:
                self.assertEqual((run.error, run.result), (None, counts.get(run.method)))

        counts = {"replace_wiki_chunks": 3, "update_wiki_chunk_embeddings": 2}
        self.check_faults(check, exit_answer=lambda: True)

    def test_an_exit_that_raises_has_its_error_chained_to_the_body_s(self) -> None:
        def check(run: Run) -> None:
            if run.exit_saw[0]:
                self.assertIsInstance(run.error, KeyError)
                self.assertIs(run.error.__context__, run.raised)
                self.assertIsNone(run.raised.__context__)

        self.check_faults(check, exit_answer={}.popitem)

    def test_what_is_no_context_manager_is_refused_as_a_with_statement_does(self) -> None:
        class Leaves:
            def __exit__(self, *_error: object) -> None: ...

        class Unbound(Leaves):
            __enter__ = staticmethod(lambda: None)
            __exit__ = None

        for manager in (None, Leaves(), Unbound()):
            errors = []
            for store in STORES:
                one = mock.Mock(**{"db.transaction.return_value": manager})
                with self.assertRaises(TypeError) as caught:
                    store.bump_wiki_changed(one, "b", 1)
                errors.append(str(caught.exception))
            self.assertEqual(*errors)

    def test_the_exit_is_the_one_that_the_type_has_once_the_block_is_entered(self) -> None:
        class Enters:
            def __enter__(self) -> Any:
                self.__exit__ = exits.append  # not looked at: it is the object's own
                return mock.MagicMock()

        class Late(Enters):
            def __enter__(self) -> Any:
                Late.__exit__ = lambda *given: exits.append(given)
                return super().__enter__()

        exits: list[Any] = []
        one = mock.Mock(**{"db.transaction.side_effect": [late := Late(), Enters()]})
        STORES[1].upsert_wiki_state(one, "b")
        with self.assertRaisesRegex(TypeError, "^'Enters' object .* \\(missed __exit__ method\\)$"):
            STORES[1].upsert_wiki_state(one, "b")
        self.assertEqual(exits, [(late, None, None, None)])
