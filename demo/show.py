"""What a terminal shows: widths, colour, and a progress bar that a pipe never sees."""

import os
import shutil
import sys
import time
from collections.abc import Iterator, Sequence
from typing import TextIO

_UNBOUNDED = 10_000


def width() -> int:
    """Columns to write in: the terminal's, at least 30; where there is none nothing is cut."""
    return max(30, _columns()) if is_terminal(sys.stdout) else _UNBOUNDED


def _columns() -> int:
    return shutil.get_terminal_size().columns


def cut(text: str, columns: int) -> str:
    """The text in at most so many columns; control characters are made visible as blanks."""
    text = "".join(char if char.isprintable() else " " for char in text)
    return text if len(text) <= columns else text[: max(0, columns - 1)] + "…"


def cut_left(text: str, columns: int) -> str:
    """Like ``cut``, but keeps the end: of a path the name and the lines."""
    return cut(text[::-1], columns)[::-1]


def plural(count: int, noun: str) -> str:
    """``1 file``, ``1,726 files``."""
    ending = "" if count == 1 else "s"
    return f"{count:,} {noun}{ending}"


def is_terminal(stream: TextIO) -> bool:
    """Whether a person is likely to look at the stream."""
    return stream.isatty() and os.environ.get("TERM") != "dumb"


def styled(style: str, text: str) -> str:
    """The text bold, dim or as a path, if the output is a terminal and NO_COLOR is not set."""
    if not text or not is_terminal(sys.stdout) or os.environ.get("NO_COLOR"):
        return text
    return f"\x1b[{dict(bold=1, dim=2, path=36)[style]}m{text}\x1b[0m"


def tracked[Item](label: str, items: Sequence[Item]) -> Iterator[Item]:
    """The items; meanwhile a bar on standard error, if that is a terminal, wiped at the end."""
    drawn = 0.0
    for done, item in enumerate(items, 1):
        yield item
        if is_terminal(sys.stderr) and time.monotonic() - drawn >= 0.1:
            drawn = time.monotonic()
            bar = "#" * (30 * done // len(items))
            line = cut(f"{label} [{bar:.<30}] {done:,}/{len(items):,}", _columns() - 1)
            print(f"{erased()}{line}", end="", file=sys.stderr, flush=True)
    print(erased(), end="", file=sys.stderr, flush=True)


def erased() -> str:
    """What takes a bar away, so that a message may stand in its place."""
    return "\r\x1b[K" if is_terminal(sys.stderr) else ""
