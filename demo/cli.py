"""The command line: arguments, commands, and the one place where errors become exit statuses."""

import argparse
import io
import logging
import os
import sqlite3
import sys
import time
from collections.abc import Sequence

from demo import VERSION
from demo.build import Result, build
from demo.embedder import chosen_embedder
from demo.errors import UserError
from demo.export import export
from demo.printing import answer, print_branches, print_pages, prompt
from demo.search import Searcher
from demo.show import erased, plural
from demo.wiki import ANY_BRANCH, branches, built_wiki, delete_branch, wiki_to_build

PROGRAM = "wiki"

_LEFT_OUT_SHOWN = 8
_ADVICE = "; if that stays, delete the database file and build again"


class _Parser(argparse.ArgumentParser):
    """Says what is wrong in one line, and that --help exists."""

    def error(self, message: str) -> None:  # type: ignore[override]
        self.exit(2, f"{self.prog}: {message} (see --help)\n")


def _parser() -> argparse.ArgumentParser:
    about = "Builds and searches the wiki of a source tree, offline."
    parser = _Parser(prog=PROGRAM, description=about, epilog="Begin with: wiki build FOLDER")
    parser.add_argument("--version", action="version", version=f"{PROGRAM} {VERSION}")
    commands = parser.add_subparsers(dest="command", metavar="COMMAND")

    def command(name: str, purpose: str, *options: str) -> argparse.ArgumentParser:
        sub = commands.add_parser(name, help=purpose, description=f"{purpose}.")
        for option, metavar, about in (
            ("--db", "FILE", "the database (default: one in your cache for each tree)"),
            ("--branch", "NAME", "the branch (default: the one checked out, or main)"),
            ("--repo", "DIR", "the tree (default: this folder or one above it)"),
            ("--embedder", "MODULE:FUNCTION", "embeds texts (default: as the wiki was built)"),
        ):
            if option in ("--db", "--branch", *options):
                sub.add_argument(option, metavar=metavar, help=about)
        if "--json" in options:
            sub.add_argument("--json", action="store_true", help="print JSON")
        return sub

    sub = command("build", "build the wiki of a tree, or bring it up to date", "--embedder")
    sub.add_argument("repo", metavar="REPO", nargs="?", default=".", help="default: this folder")
    sub = command("search", "find the files that answer", "--repo", "--embedder", "--json")
    sub.add_argument("question", metavar="QUESTION", nargs="*", help="none: ask at a prompt")
    sub.add_argument("--top", metavar="N", type=_count, default=5, help="results (default: 5)")
    sub = command("pages", "list the pages, or show one with its sections", "--repo", "--json")
    sub.add_argument("page", metavar="PAGE", nargs="?", help="the page to show")
    sub = command("export", "write the wiki as a folder of static HTML", "--repo")
    sub.add_argument("folder", metavar="DIR", help="new, empty, or an export to replace")
    sub = command("branches", "list the branches that have a wiki", "--repo", "--json")
    sub.add_argument("--delete", metavar="NAME", help="delete the wiki of this branch instead")
    return parser


def _count(text: str) -> int:
    if not text.isdecimal() or not 1 <= int(text) <= 1000:
        raise argparse.ArgumentTypeError(f"'{text}' is not a number from 1 to 1000")
    return int(text)


def _run(options: argparse.Namespace) -> None:
    if options.command == "build":
        with wiki_to_build(options.repo, options.db, options.branch) as wiki:
            began = time.monotonic()
            _print_result(build(wiki, chosen_embedder(wiki, options.embedder)), began)
            if options.db is None:
                print(f"wiki: {wiki.database}")
        return
    doomed = getattr(options, "delete", None)
    branch = doomed or options.branch or (ANY_BRANCH if options.command == "branches" else None)
    with built_wiki(options.repo, options.db, branch, bool(doomed)) as wiki:
        if options.command == "search":
            searcher = Searcher(wiki, chosen_embedder(wiki, options.embedder))
            if note := searcher.note():
                print(f"{PROGRAM}: {note}", file=sys.stderr)
            if options.question:
                answer(searcher, " ".join(options.question), options.top, options.json)
            else:
                prompt(searcher, options.top, options.json)
        elif options.command == "pages":
            print_pages(wiki, options.page, options.json)
        elif options.command == "export":
            count, first = export(wiki, options.folder)
            print(f"{plural(count, 'page')}: open {first}")
        elif doomed:
            print(f"{plural(delete_branch(wiki, doomed), 'page')} of branch '{doomed}' deleted")
        else:
            print_branches(branches(wiki), options.json)


def _print_result(plan: Result, began: float) -> None:
    done = [(plan.built, "built"), (plan.moved, "moved")]
    done += [(plan.unchanged, "unchanged"), (len(plan.gone), "deleted")]
    counts = ", ".join(f"{count:,} {what}" for count, what in done if count)
    chunks = f" ({plural(plan.chunks, 'chunk')})" if plan.chunks else ""
    print(f"{plural(plan.files, 'page')}: {counts}{chunks} in {time.monotonic() - began:.2f} s")
    reasons = plan.left_out.most_common()
    parts = [one if one.endswith("/") else f"{count:,} {one}" for one, count in reasons]
    if rest := sum(count for _reason, count in reasons[_LEFT_OUT_SHOWN:]):
        parts[_LEFT_OUT_SHOWN:] = [f"{rest:,} others"]
    print(f"left out: {', '.join(parts) or 'nothing'}")
    if plan.unreadable:
        shown = ", ".join(plan.unreadable[:3]) + ", ..." * (len(plan.unreadable) > 3)
        print(f"not readable, left as it was: {shown}")


def main(arguments: Sequence[str] | None = None) -> int:
    """Runs one command. 0: done; 2: a user's error, one line on stderr; 130: interrupted."""
    logging.basicConfig(level=logging.ERROR)
    if sys.stdout is None:
        return _fail("the output is closed", 2)
    if isinstance(sys.stdout, io.TextIOWrapper):
        sys.stdout.reconfigure(errors="replace")  # a terminal without a character shows "?"
    parser = _parser()
    options = parser.parse_args(arguments)
    try:
        _run(options) if options.command else parser.print_help()
        sys.stdout.flush()
    except UserError as error:
        return _fail(str(error), 2)
    except OSError as error:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())  # for what is still to flush
        return 0 if isinstance(error, BrokenPipeError) else _fail(str(error), 2)
    except sqlite3.Error as error:
        return _fail(f"{error}{_ADVICE}", 2)
    except (ValueError, TypeError, LookupError) as error:  # rows that this program did not write
        return _fail(f"a row of the wiki is damaged, {type(error).__name__}: {error}{_ADVICE}", 2)
    except KeyboardInterrupt as error:
        return _fail(str(error) or "stopped", 130)
    return 0


def _fail(message: str, status: int) -> int:
    print(f"{erased()}{PROGRAM}: {' '.join(message.split())}", file=sys.stderr)
    return status
