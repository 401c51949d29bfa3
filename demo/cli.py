"""The command line: arguments, commands, and the one place where errors become exit statuses."""

from __future__ import annotations

import argparse
import io
import logging
import os
import sqlite3
import sys
from collections.abc import Sequence

from demo.answers import answer, prompt
from demo.build import Interrupted, Result, build, require_sources
from demo.embedder import load_embedder
from demo.errors import UserError
from demo.listing import path_in_tree, print_page, print_pages, print_status
from demo.refresh import Refreshed, refresh
from demo.search import Searcher
from demo.show import Progress, duration, plural
from demo.wiki import built_wiki, folder, wiki_to_build

PROGRAM = "python -m demo"

_EXAMPLES = {
    "": """examples:
  {p} build ~/src/project
  {p} search "how are transactions rolled back"
  {p} status""",
    "build": """Only files that changed since the last build are drafted and embedded again;
pages of files that are gone are deleted. A build that was stopped continues
where it was.

examples:
  {p} build .
  {p} build ~/src/project --branch next
  {p} build . --embedder my_embeddings:embed

An embedder is a function that takes a list of texts and returns a list of
equally long lists of numbers.""",
    "search": """Without a question, reads questions line by line and keeps the index loaded.

examples:
  {p} search "where is the cache dropped"
  {p} search "open a file" --top 3 --json
  {p} search""",
    "pages": """examples:
  {p} pages
  {p} pages src/main.py""",
    "citing": """examples:
  {p} citing src/main.py docs/design.md""",
    "refresh": """A file only shifted when it still has the same sections at other lines, for
instance after an import was added. Nothing is embedded. Files with other changes
are named and left to 'build'.

examples:
  {p} refresh""",
    "status": """examples:
  {p} status
  {p} status --json""",
}


class _Parser(argparse.ArgumentParser):
    """Says what is wrong in one line, and that --help exists."""

    def error(self, message: str) -> None:  # type: ignore[override]
        self.exit(2, f"{self.prog}: {message} (see --help)\n")


def _parser() -> argparse.ArgumentParser:
    parser = _Parser(
        prog=PROGRAM,
        description="Builds and searches the wiki of a source tree, offline.",
        epilog=_EXAMPLES[""].format(p=PROGRAM),
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    commands = parser.add_subparsers(dest="command", metavar="COMMAND", required=True)

    def command(name: str, purpose: str, reads: bool = True) -> argparse.ArgumentParser:
        sub = commands.add_parser(
            name,
            help=purpose,
            description=purpose[0].upper() + purpose[1:] + ".",
            epilog=_EXAMPLES[name].format(p=PROGRAM),
            formatter_class=argparse.RawDescriptionHelpFormatter,
        )
        sub.add_argument(
            "--db", metavar="FILE", help="the database (default: one in your cache for each tree)"
        )
        sub.add_argument(
            "--branch", metavar="NAME", help="the branch (default: the one checked out, or main)"
        )
        if reads:
            sub.add_argument(
                "--repo", metavar="DIR", help="the tree (default: this folder or one above it)"
            )
        return sub

    def tree(sub: argparse.ArgumentParser) -> None:
        sub.add_argument("tree", metavar="REPO", nargs="?", help="the same as --repo")

    def embedder(sub: argparse.ArgumentParser) -> None:
        sub.add_argument(
            "--embedder", metavar="MODULE:FUNCTION", help="embeds texts (default: built in)"
        )

    def as_json(sub: argparse.ArgumentParser) -> None:
        sub.add_argument("--json", action="store_true", help="print JSON")

    sub = command("build", "build the wiki of a tree, or bring it up to date", reads=False)
    sub.add_argument("repo", metavar="REPO", nargs="?", default=".", help="default: this folder")
    embedder(sub)
    sub = command("search", "find the chunks that answer a question")
    sub.add_argument("question", metavar="QUESTION", nargs="*", help="none: ask at a prompt")
    sub.add_argument("--top", metavar="N", type=_count, default=5, help="results (default: 5)")
    embedder(sub)
    as_json(sub)
    sub = command("pages", "list the pages, or show one with its sections")
    sub.add_argument("page", metavar="PAGE", nargs="?", help="the page to show")
    as_json(sub)
    sub = command("citing", "list the pages built from given files")
    sub.add_argument("paths", metavar="PATH", nargs="+")
    as_json(sub)
    tree(command("refresh", "move citations of files whose lines only shifted"))
    sub = command("status", "tell where the wiki stands; changes nothing")
    tree(sub)
    embedder(sub)
    as_json(sub)
    return parser


def _count(text: str) -> int:
    if not text.isdecimal() or not 1 <= int(text) <= 1000:
        raise argparse.ArgumentTypeError(f"'{text}' is not a number from 1 to 1000")
    return int(text)


def _run(options: argparse.Namespace) -> None:
    if options.command == "build":
        embedder = load_embedder(options.embedder)
        require_sources(folder(options.repo))
        with wiki_to_build(options.repo, options.db, options.branch) as wiki:
            _print_result(build(wiki, embedder, Progress()))
            if options.db is None:
                print(f"wiki: {wiki.database}")
        return
    embedder = load_embedder(options.embedder) if "embedder" in options else None
    repo = getattr(options, "tree", None) or options.repo
    with built_wiki(repo, options.db, options.branch) as wiki:
        if options.command == "search":
            assert embedder is not None
            searcher = Searcher(wiki, embedder)
            if (note := searcher.note()) is not None:
                print(f"{PROGRAM}: {note}", file=sys.stderr)
            if options.question:
                answer(searcher, " ".join(options.question), options.top, options.json)
            else:
                prompt(searcher, options.top, options.json)
        elif options.command == "pages" and options.page:
            print_page(wiki, options.page, options.json)
        elif options.command == "pages":
            print_pages(wiki, wiki.repository.get_wiki_pages(wiki.branch), options.json)
        elif options.command == "citing":
            paths = [path_in_tree(wiki, path) for path in options.paths]
            found = wiki.repository.wiki_pages_citing(wiki.branch, paths)
            if not found and not options.json:
                raise UserError(f"no page is built from {', '.join(paths)}")
            print_pages(wiki, found, options.json)
        elif options.command == "refresh":
            if not wiki.root.is_dir():
                raise UserError(f"the tree of this wiki, {wiki.root}, is gone")
            _print_refreshed(refresh(wiki, Progress()))
        else:
            assert embedder is not None
            print_status(wiki, embedder, Progress(), options.json)


def _print_result(result: Result) -> None:
    plan = result.plan
    done = [(len(plan.sources), "built"), (len(plan.reembed), "embedded again")]
    done += [(plan.unchanged, "unchanged"), (len(plan.gone), "deleted")]
    counts = ", ".join(f"{count:,} {what}" for count, what in done if count)
    chunks = f" ({plural(result.chunks, 'chunk')})" if result.chunks else ""
    print(f"{plural(plan.files, 'page')}: {counts}{chunks} in {duration(result.seconds)}")


def _print_refreshed(result: Refreshed) -> None:
    print(
        f"{plural(len(result.moved), 'page')} moved, {result.unchanged:,} unchanged,"
        f" {len(result.left):,} left to 'build'"
    )
    for path in result.left[:10]:
        print(f"  {path}")
    if len(result.left) > 10:
        print(f"  and {len(result.left) - 10:,} more")


def main(arguments: Sequence[str] | None = None) -> int:
    """Runs one command. 0: done; 2: a user's error, one line on stderr; 130: interrupted."""
    logging.basicConfig(level=logging.ERROR)
    if isinstance(sys.stdout, io.TextIOWrapper):
        sys.stdout.reconfigure(errors="replace")  # a terminal without a character shows "?"
    try:
        options = _parser().parse_args(arguments)
        _run(options)
        sys.stdout.flush()
    except UserError as error:
        return _fail(str(error), 2)
    except (sqlite3.Error, OSError) as error:
        if isinstance(error, BrokenPipeError):  # the reader has seen enough
            os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
            return 0
        return _fail(" ".join(str(error).split()), 2)
    except Interrupted as error:
        return _fail(str(error), 130)
    except KeyboardInterrupt:
        return _fail("stopped", 130)
    return 0


def _fail(message: str, status: int) -> int:
    print(f"{PROGRAM}: {' '.join(message.split())}", file=sys.stderr)
    return status
