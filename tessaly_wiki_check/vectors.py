"""A branch's index: how it is built, and how it ranks by meaning and by words."""

from typing import Any

from tessaly_wiki_check.checks import Seen, check
from tessaly_wiki_check.host import Host
from tessaly_wiki_check.schema import TOLERANCE, chunk, in_plane

# Heading, text, cosine to the query, and length of the embedding. The cosines are neither in the
# order of insertion nor in that of the dot products, and the words have an order of their own.
_CHUNKS = (
    ("harbour", "one zebra drank zebra milk in a harbour", -0.6, 0.3),
    ("meadow", "grass and clover", 0.5, 0.9),
    ("river", "some zebra lay in the bed of a slow water for many years", 0.96, 0.25),
    ("stable", "zebra zebra zebra zebra", 0.8, 1.0),
    ("marmalade", "jars and spoons", -0.96, 0.5),
    (None, "quartz and more quartz", 0.28, 0.7),
    ("tower", "bricks and mortar", 0.0, 0.6),
)
_COSINES = {text: cosine for _, text, cosine, _ in _CHUNKS}
_NEAREST = sorted(_COSINES, key=lambda text: -_COSINES[text])
_BY_WORD = {"zebra": (3, 0, 2), "marmalade": (4,)}  # best first


def _index(host: Host, branch: str) -> Any:
    """Stores the chunks in a branch, and gives the branch's index."""
    chunks = [chunk(host, *rest) | {"heading": heading} for heading, *rest in _CHUNKS]
    host.repository.replace_wiki_chunks(host.page("page", branch), branch, chunks, "check")
    return host.repository._wiki_chunk_index(branch)


def _hits(host: Host, index: Any, top_k: int, terms: Any) -> list[Any]:
    """What ranked gives for a query along the first axis, with the text for the chunk id."""
    ranked = index.ranked(in_plane(host, 1.0, 0.5), top_k, terms)
    assert isinstance(ranked, list), f"no list: {ranked!r}"
    return [(index.chunks[key][2], similarity, fused) for key, similarity, fused in ranked]


@check("page_key", "Return a stored value, which only a replacement of the whole index changes.")
def generation(host: Host) -> Seen:
    """index_generation stays equal while nothing replaces the index, for every repository."""
    first = host.db.index_generation()
    host.page("page", host.branch)
    for again in (host.db.index_generation(), host.other.db.index_generation()):
        yield f"{again!r} is equal to {first!r}", bool(again == first), True


@check("generation values", "Keep all fields as given; read items once, with headings of None.")
def index(host: Host) -> Seen:
    """A branch's index is built, carries its fields and is kept."""
    built, given = _index(host, host.branch), host.db.index_generation()
    yield "its dimension", built.dimension, host.dimension
    yield f"{built.generation!r} is its generation, {given!r}", built.generation == given, True
    read = "SELECT id, page_fk, heading, content, citations FROM wiki_chunks WHERE branch = ?"
    stored = sorted((row[0], tuple(row)[1:]) for row in host.db.fetchall(read, (host.branch,)))
    yield "its chunks", sorted((key, tuple(value)) for key, value in built.chunks.items()), stored
    yield "it is kept", host.repository._wiki_chunk_index(host.branch) is built, True


def _cosines(hits: list[Any]) -> Seen:
    for text, similarity, _ in hits:
        close = isinstance(similarity, float) and abs(similarity - _COSINES[text]) <= TOLERANCE
        yield f"{similarity!r} is the cosine {_COSINES[text]} of {text!r}", close, True


@check("index", "Return a list of the top_k hits (chunk id, cosine, None), the nearest first.")
def meaning(host: Host) -> Seen:
    """Without terms, ranked orders by cosine."""
    built = _index(host, host.branch)
    for top_k, terms in ((1, ()), (3, []), (20, ())):
        hits = _hits(host, built, top_k, terms)
        yield from _cosines(hits)
        yield f"hits for {top_k}", [hit[::2] for hit in hits], [(x, None) for x in _NEAREST[:top_k]]


def _fused(host: Host, built: Any, top_k: int, word: str) -> Seen:
    scores: dict[str, float] = {}
    for ranking in (_NEAREST, [_CHUNKS[at][1] for at in _BY_WORD[word]]):
        for rank, text in enumerate(ranking[:top_k], 1):
            scores[text] = scores.get(text, 0.0) + 1 / (60 + rank)
    hits = _hits(host, built, top_k, (word,))
    found = [(text, fused and float.__round__(fused, 9)) for text, _, fused in hits]
    fts5 = "SELECT count(*) FROM pragma_module_list WHERE name = 'fts5'"
    if any(fused for _, fused in found) or host.value(fts5):
        about = f"scores for {word!r} with top_k={top_k}"
        yield about, found, [(text, round(scores.get(text, 0.0), 9)) for text, _ in found]
        # Hits beyond top_k may be cut off; of equal ones, either.
        best = sorted((round(score, 9) for score in scores.values()), reverse=True)
        yield f"best {about}", [fused for _, fused in found], best[: max(top_k, len(found))]


@check("meaning", "Sum 1 / (60 + rank) of the top_k by cosine and top_k by BM25, ranks from 1.")
def fusion(host: Host) -> Seen:
    """With terms, and FTS5, ranked fuses meaning and words by reciprocal rank."""
    built = _index(host, host.branch)
    for top_k in (3, 2):
        yield from _fused(host, built, top_k, "zebra")


@check("fusion", "Let ChunkWords.build index the headings beside the texts.")
def headings(host: Host) -> Seen:
    """The words of headings are found."""
    yield from _fused(host, _index(host, host.branch), 2, "marmalade")


@check("fusion", "Let every hit carry the cosine of its embedding, whatever brought it up.")
def word_similarity(host: Host) -> Seen:
    """A hit that only its words brought up has its cosine."""
    yield from _cosines(_hits(host, _index(host, host.branch), 3, ["zebra"]))


@check("meaning", "Quote each term for FTS5, so that none of its characters is query syntax.")
def any_words(host: Host) -> Seen:
    """ranked takes any words."""
    built = _index(host, host.branch)
    for terms in (['"'], ["AND", "NOT"], ["a*", "(b", "c:d"], ["", "-"], ["\u00fc\u4e2d", "^x"]):
        yield f"hits for {terms!r}, at least", min(3, len(_hits(host, built, 3, terms))), 3


@check("fusion", "Let each index have embeddings and words of its own: several are in use.")
def branches(host: Host) -> Seen:
    """The indexes of two branches do not disturb each other."""
    for one in [_index(host, branch) for branch in (host.branch, host.digits)]:
        yield from _fused(host, one, 3, "zebra")
