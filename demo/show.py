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
    if not is_terminal(sys.stdout):
        return _UNBOUNDED
    return max(30, min(shutil.get_terminal_size((100, 24)).columns, 160))


def cut(text: str, columns: int) -> str:
    """The text in at most so many columns; control characters are made visible as blanks."""
    text = "".join(char if char.isprintable() else " " for char in text)
    return text if len(text) <= columns else text[: max(0, columns - 1)] + "…"


def cut_left(text: str, columns: int) -> str:
    """Like ``cut``, but keeps the end: of a path the name and the lines."""
    return cut(text[::-1], columns)[::-1]


def plural(count: int, noun: str) -> str:
    """``1 file``, ``1,726 files``, ``2 branches``."""
    ending = "" if count == 1 else "es" if noun.endswith("ch") else "s"
    return f"{count:,} {noun}{ending}"


def duration(seconds: float) -> str:
    """``3.2 ms``, ``1.4 s`` or ``2 min 5 s``."""
    if seconds < 1:
        return f"{seconds * 1000:.1f} ms"
    if seconds < 60:
        return f"{seconds:.1f} s"
    return f"{int(seconds // 60)} min {int(seconds % 60)} s"


def is_terminal(stream: TextIO) -> bool:
    """Whether a person is likely to look at the stream."""
    return stream.isatty() and os.environ.get("TERM") != "dumb"


class Style:
    """Wraps text in colours, if the output is a terminal and NO_COLOR is not set."""

    def __init__(self) -> None:
        self._on = is_terminal(sys.stdout) and not os.environ.get("NO_COLOR")

    def bold(self, text: str) -> str:
        return self._wrap("1", text)

    def dim(self, text: str) -> str:
        return self._wrap("2", text)

    def path(self, text: str) -> str:
        return self._wrap("36", text)

    def _wrap(self, code: str, text: str) -> str:
        return f"\x1b[{code}m{text}\x1b[0m" if self._on and text else text


class Progress:
    """A bar on standard error, redrawn at most ten times a second and wiped when finished."""

    def __init__(self) -> None:
        self._stream = sys.stderr
        self._on = is_terminal(self._stream)
        self._label = ""
        self._total = self._done = 0
        self._began = self._drawn = 0.0

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
            self._stream.write("\r\x1b[K")
            self._stream.flush()
            self._drawn = 0.0

    def _draw(self, seconds: float) -> None:
        total = max(self._total, self._done)
        figures = f" {self._done:,}/{total:,}"
        if seconds > 2:
            figures += f"  {duration(seconds / self._done * (total - self._done))} left"
        columns = shutil.get_terminal_size((80, 24)).columns - 1
        room = min(40, columns - len(self._label) - len(figures) - 3)
        filled = room * self._done // total
        bar = f" [{'#' * filled}{'.' * (room - filled)}]" if room >= 5 else ""
        self._stream.write("\r" + cut(self._label + bar + figures, columns) + "\x1b[K")
        self._stream.flush()
