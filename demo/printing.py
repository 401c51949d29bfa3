"""What the commands print: answers, once or at a prompt, pages and branches."""

import contextlib
import json
import os
import sys
from difflib import get_close_matches
from typing import Any

from demo.errors import UserError
from demo.hashed_features import stems, telling_stems
from demo.search import Hit, Searcher
from demo.show import cut, cut_left, is_terminal, plural, styled, width
from demo.wiki import Wiki

EXCERPT_LINES = 2
_JSON_FIELDS = "page_id title importance description summary symbols related_pages citations"

_Page = dict[str, Any]


def print_json(value: Any) -> None:
    """For other programs."""
    print(json.dumps(value, indent=2))


def answer(searcher: Searcher, question: str, top_k: int, as_json: bool) -> None:
    """Asks once. UserError when no question is asked."""
    if not question.strip():
        raise UserError("the question is empty")
    hits = searcher.ask(question, top_k)
    if as_json:
        print_json(hits)
        return
    if not hits:
        print("nothing found")
    for number, hit in enumerate(hits, 1):
        _print_hit(f"{number:>2}. ", hit, set(telling_stems(question)))


def _print_hit(rank: str, hit: Hit, words: set[str]) -> None:
    """Up to four lines; a path is cut last, and from its left."""
    columns = width()
    place = cut_left("{path}:{start}-{end}".format(**hit), columns - len(rank))
    scores = f"  {hit['score']:.4g} (cosine {hit['similarity']:.2f})"
    scores = scores if len(rank + place + scores) <= columns else ""
    print(f"{rank}{styled('path', place)}{styled('dim', scores)}")
    names = dict.fromkeys((hit["title"], hit["heading"]))
    names.pop(hit["path"], None)
    more = f"  (+{hit['more']} more)" if hit["more"] else ""
    heading = cut(": ".join(names), columns - 4 - len(more))
    print(f"    {styled('bold', heading)}{styled('dim', more)}")
    lines = [line for line in hit["text"].split("\n") if line.strip()]
    weights = [len(words.intersection(stems(line))) for line in lines]
    starts = range(max(1, len(lines) - EXCERPT_LINES + 1))
    best = max(starts, key=lambda start: sum(weights[start : start + EXCERPT_LINES]))
    for line in lines[best : best + EXCERPT_LINES]:
        print(styled("dim", "    | ") + cut(line.strip(), columns - 6))


def prompt(searcher: Searcher, top_k: int, as_json: bool) -> None:
    """Questions line by line until the input ends; the index stays loaded between them."""
    asked_by_person = is_terminal(sys.stdin) and is_terminal(sys.stdout)
    if asked_by_person:
        with contextlib.suppress(ImportError):
            import readline  # noqa: F401  (arrow keys and history)
    while True:
        try:
            question = input("? " if asked_by_person else "").strip()
        except (EOFError, KeyboardInterrupt):
            print(end="\n" * asked_by_person)
            return
        except UnicodeDecodeError as error:
            raise UserError(f"a question is not text: {error}") from error
        if question:
            answer(searcher, question, top_k, as_json)
        elif asked_by_person:
            return


def print_pages(wiki: Wiki, typed: str | None, as_json: bool) -> None:
    """Each page in a line, or everything about the one that was named."""
    pages = wiki.repository.get_wiki_pages(wiki.branch)
    page = _named(wiki, typed, pages) if typed else None
    if as_json:
        shown = [page] if page else pages
        told = [{name: one[name] for name in _JSON_FIELDS.split()} for one in shown]
        print_json(told[0] if page else told)
    elif page:
        _print_page(wiki, page)
    else:
        _print_list(pages)


def _named(wiki: Wiki, typed: str, pages: list[_Page]) -> _Page:
    """A page by its path as typed: from the top of the tree, or from here."""
    page_id = os.path.normpath(typed)
    if os.path.isabs(typed) or not (wiki.root / typed).exists():
        relative = os.path.relpath(os.path.realpath(typed), wiki.root)
        page_id = typed if relative.startswith("..") else relative
    known = {page["page_id"]: page for page in pages}
    if page_id in known:
        return known[page_id]
    like = [one for one in known if one.endswith("/" + os.path.basename(page_id))][:3]
    like = like or get_close_matches(page_id, known, 3)
    hint = f": did you mean {' or '.join(like)}?" if like else " (see 'pages')"
    raise UserError(f"branch '{wiki.branch}' has no page '{page_id}'{hint}")


def _print_list(pages: list[_Page]) -> None:
    """Importance, sections, path and description, cut to the terminal's width."""
    columns = width()
    room = min(max((len(page["page_id"]) for page in pages), default=0), columns // 2)
    for page in pages:
        words = page["description"] if page["status"] == "built" else "(not finished)"
        figures = f"{page['importance']:<6} {len(page['citations']):>4}  "
        name = styled("path", cut_left(page["page_id"], room).ljust(room))
        rest = cut(words, columns - len(figures) - room - 2)
        print(f"{styled('dim', figures)}{name}  {rest}".rstrip())


def _print_page(wiki: Wiki, page: _Page) -> None:
    columns = width()
    print(styled("bold", cut(page["title"], columns)))
    for line in (page["description"], f"{page['summary']}, {page['importance']} importance"):
        print(cut(line, columns))
    for _chunk, owner, _title, heading, content in wiki.repository.wiki_chunk_texts(wiki.branch):
        if owner == page["page_id"]:
            lines = content.partition("\n")[0].rpartition(":")[2]
            print(f"  {styled('dim', lines.rjust(11))}  {cut(heading, columns - 15)}")
    for other in page["related_pages"]:
        print(f"  {styled('dim', 'uses'.rjust(11))}  {cut_left(other, columns - 15)}")


def print_branches(found: list[dict[str, Any]], as_json: bool) -> None:
    """One line a branch of the database."""
    if as_json:
        print_json(found)
        return
    for one in found:
        built = f"built {one['last_built_at'][:19]} UTC" if one["last_built_at"] else "not finished"
        print(f"{one['branch']}: {plural(one['page_count'], 'page')}, {built}, {one['repository']}")
