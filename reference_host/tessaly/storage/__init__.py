"""Storage of the repository: its SQLite database, and what the wiki store asks of its host."""
