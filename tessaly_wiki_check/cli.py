"""The command line: finds the host's factory, runs the checks and prints what they saw."""

from __future__ import annotations

import argparse
import importlib
import inspect
import os
import sys
import tempfile
from collections.abc import Callable, Sequence
from pathlib import Path
from typing import Any

from tessaly_wiki_check.checks import Check, run_check, what_happened
from tessaly_wiki_check.host import Host
from tessaly_wiki_check.records import RECORDS
from tessaly_wiki_check.schema import KEYS, TABLES
from tessaly_wiki_check.transactions import TRANSACTIONS
from tessaly_wiki_check.vectors import VECTORS, has_fts5

CHECKS = (*TABLES, *TRANSACTIONS, *KEYS, *RECORDS, *VECTORS)

# The names that the wiki store's module imports, and the module of each.
HOST_NAMES = {
    "tessaly.storage.database": ("Database",),
    "tessaly.storage.vector_codec": ("stored_vectors",),
    "tessaly.storage.vector_index": ("EmbeddingIndex",),
    "tessaly.storage.wiki_chunk_words": ("ChunkWords", "WikiChunkIndex"),
    "tessaly.storage.wiki_rows": ("WIKI_PAGE_COLUMNS", "moved_citation", "row_to_wiki_page"),
}

_PROGRAM = "python -m tessaly_wiki_check"
_DESCRIPTION = """Checks a host of the wiki store against what the store asks of it.

FACTORY is called without arguments, or, when it requires one, with the path of a new database
file in a temporary folder. It returns a repository: an object with WikiStore among its bases. A
database that holds other branches may be used: the rows of the checks stand in a branch of their
own and are deleted."""


class _Usage(Exception):
    """The command line names nothing that can be checked."""


class _Parser(argparse.ArgumentParser):
    def error(self, message: str) -> Any:
        raise _Usage(message)


def main(arguments: Sequence[str] | None = None) -> int:
    """Runs the program. 0: everything holds; 1: something does not; 2: bad usage, one line."""
    parser = _Parser(
        prog=_PROGRAM,
        description=_DESCRIPTION,
        epilog="example:\n  {p} tessaly_wiki_check.reference_host:repository".format(p=_PROGRAM),
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("factory", metavar="HOST_MODULE:FACTORY")
    parser.add_argument(
        "--dimension", type=int, default=8, metavar="N",
        help="length of the embeddings to store, 2 or more (default: 8)",
    )  # fmt: skip
    try:
        options = parser.parse_args(arguments)
        if options.dimension < 2:
            raise _Usage("--dimension must be 2 or more")
        with tempfile.TemporaryDirectory(prefix="tessaly-wiki-check-") as folder:
            return _check(options.factory, str(Path(folder, "scratch.db")), options.dimension)
    except _Usage as error:
        print(f"{_PROGRAM}: {error} (see --help)", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        print(f"{_PROGRAM}: stopped", file=sys.stderr)
        return 130


def _check(name: str, path: str, dimension: int) -> int:
    """Opens the host and checks it."""
    try:
        repository = _factory(name, path)()
    except _Usage:
        raise
    except Exception as error:
        print(f"FAIL  a repository can be made\n      seen: {what_happened(error)}")
        print(f"      do:   {_import_advice()}")
        return 1
    host = Host(repository, dimension)
    try:
        return _report(host)
    finally:
        if os.path.exists(path) and hasattr(getattr(repository, "db", None), "close"):
            repository.db.close()


def _factory(name: str, path: str) -> Callable[[], Any]:
    """The factory, ready to be called. Raises what importing the host's module raises."""
    module_name, separator, attribute = name.partition(":")
    if not (module_name and separator and attribute):
        raise _Usage(f"'{name}' is not of the form HOST_MODULE:FACTORY")
    try:
        module = importlib.import_module(module_name)
    except ModuleNotFoundError as error:
        if error.name and f"{module_name}.".startswith(f"{error.name}."):
            raise _Usage(f"there is no module {error.name} on the path") from error
        raise
    factory = getattr(module, attribute, None)
    if not callable(factory):
        raise _Usage(f"{module_name} has no function {attribute}")
    try:
        signature = inspect.signature(factory)
    except ValueError as error:
        raise _Usage(f"{name} does not tell what arguments it takes") from error
    for values in ((), (path,)):
        try:
            signature.bind(*values)
        except TypeError:
            continue
        return lambda: factory(*values)
    raise _Usage(f"{name} requires more than one argument")


def _import_advice() -> str:
    """Which of the names that the store imports are missing."""
    missing = []
    for module, names in HOST_NAMES.items():
        try:
            found = importlib.import_module(module)
        except Exception as error:
            missing.append(f"{module} ({type(error).__name__}: {error})")
        else:
            missing += [f"{module}.{name}" for name in names if not hasattr(found, name)]
    if missing:
        return f"provide {', '.join(missing)}"
    return "mend the error that the factory or its module raises"


def _not_a_repository(repository: Any) -> str | None:
    from tessaly.storage.repository_wiki import WikiStore

    if not isinstance(repository, WikiStore):
        return f"its class {type(repository).__name__} has no WikiStore among its bases"
    if not hasattr(repository, "db"):
        return "the repository has no attribute db"
    return None


def _report(host: Host) -> int:
    """Runs all checks and prints a line for each, two more for one that fails."""
    if problem := _not_a_repository(host.repository):
        print(f"FAIL  a repository can be made\n      seen: {problem}")
        print("      do:   derive its class from WikiStore, and set db in __init__")
        return 1
    failed = 0
    try:
        for check in CHECKS:
            seen = run_check(check, host)
            print(f"{'FAIL' if seen else 'ok  '}  {check.title}", flush=True)
            if seen:
                failed += 1
                print(f"      seen: {seen}\n      do:   {check.advice}")
    finally:
        left = _cleared(host)
    print(f"\n{len(CHECKS) - failed} of {len(CHECKS)} hold.")
    if failed:
        print("The first that does not may explain the others.")
    else:
        print("Not checked: that index_generation() changes when the index is replaced as a whole.")
        if not has_fts5(host):
            print("This SQLite has no FTS5: searches rank by meaning alone.")
    if left:
        print(left)
    return 1 if failed or left else 0


def _cleared(host: Host) -> str:
    """Deletes what the checks wrote, also after one was interrupted; says what could not be."""
    try:
        host.clear()
        left = host.left_behind()
    except Exception as error:
        return f"Rows of branch {host.branch} may be left behind: {what_happened(error)}"
    rows = ", ".join(f"{count} in {table}" for table, count in left.items())
    return f"Rows of branch {host.branch} are left behind: {rows}" if left else ""
