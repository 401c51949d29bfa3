"""The speed tables. Run by ``make bench``."""

from __future__ import annotations

import argparse
import math
import os
import platform
import sys
import timeit
from typing import Any, NoReturn

import tessaly.storage.repository_wiki as native
from benchmarks import plain_store, ranking, rows, startup, trivial_host
from benchmarks.timing import best_of, progress, readable
from benchmarks.workloads import MEAN_LIMITS, WORKLOADS, Workload, prepare_real, prepare_trivial
from tessaly.storage.database import Database

STORES = (native.WikiStore, plain_store.PlainWikiStore)


def measure(workload: Workload, names: list[dict[str, Any]], seconds: float) -> list[float]:
    timers = [timeit.Timer(workload.call, globals=one) for one in names]
    return best_of(timers, seconds)


def table(title: str, host: int, chosen: list[Workload], seconds: float) -> None:
    """Prints native against plain over one host, and what is over its limit."""
    print(f"\n{title}")
    print(f"{'workload':34}{'native':>10}{'plain':>10}{'ratio':>8}{'at most':>9}")
    ratios = []
    for workload in chosen:
        progress(f"{title}: {workload.name}")
        if host == 0:
            with trivial_host.installed(native, plain_store):
                names = [prepare_trivial(store, workload) for store in STORES]
                times = measure(workload, names, seconds)
        else:
            databases = [Database(":memory:") for _store in STORES]
            names = [prepare_real(*one) for one in zip(STORES, [workload] * 2, databases)]
            times = measure(workload, names, seconds)
            for database in databases:
                database.close()
        progress("")
        ratio = times[0] / times[1]
        ratios.append(ratio)
        limit = workload.limits[host]
        print(
            f"{workload.name:34}{readable(times[0]):>10}{readable(times[1]):>10}{ratio:8.2f}"
            f"{limit:9.2f}{'' if round(ratio, 2) <= limit else '  over'}"
        )
    print(f"{'geometric mean':54}{math.exp(sum(map(math.log, ratios)) / len(ratios)):8.2f}", end="")
    print(f"{MEAN_LIMITS[host]:9.2f}" if chosen == WORKLOADS else "")


class Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        self.exit(2, f"{self.prog}: {message}\n")


def main(arguments: list[str]) -> int:
    parser = Parser(prog="python -m benchmarks", description=__doc__)
    parser.add_argument("--list", action="store_true", help="list the workloads")
    parser.add_argument("--only", metavar="TEXT", help="only the workloads whose name has it")
    parser.add_argument("--quick", action="store_true", help="a few repeats, to see that it runs")
    options = parser.parse_args(arguments)
    if options.list:
        names = [workload.name for workload in WORKLOADS]
        print(*names, *ranking.NAMES, rows.NAME, startup.NAME, sep="\n")
        return 0
    wanted = (options.only or "").lower()
    chosen = [workload for workload in WORKLOADS if wanted in workload.name.lower()]
    rankings = [name for name in ranking.NAMES if wanted in name.lower()]
    stored = wanted in rows.NAME
    imports = wanted in startup.NAME
    if not (chosen or rankings or stored or imports):
        print(f"no workload has {options.only!r} in its name; see --list", file=sys.stderr)
        return 2
    seconds = 0.02 if options.quick else 0.8
    print(f"CPython {platform.python_version()}, {platform.machine()}, {os.cpu_count()} CPUs")
    print("ratio: the first time by the second, less is better; at most: what it is to be;")
    print("over: it is more, as it can be on a busy machine and with --quick (no command fails of")
    print("it); benchmarks/RESULTS.md tells what is over on a quiet one, and why")
    if chosen:
        table("Over a host whose methods are trivial Python functions", 0, chosen, seconds)
        table("Over the reference host, SQLite in memory", 1, chosen, seconds)
    if rankings:
        ranking.table(rankings, options.quick)
    if stored:
        rows.table(options.quick)
    if imports:
        startup.table(3 if options.quick else 20)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
