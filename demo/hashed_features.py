"""The built-in embedder: hashed features of words, word parts and letter runs. Offline, no model.

Each word gives features, its stem and its letter runs; each feature has a place and a sign in the
vector by a hash ("feature hashing", Weinberger et al. 2009). A word that occurs n times weighs
1 + ln n. The same text gives the same vector in every process.
"""

import math
import re
from collections import Counter
from functools import lru_cache
from hashlib import blake2b

DIMENSION = 384
NAME = "hashed-features"

_WORD = re.compile(r"[^\W_]+")
_PART = re.compile(r"[A-Z]+(?![a-z])|[A-Z]?[a-z]+|\d+")
_MAX_WORD = 24
_RUN = 4
_RUN_WEIGHT = 0.35
_COMMON_WEIGHT = 0.15

_ENDINGS = "ies ied ingly ings ing edly ed ions ion ors or ers er es s ly".split()

STOP_WORDS = frozenset(
    """a about all an and any are as at be been but by can could did do does for from get had has
    have how i if in into is it its may me my no not of on or our should so some than that the
    their them then there these they this those to was we were what when where which who why will
    with would you your""".split()
)
_COMMON = STOP_WORDS | frozenset(
    """arg args bool char class const def elif else false import int len name none null void
    object public private print return self static std str string true type types value
    var""".split()
)


@lru_cache(maxsize=1 << 16)
def word_parts(word: str) -> tuple[str, ...]:
    """The lower-case parts of one word: camelCase gives two, and itself as a whole."""
    parts = [part.lower() for part in _PART.findall(word)] if word.isascii() else []
    if len(parts) != 1:
        parts.append(word.casefold())
    return tuple(part[:_MAX_WORD] for part in parts)


@lru_cache(maxsize=1 << 16)
def stem(word: str) -> str:
    """The word without its English endings, so that "rolled", "rolls" and "rolling" agree."""
    for ending in _ENDINGS:
        if word.endswith(ending) and len(word) - len(ending) >= 3 and not word.endswith("ss"):
            word = word[: -len(ending)] + ("y" if ending in ("ies", "ied") else "")
            if word[-1] == word[-2] and word[-1] in "bdgmnprt":
                word = word[:-1]
            break
    word = word[:-1] if word.endswith("e") and len(word) > 3 else word
    return word[:-2] if word.endswith("at") and len(word) > 5 else word


@lru_cache(maxsize=1 << 16)
def _features(part: str) -> tuple[tuple[int, float], ...]:
    """Places and signed weights of one word part in the vector."""
    root = stem(part)
    if part in _COMMON:
        return (_place(root, _COMMON_WEIGHT),)
    padded = f"<{root}>"
    runs = {padded[start : start + _RUN] for start in range(len(padded) - _RUN + 1)}
    return (_place(root, 1.0), *(_place("~" + run, _RUN_WEIGHT) for run in sorted(runs)))


def _place(feature: str, weight: float) -> tuple[int, float]:
    number = int.from_bytes(blake2b(feature.encode(), digest_size=8).digest(), "little")
    return (number >> 1) % DIMENSION, weight if number & 1 else -weight


def embed_one(text: str) -> list[float]:
    """The vector of one text; the zero vector when it holds no word."""
    words = Counter(_WORD.findall(text))
    head = " ".join(text.split("\n", 2)[:2])  # title and heading count double
    words.update(set(_WORD.findall(head)))
    parts: Counter[str] = Counter()
    for word, count in words.items():
        for part in word_parts(word):
            parts[part] += count
    vector = [0.0] * DIMENSION
    for part, count in parts.items():
        frequency = 1.0 + math.log(count)
        for place, weight in _features(part):
            vector[place] += weight * frequency
    length = math.hypot(*vector)
    return [value / length for value in vector] if length else vector


def embed(texts: list[str]) -> list[list[float]]:
    """One vector of ``DIMENSION`` floats for each text."""
    return [embed_one(text) for text in texts]


def stems(text: str) -> list[str]:
    """The stem of every word of a text, in order; identifiers are split."""
    return [stem(part) for word in _WORD.findall(text) for part in word_parts(word)]


def search_terms(question: str) -> list[str]:
    """The words of a question for the word index: no stop words, with stems and joined pairs."""
    return list(dict.fromkeys([*_telling(question), *telling_stems(question)]))


def telling_stems(question: str) -> list[str]:
    """The stems of a question's words without the stop words, each once.

    Two words that follow each other are also given as one ("rolled back" as "rollback"), the way
    identifiers write them. Only stop words: all of them, so that they still find something.
    """
    kept = [stem(word) for word in _telling(question)]
    return list(dict.fromkeys(kept + [first + second for first, second in zip(kept, kept[1:])]))


def _telling(question: str) -> list[str]:
    words = [part for word in _WORD.findall(question) for part in word_parts(word)]
    return [word for word in words if word not in STOP_WORDS] or words
