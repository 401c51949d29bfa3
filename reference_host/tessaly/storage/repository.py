"""The repository: one object that the host's tools call, put together from mixins."""

from __future__ import annotations

from tessaly.storage.database import Database
from tessaly.storage.repository_wiki import WikiStore


class RepositoryBase:
    """What every mixin of the repository relies on."""

    def __init__(self, db: Database, *, branch: str = "main") -> None:
        self.db = db
        self.branch = branch


class Repository(WikiStore, RepositoryBase):
    """An indexed repository over its database; ``branch`` is the one checked out."""
