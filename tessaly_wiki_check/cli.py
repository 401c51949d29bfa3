"""The command line: finds the host's factory, runs the checks and prints what they saw."""

import argparse
import contextlib
import importlib.util
import inspect
import json
import sys
import tempfile
from collections.abc import Callable, Sequence
from pathlib import Path
from typing import Any

import tessaly_wiki_check.vectors  # which defines the checks, after those that they need
from tessaly_wiki_check.checks import CHECKS, outcomes, raises, what_happened
from tessaly_wiki_check.host import Host

_PROGRAM = "python -m tessaly_wiki_check"
_ADVICE = "mend what raises this; docs/host-contract.md lists what to provide"


class _Usage(BaseException):
    """The command line names nothing that can be checked."""


class _Parser(argparse.ArgumentParser):
    def error(self, message: str) -> Any:
        raise _Usage(message)


def main(arguments: Sequence[str] | None = None) -> int:
    """Runs the program. 0: everything holds; 1: something does not; 2: bad usage, one line."""
    parser = _Parser(prog=_PROGRAM, description=tessaly_wiki_check.__doc__)
    add = parser.add_argument
    add("factory", metavar="HOST_MODULE:FACTORY")
    add("--dimension", type=int, default=8, metavar="N", help="length of embeddings (default: 8)")
    add("--citation", type=json.loads, metavar="JSON", help="your citation of a.py, lines 1 to 3")
    try:
        options = parser.parse_args(arguments)
        if options.dimension < 2:
            raise _Usage("--dimension must be 2 or more")
        with tempfile.TemporaryDirectory(prefix="tessaly-wiki-check-") as folder:
            return _check(options, str(Path(folder, "scratch.db")))
    except (_Usage, KeyboardInterrupt) as stop:
        print(f"{_PROGRAM}: {stop or 'stopped'} (see --help)", file=sys.stderr)
        return 2 if isinstance(stop, _Usage) else 130


def _check(options: argparse.Namespace, path: str) -> int:
    host, seen, version = None, "", "?"
    try:
        host = Host(_factory(options.factory, path), options.dimension, options.citation)
        row = host.db.fetchone("SELECT sqlite_version()", ())
        version = [*(row.values() if isinstance(row, dict) else row)][0]
    except (Exception, SystemExit) as error:
        seen = what_happened(error)
    print(f"tessaly in {_package(options.factory)}, {options.factory}, SQLite {version}")
    if host:
        return _report(host)
    print(f"FAIL  A repository can be made, and another\n      seen: {seen}\n      do:   {_ADVICE}")
    return 1


def _factory(name: str, path: str) -> Callable[[], Any]:
    """The factory, ready to be called. Raises what importing the host's module raises."""
    module, _, attribute = name.partition(":")
    if not (module and attribute):
        raise _Usage(f"'{name}' is not of the form HOST_MODULE:FACTORY")
    try:
        factory = getattr(importlib.import_module(module), attribute, None)
    except ModuleNotFoundError as error:
        if f"{module}.".startswith(f"{error.name}."):
            raise _Usage(f"there is no module {error.name} on the path") from error
        raise
    finally:
        _package(name)  # before anything is called that is not the host's
    for values in ((), (path,)):
        if factory and not raises(lambda: inspect.signature(factory).bind(*values)):
            return lambda: factory(*values)
    raise _Usage(f"{module} has no {attribute} to be called with no argument, or with a path")


def _package(factory: str) -> str:
    """The folder of the package that is checked, which must be the host's own."""
    spec = importlib.util.find_spec("tessaly")
    folder = Path((spec and spec.submodule_search_locations or [""])[0])
    mark = folder / "reference_host.txt"  # written by the build, with the folder's name
    ours = mark.is_file() and Path(mark.read_text("utf-8").strip()).resolve() == folder.resolve()
    if not spec or ours and not factory.startswith(("tessaly.", "tessaly_wiki_check.")):
        what = f"the reference host's, in {folder}" if spec else "nowhere"
        raise _Usage(f"tessaly is {what}: put the folder that holds yours first in PYTHONPATH")
    return str(folder)


def _report(host: Host) -> int:
    words, left = [], []
    try:
        for check, word, text in outcomes(host):
            words.append(word)
            print(f"{word:4}  {check.title}{f' ({text})' * (word == 'skip')}", flush=True)
            if word == "FAIL":
                print(f"      seen: {text}\n      do:   {check.advice}")
    finally:
        with contextlib.suppress(Exception):
            left = host.clear()
    failed, skipped = words.count("FAIL"), words.count("skip")
    print(f"\n{words.count('ok')} of {len(CHECKS)} hold; {failed} failed, {skipped} skipped.")
    print("Not checked: that index_generation() changes when the index is replaced as a whole.")
    if left:
        print(f"Rows are left behind, of the branches {', '.join(left)}.")
    return 1 if failed or left else 0
