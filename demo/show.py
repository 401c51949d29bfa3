"""What a terminal shows: widths, colour, and a progress bar that a pipe never sees."""

from __future__ import annotations

import os
import shutil
import sys
import time
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


class Progress:
    """A bar on standard error, redrawn at most ten times a second and wiped when finished."""

    def __init__(self) -> None:
        self._on = is_terminal(sys.stderr)
        self.start("", 0)

    def start(self, label: str, total: int) -> None:
        """Begins a new bar of ``total`` steps."""
        self._label, self._total, self._done = label, total, 0
        self._began, self._drawn = time.monotonic(), 0.0

    def step(self) -> None:
        """One more step is done."""
        self._done += 1
        now = time.monotonic()
        if self._on and now - self._drawn >= _REDRAW_SECONDS:
            self._drawn = now
            self._draw(now - self._began)

    def finish(self) -> None:
        """Wipes the bar."""
        if self._on and self._drawn:
            print("\r\x1b[K", end="", file=sys.stderr, flush=True)
            self._drawn = 0.0

    def _draw(self, seconds: float) -> None:
        total = max(self._total, self._done)
        figures = f" {self._done:,}/{total:,}"
        if seconds > 2:
            figures += f"  {duration(seconds / self._done * (total - self._done))} left"
        columns = shutil.get_terminal_size((80, 24)).columns - 1
        room = max(0, min(40, columns - len(self._label) - len(figures) - 3))
        bar = f" [{'#' * (room * self._done // total):.<{room}}]"
        line = cut(self._label + bar + figures, columns)
        print(f"\r{line}\x1b[K", end="", file=sys.stderr, flush=True)
