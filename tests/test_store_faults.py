"""A fault at every call of the host: the very error comes out, and nothing is stored."""

from __future__ import annotations

import os
import unittest
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from tessaly.storage import repository_wiki as native_store
from tests.support import CALLS_OF_THE_STORE, DatabaseTestCase, Run, tables


class Fault(Exception):
    """What the host fails with."""


def raising(at: int, error: BaseException) -> Any:
    def act(_run: Run, number: int, _name: str) -> None:
        if number == at:
            raise error

    return act


def native_frames(error: BaseException) -> list[tuple[str, str, int]]:
    """Method, file and line of each frame of a native method, outermost first."""
    frames = []
    traceback = error.__traceback__
    while traceback is not None:
        code = traceback.tb_frame.f_code
        if code.co_filename.endswith(".cpp"):
            path = code.co_filename.replace(os.sep, "/")
            frames.append((code.co_name, path[path.rindex("storage/") :], traceback.tb_lineno))
        traceback = traceback.tb_next
    return frames


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
        """A frame of each native method that the error went through, right above the caller's."""
        frames = native_frames(error)
        inner = ["_wiki_chunk_index"] if run.method == "search_wiki_chunks" else []
        self.assertIn([name for name, _, _ in frames], ([run.method], [run.method, *inner]))
        traceback = error.__traceback__.tb_next
        self.assertEqual(traceback.tb_frame.f_code.co_name, run.method)
        for _name, path, line in frames:
            lines = (Path(__file__).parent.parent / path).read_text("utf-8").splitlines()
            self.assertIn("(", lines[line - 1], f"{path}:{line} calls nothing")

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
        class Enters:
            def __enter__(self) -> None:
                raise AssertionError("entered, though there is no way out")

        class Leaves:
            def __exit__(self, *_error: object) -> None: ...

        class Unbound(Leaves):
            __enter__ = staticmethod(lambda: None)
            __exit__ = None

        for manager in (None, Enters(), Leaves(), Unbound()):
            db = type("Db", (), {"transaction": lambda _self: manager})()
            bump = (("bump_wiki_changed", ("b", 1), {}), False)
            run = self.same_outcome(bump, prepare=lambda run: setattr(run.store, "db", db))
            self.assertIsInstance(run.error, TypeError)


if __name__ == "__main__":
    unittest.main()
