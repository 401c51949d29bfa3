"""How often the demo finds the right file: what `make quality` runs.

usage: quality.py [--misses] [--trees DIR] [--scratch DIR] COMMAND...

COMMAND is the program that builds and searches, such as build/wiki. Prints for each tree how many
of its questions have a right file first and in the first five, the mean reciprocal rank of the
best right file, and for how many of the foreign questions nothing was found.
"""

from __future__ import annotations

import argparse
import json
import subprocess
import sys
import sysconfig
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
DEPTH = 30  # results asked for; a right file further down counts as not found


@dataclass
class Score:
    """The ranks of the right files (0: not found), and what was found of foreign questions."""

    ranks: list[int] = field(default_factory=list)
    foreign: list[int] = field(default_factory=list)

    def add(self, other: Score) -> None:
        """Counts the questions of another tree in."""
        self.ranks += other.ranks
        self.foreign += other.foreign

    def row(self, name: str) -> str:
        """One line of the table."""
        first = sum(rank == 1 for rank in self.ranks)
        five = sum(0 < rank <= 5 for rank in self.ranks)
        mean = sum(1 / rank for rank in self.ranks if rank) / max(1, len(self.ranks))
        silent = f"{self.foreign.count(0)} of {len(self.foreign)}"
        return f"{name:<10} {len(self.ranks):>9} {first:>6} {five:>6} {mean:>7.3f} {silent:>9}"


def questions() -> dict[str, list[tuple[str, list[str]]]]:
    """The questions of each tree with their right files, none for a foreign one."""
    asked: dict[str, list[tuple[str, list[str]]]] = {}
    for line in (ROOT / "tools" / "quality.tsv").read_text(encoding="utf-8").splitlines():
        if not line.startswith("#"):
            tree, question, files = line.split("\t")
            asked.setdefault(tree, []).append((question, [] if files == "-" else files.split()))
    return asked


def files_found(command: list[str], database: Path, asked: list[str]) -> list[list[str]]:
    """For each question the files of its results, best first and each once."""
    search = [*command, "search", "--db", str(database), "--json", "--top", str(DEPTH)]
    text = "".join(question + "\n" for question in asked)
    printed = subprocess.run(search, input=text, stdout=subprocess.PIPE, text=True, check=True)
    decoder, rest, found = json.JSONDecoder(), printed.stdout, []
    while rest := rest.lstrip():
        hits, end = decoder.raw_decode(rest)
        found.append(list(dict.fromkeys(hit["path"] for hit in hits)))
        rest = rest[end:]
    return found


def measure(command: list[str], tree: Path, database: Path, asked: list[tuple[str, list[str]]],
            show_misses: bool) -> Score:  # fmt: skip
    """Builds the wiki of a tree and asks it everything."""
    for name in (name for _question, right in asked for name in right):
        if not (tree / name).is_file():
            print(f"{tree} has no {name}: its questions need another answer", file=sys.stderr)
    build = [*command, "build", str(tree), "--db", str(database)]
    subprocess.run(build, stdout=subprocess.DEVNULL, check=True)
    score = Score()
    found = files_found(command, database, [question for question, _right in asked])
    for (question, right), files in zip(asked, found, strict=True):
        if not right:
            score.foreign.append(len(files))
            continue
        ranks = [files.index(name) + 1 for name in right if name in files]
        score.ranks.append(min(ranks, default=0))
        if show_misses and score.ranks[-1] != 1:
            print(f"  {score.ranks[-1]:>2} {question}\n     {right[0]}, not {files[:3]}")
    return score


def main() -> int:
    """0: measured; 2: bad usage."""
    parser = argparse.ArgumentParser(description="Measures what the demo finds.")
    parser.add_argument("--misses", action="store_true", help="show what is not found first")
    parser.add_argument("--trees", type=Path, default=Path(), help="the folder of the other trees")
    parser.add_argument("--scratch", type=Path, default=ROOT / "build" / "quality")
    parser.add_argument("command", nargs="+", help="the program, such as build/wiki")
    options = parser.parse_args()
    options.scratch.mkdir(parents=True, exist_ok=True)
    known = {"here": ROOT, "library": Path(sysconfig.get_path("stdlib"))}
    print("tree       questions  first  in 5    mean r. r.  silent")
    total = Score()
    for name, asked in questions().items():
        tree = known.get(name, options.trees / name).resolve()
        if tree.is_dir():
            database = options.scratch / f"{name}.db"
            score = measure(options.command, tree, database, asked, options.misses)
            print(score.row(name), flush=True)
            total.add(score)
    print(total.row("all"))
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (subprocess.CalledProcessError, OSError) as error:
        print(f"quality: {error}", file=sys.stderr)
        sys.exit(2)
