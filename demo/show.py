"""What a terminal shows: widths, colour, and a progress bar that a pipe never sees."""

import os
import shutil
import sys
import time
from collections.abc import Iterator, Sequence
from typing import TextIO

_REDRAW_SECONDS = 0.1
_UNBOUNDED = 10_000


def width() -> int:
    """Columns to write in: the terminal's, at least 30; where there is none nothing is cut."""
    columns = max(30, min(shutil.get_terminal_size((100, 24)).columns, 160))
    return columns if is_terminal(sys.stdout) else _UNBOUNDED


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


def duration(seconds: float) -> str:
    """``3.2 ms``, ``1.4 s`` or ``2 min 5 s``."""
    if seconds < 1:
        return f"{seconds * 1000:.1f} ms"
    return f"{seconds:.1f} s" if seconds < 60 else f"{seconds // 60:.0f} min {seconds % 60:.0f} s"


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
    began, drawn = time.monotonic(), 0.0
    for done, item in enumerate(items):
        yield item
        now = time.monotonic()
        if is_terminal(sys.stderr) and now - drawn >= _REDRAW_SECONDS:
            _draw(label, done + 1, len(items), now - began)
            drawn = now
    print(erased(), end="", file=sys.stderr, flush=True)


def erased() -> str:
    """What takes a bar away, so that a message may stand in its place."""
    return "\r\x1b[K" if is_terminal(sys.stderr) else ""


def _draw(label: str, done: int, total: int, seconds: float) -> None:
    figures = f" {done:,}/{total:,}"
    if seconds > 2:
        figures += f"  {duration(seconds / done * (total - done))} left"
    columns = shutil.get_terminal_size((80, 24)).columns - 1
    room = max(0, min(40, columns - len(label) - len(figures) - 3))
    bar = f" [{'#' * (room * done // total):.<{room}}]"
    line = cut(label + bar + figures, columns)
    print(f"{erased()}{line}", end="", file=sys.stderr, flush=True)
