"""What a check is, and how one runs: on rows of its own, which are gone afterwards."""

from __future__ import annotations

import textwrap
import traceback
from collections.abc import Callable, Iterator
from dataclasses import dataclass

from tessaly_wiki_check.host import Host


class Broken(Exception):
    """Raised by a check: its text says what was seen instead of what should be."""


@dataclass(frozen=True, slots=True)
class Check:
    """``title`` says what holds, ``advice`` in a sentence what to do when it does not."""

    title: str
    advice: str
    run: Callable[[Host], None]


class CheckList:
    """The checks of one subject, in the order of their definition."""

    def __init__(self) -> None:
        self._checks: list[Check] = []

    def check(self, title: str, advice: str) -> Callable[[Callable[[Host], None]], None]:
        """Makes the decorated function a check; it raises whatever shows that it fails."""

        def add(run: Callable[[Host], None]) -> None:
            self._checks.append(Check(title, advice, run))

        return add

    def __iter__(self) -> Iterator[Check]:
        return iter(self._checks)


def expect(holds: bool, otherwise: str) -> None:
    """Raises ``Broken`` with the text ``otherwise`` unless ``holds``."""
    if not holds:
        raise Broken(otherwise)


def run_check(check: Check, host: Host) -> str | None:
    """Runs a check and clears its rows. None when it holds, else what was seen."""
    try:
        check.run(host)
        seen = None
    except Broken as error:
        seen = str(error)
    except Exception as error:
        seen = what_happened(error)
    try:
        host.clear()
    except Exception as error:
        seen = seen or f"its rows could not be deleted: {what_happened(error)}"
    return seen and textwrap.shorten(seen, 500, placeholder=" ...")


def what_happened(error: BaseException) -> str:
    """The error in one line, with the place where it was raised."""
    text = " ".join("".join(traceback.format_exception_only(error)).split())
    frames = traceback.extract_tb(error.__traceback__)
    if not frames:
        return text
    return f"{text} (in {frames[-1].name}, {frames[-1].filename}:{frames[-1].lineno})"
