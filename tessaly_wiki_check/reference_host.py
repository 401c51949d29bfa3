"""A factory for the reference host; one for another host is as short."""

from tessaly.storage.database import Database
from tessaly.storage.repository import Repository


def repository(path: str) -> Repository:
    return Repository(Database(path))
