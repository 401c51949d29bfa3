"""What ``search`` prints, once or at a prompt."""

from __future__ import annotations

import json
import sys
import time
from dataclasses import asdict

from demo.errors import UserError
from demo.hashed_features import telling_stems
from demo.search import Hit, Searcher
from demo.show import cut, cut_left, duration, is_terminal, plural, styled, width

EXCERPT_LINES = 2


def print_hits(hits: list[Hit], question: str, as_json: bool) -> None:
    """The hits, up to four lines each, or as one JSON list."""
    if as_json:
        print(json.dumps([asdict(hit) for hit in hits], indent=2))
        return
    columns, words = width(), set(telling_stems(question))
    if not hits:
        print("nothing found")
    for number, hit in enumerate(hits, 1):
        rank = f"{number:>2}. "
        place = cut_left(f"{hit.path}:{hit.start}-{hit.end}", columns - len(rank))
        scores = f"  {hit.score:.4g} (cosine {hit.similarity:.2f})"
        scores = scores if len(rank + place + scores) <= columns else ""
        print(f"{rank}{styled('path', place)}{styled('dim', scores)}")
        names = [hit.title] if hit.title != hit.path else []
        names += [hit.heading] if hit.heading != hit.title else []
        more = f"  (+{hit.more} more)" if hit.more else ""
        heading = cut(": ".join(names), columns - 4 - len(more))
        print(f"    {styled('bold', heading)}{styled('dim', more)}")
        for line in hit.excerpt(words, EXCERPT_LINES):
            print(styled("dim", "    | ") + cut(line.strip(), columns - 6))


def answer(searcher: Searcher, question: str, top_k: int, as_json: bool) -> None:
    """Asks once; a terminal is told how long it took. UserError when no question is asked."""
    if not question.strip():
        raise UserError("the question is empty")
    began = time.monotonic()
    hits = searcher.ask(question, top_k)
    taken = time.monotonic() - began
    print_hits(hits, question, as_json)
    if is_terminal(sys.stdout) and not as_json:
        print(styled("dim", f"{plural(len(hits), 'file')} in {duration(taken)}"))


def prompt(searcher: Searcher, top_k: int, as_json: bool) -> None:
    """Questions line by line until the input ends; the index stays loaded between them."""
    asked_by_person = is_terminal(sys.stdin) and is_terminal(sys.stdout)
    if asked_by_person:
        try:
            import readline  # noqa: F401  (arrow keys and history, where the interpreter has them)
        except ImportError:
            pass
        print("The first question loads the index; an empty line ends.")
    while True:
        try:
            question = input("? " if asked_by_person else "").strip()
        except (EOFError, KeyboardInterrupt):
            if asked_by_person:
                print()
            return
        except UnicodeDecodeError as error:
            raise UserError(f"a question is not text: {error}") from error
        if question:
            answer(searcher, question, top_k, as_json)
        elif asked_by_person:
            return
