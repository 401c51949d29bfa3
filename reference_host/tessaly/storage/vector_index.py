"""Search of embeddings by meaning: the exact cosine of the query to every one of them."""

from __future__ import annotations

import logging
from collections.abc import Iterable, Sequence

from tessaly.storage._vector_index import UnitMatrix

logger = logging.getLogger(__name__)


class EmbeddingIndex(UnitMatrix):
    """The embeddings of a branch's chunks, by ascending chunk id.

    ``nearest(query, top_k, *score)`` and ``similarities(query, chunk_ids)`` compare a query with
    them; ``dimension`` is the length that all of them have, ``len()`` their number.
    """

    __slots__ = ()

    def load(self, vectors: Iterable[tuple[int, Sequence[float]]]) -> None:
        """Replace the contents by ``(chunk id, embedding)`` pairs; an error leaves the old ones.

        An embedding of another length than ``dimension`` is left out: one warning counts them.

        Raises:
            TypeError: A pair or an embedding is not what it should be.
            ValueError: The chunk ids do not ascend.
        """
        left_out = super().load(vectors)
        if left_out:
            logger.warning(
                "%d of %d embeddings are not %d-dim and were left out of the index: their chunks"
                " are not found by meaning until they are embedded again",
                left_out,
                left_out + len(self),
                self.dimension,
            )
