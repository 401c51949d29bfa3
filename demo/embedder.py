"""Embedders: the built-in one, or a function of the user's."""

import math
import sys
from array import array
from collections.abc import Callable
from pkgutil import resolve_name
from typing import Any

from demo import hashed_features
from demo.errors import UserError
from demo.wiki import Wiki


class Embedder:
    """Turns texts into vectors of one dimension; those of different ``model`` are not compared."""

    def __init__(self, name: str, function: Callable[[list[str]], Any]) -> None:
        self.name = name
        self.compares_words = function is hashed_features.embed
        self._function = function
        self.dimension = 0
        self.dimension = len(self.embed(["probe"])[0])
        self.model = f"{name}/{self.dimension}"

    def embed(self, texts: list[str]) -> list[list[float]]:
        """One vector for each text, as 32-bit values. UserError on any other result."""
        try:
            vectors = [array("f", vector) for vector in self._function(texts)]
        except (Exception, SystemExit) as error:
            raise UserError(f"embedder '{self.name}' failed: {_told(error)}") from error
        lengths = {len(vector) for vector in vectors} | ({self.dimension} - {0})
        found = f"{len(vectors)} vectors of lengths {sorted(lengths)} for {len(texts)} texts"
        if not all(math.isfinite(sum(vector)) for vector in vectors):
            found = "a number that is not finite"
        elif len(vectors) == len(texts) and len(lengths) == 1 and 0 not in lengths:
            return [vector.tolist() for vector in vectors]
        raise UserError(f"embedder '{self.name}' returned {found}")


def load_embedder(spec: str) -> Embedder:
    """The built-in embedder by its name, or the one that ``module:function`` names."""
    if spec == hashed_features.NAME:
        return Embedder(spec, hashed_features.embed)
    sys.path.append("")  # an embedder of the user's own may lie in the current folder
    try:
        function = resolve_name(spec)
    except (Exception, SystemExit) as error:
        raise UserError(f"embedder '{spec}' cannot be imported: {_told(error)}") from error
    return Embedder(spec, function)


def chosen_embedder(wiki: Wiki, spec: str | None) -> Embedder:
    """The named embedder, or the one the wiki was built with; UserError if that has changed."""
    models = {page["model"] for page in wiki.repository.get_wiki_pages(wiki.branch)}
    if spec or not models:
        return load_embedder(spec or hashed_features.NAME)
    names = sorted(model.rpartition("/")[0] for model in models)
    if len(models) > 1 or wiki.state().get("model") is None:
        choice = " or ".join(f"--embedder {name}" for name in names)
        how = "a build is running" if wiki.is_being_built else "a build was stopped"
        half = f"the embeddings of branch '{wiki.branch}' are half replaced, {how}"
        raise UserError(f"{half}: finish it with 'build' and {choice}")
    try:
        embedder = load_embedder(names[0])
    except UserError as error:
        again = f"--embedder {hashed_features.NAME} with 'build' embeds everything again, by words"
        raise UserError(f"{error}; the wiki was built with it: {again}") from error
    if embedder.model not in models:
        changed = f"embedder '{embedder.name}' gives {embedder.dimension} numbers now, not as once"
        raise UserError(f"{changed}: name it with --embedder to embed everything again")
    return embedder


def _told(error: BaseException) -> str:
    return f"{type(error).__name__}: {' '.join(str(error).split()) or 'no message'}"
