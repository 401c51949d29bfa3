"""Embedders: the built-in one, or a function of the user's, checked at every call."""

from __future__ import annotations

import importlib
import math
import sys
from array import array
from collections.abc import Callable, Sequence
from typing import Any

from demo import hashed_features
from demo.errors import UserError


class Embedder:
    """Turns texts into vectors of one dimension and says what is wrong when it does not.

    ``function`` takes a list of texts and returns as many sequences of numbers. ``model`` names
    function and dimension; vectors of different models cannot be compared.
    """

    def __init__(self, name: str, function: Callable[[list[str]], Any]) -> None:
        """Tries the function on one word; UserError when that does not give a vector."""
        self.name = name
        self._function = function
        self.dimension = 0
        self.dimension = len(self.embed(["probe"])[0])
        self.model = f"{name}/{self.dimension}"

    def embed(self, texts: list[str]) -> list[list[float]]:
        """One vector for each text, as 32-bit values. UserError on any other result."""
        try:
            result = self._function(texts)
        except (Exception, SystemExit) as error:
            raise self._wrong(f"failed: {type(error).__name__}: {_one_line(error)}") from error
        if isinstance(result, str | bytes) or not _is_sequence(result):
            raise self._wrong(f"returned {type(result).__name__}, not a list of vectors")
        if len(result) != len(texts):
            raise self._wrong(f"returned {len(result)} vectors for {len(texts)} texts")
        return [self._vector(one) for one in result]

    def _vector(self, one: Any) -> list[float]:
        if isinstance(one, str | bytes) or not _is_sequence(one):
            raise self._wrong(f"returned {type(one).__name__} in place of a vector")
        try:
            values = array("f", list(one))
        except (TypeError, ValueError, OverflowError) as error:
            raise self._wrong("returned a vector of something other than numbers") from error
        if not values:
            raise self._wrong("returned an empty vector")
        if not math.isfinite(sum(values)):
            raise self._wrong("returned a vector with a number that is not finite")
        if self.dimension and len(values) != self.dimension:
            raise self._wrong(
                f"returned vectors of different lengths: {self.dimension} and {len(values)}"
            )
        return values.tolist()

    def _wrong(self, what: str) -> UserError:
        return UserError(f"embedder '{self.name}' {what}")


def load_embedder(spec: str | None) -> Embedder:
    """The built-in embedder, or the one that ``module:function`` names."""
    if spec is None:
        return Embedder(hashed_features.NAME, hashed_features.embed)
    module_name, colon, function_name = spec.partition(":")
    if not (module_name and colon and function_name):
        raise UserError(f"embedder '{spec}' is not of the form module:function")
    if "" not in sys.path:
        sys.path.append("")  # an embedder of the user's own may lie in the current folder
    try:
        function: Any = importlib.import_module(module_name)
        for part in function_name.split("."):
            function = getattr(function, part)
    except (Exception, SystemExit) as error:
        reason = f"{type(error).__name__}: {_one_line(error)}"
        raise UserError(f"embedder '{spec}' cannot be imported: {reason}") from error
    if not callable(function):
        raise UserError(f"embedder '{spec}' is {type(function).__name__}, not a function")
    return Embedder(spec, function)


def _is_sequence(value: Any) -> bool:
    return isinstance(value, Sequence) or (hasattr(value, "__len__") and hasattr(value, "__iter__"))


def _one_line(error: BaseException) -> str:
    return " ".join(str(error).split()) or "no message"
