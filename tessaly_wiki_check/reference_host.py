"""A factory for the reference host; one for another host is as short."""

from tessaly.storage.database import Database
from tessaly.storage.repository import Repository


def repository(path: str) -> Repository:
    """A repository over a new database file at ``path``."""
    return Repository(Database(path))
