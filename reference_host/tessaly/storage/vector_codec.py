"""The stored form of an embedding: its components as 32-bit little-endian floats, nothing else."""

from __future__ import annotations

import sys
from array import array
from collections.abc import Mapping, Sequence, Set
from typing import Any

from tessaly.storage._vector_index import StoredEmbedding, encode
from tessaly.storage.database import Database

_NATIVE = sys.byteorder == "little"


class VectorCodec:
    """Turns embeddings into BLOBs and back. An embedding of length zero is an empty BLOB."""

    __slots__ = ()

    def encode(self, embedding: Sequence[float]) -> bytes:
        """The BLOB of a sequence of numbers, or of a buffer of 32-bit or 64-bit floats.

        Raises:
            TypeError: It is not a sequence of numbers.
            ValueError: A component is not finite, or beyond the range of a 32-bit float: it would
                have no place in any ranking.
        """
        kind = type(embedding)
        try:
            if kind is not list and kind is not tuple:
                _check_sequence(embedding)
            return encode(embedding)
        except TypeError as error:
            raise TypeError(f"an embedding is a sequence of numbers: {error}") from error
        except OverflowError as error:
            raise ValueError(f"an embedding has 32-bit components: {error}") from error

    def decode(self, stored: bytes | StoredEmbedding) -> Sequence[float]:
        """The components of a stored BLOB, as a read-only buffer of 32-bit floats.

        On a little-endian machine it shows the BLOB's own bytes and copies nothing.

        Raises:
            ValueError: ``stored`` is no such BLOB.
        """
        if type(stored) is StoredEmbedding:
            return stored.floats()
        if not isinstance(stored, bytes):
            raise ValueError(f"a stored embedding is a BLOB, not {type(stored).__name__}")
        if len(stored) % 4:
            raise ValueError(
                f"a stored embedding is made of 32-bit floats, this BLOB of {len(stored)} bytes"
            )
        if _NATIVE and stored:
            return memoryview(stored).cast("f")
        vector = array("f", stored)
        vector.byteswap()
        return memoryview(vector).toreadonly()


def _check_sequence(embedding: Any) -> None:
    # array() would also take any iterable, and bytes for the raw memory of its numbers.
    if isinstance(embedding, (str, bytes, bytearray, Mapping, Set)) or not (
        hasattr(embedding, "__len__") and hasattr(embedding, "__getitem__")
    ):
        raise TypeError(f"not {type(embedding).__name__}")


_CODEC = VectorCodec()


def stored_vectors(db: Database) -> VectorCodec:
    """The codec of a database's embeddings; all databases share one form."""
    return _CODEC
