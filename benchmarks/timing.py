"""Measuring: the minimum of many repeats, the competitors taking turns."""

from __future__ import annotations

import sys
import time
import timeit
from collections.abc import Callable, Sequence
from typing import Any


def best_of(timers: Sequence[timeit.Timer], seconds: float) -> list[float]:
    """Seconds per call of each timer: its fastest repeat of many, each of some 5 ms.

    The timers take turns, so that a noisy moment of the machine strikes them alike.
    """
    loops = []
    for timer in timers:
        once = max(timer.timeit(1), timer.timeit(1), 1e-8)
        loops.append(max(1, int(0.005 / once)))
    best = [float("inf")] * len(timers)
    end = time.perf_counter() + seconds
    while time.perf_counter() < end:
        for i, timer in enumerate(timers):
            best[i] = min(best[i], timer.timeit(loops[i]) / loops[i])
    return best


def fastest(function: Callable[[], Any], seconds: float, least: int = 3) -> float:
    """Seconds of the fastest run of ``function`` within the time, at least ``least`` runs."""
    best = float("inf")
    end = time.perf_counter() + seconds
    runs = 0
    while runs < least or time.perf_counter() < end:
        start = time.perf_counter()
        function()
        best = min(best, time.perf_counter() - start)
        runs += 1
    return best


def readable(seconds: float) -> str:
    for unit, factor in (("ns", 1e9), ("us", 1e6), ("ms", 1e3)):
        if seconds * factor < 1000:
            return f"{seconds * factor:.3g} {unit}"
    return f"{seconds:.3g} s"


def progress(text: str) -> None:
    """Shows what is being measured, on a terminal only."""
    if sys.stderr.isatty():
        sys.stderr.write(f"\r\x1b[K{text}")
        sys.stderr.flush()
