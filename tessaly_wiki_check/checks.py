"""What a check is, and how the checks run: on rows of their own, none on what failed before it."""

import contextlib
import textwrap
import traceback
from collections.abc import Callable, Iterator
from typing import Any, NamedTuple

from tessaly_wiki_check.host import Host

# What a probe looked at, what it saw and what it should have seen; where this is True, the first
# says what should be so.
Seen = Iterator[tuple[str, Any, Any]]


class Check(NamedTuple):
    """``needs`` names the checks without which the probe would show nothing."""

    name: str
    title: str
    needs: list[str]
    advice: str
    probe: Callable[[Host], Seen]


CHECKS: list[Check] = []  # in the order of their definition


def check(needs: str, advice: str) -> Callable[[Any], None]:
    """Makes the decorated probe a check, by its name, with its docstring as the title."""
    return lambda probe: CHECKS.append(
        Check(probe.__name__, str(probe.__doc__)[:-1], needs.split(), advice, probe)
    )


def outcomes(host: Host) -> Iterator[tuple[Check, str, str]]:
    """Runs the checks: each with "ok", "FAIL" and what was seen, or "skip" and the reason."""
    reasons: dict[str, str] = {}
    for check in CHECKS:
        text = next((reasons[name] for name in check.needs if name in reasons), "")
        word = "skip" if text else "ok"
        if not text and (text := textwrap.shorten(_fault(check, host), 500, placeholder=" ...")):
            word = "FAIL"
        if text:
            reasons[check.name] = text if word == "skip" else f"because of: {check.title}"
        yield check, word, text


def _fault(check: Check, host: Host) -> str:
    text = ""
    host.begin()
    try:
        for what, seen, wanted in check.probe(host):
            if repr(seen) != repr(wanted):  # which tells 1 from True and from 1.0
                instead = f"{what}: {seen!r}, not {wanted!r}"
                text = f"not so: {what}" if wanted is True else instead
                break
    except (Exception, SystemExit) as error:
        text = what_happened(error)
    with contextlib.suppress(Exception):
        if text or raises(host.clear):
            host.renew()  # here, where no traceback holds on to the old connection any more
            host.clear()
    return text


def raises(call: Callable[..., Any], *arguments: Any) -> bool:
    with contextlib.suppress(Exception):
        call(*arguments)
        return False
    return True


def what_happened(error: BaseException) -> str:
    text = " ".join("".join(traceback.format_exception_only(error)).split())
    frames = traceback.extract_tb(error.__traceback__)[-1:]
    return text + "".join(f" (in {at.name}, {at.filename}:{at.lineno})" for at in frames)
