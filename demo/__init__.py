"""The wiki of a source tree, built and searched offline with nothing but this project.

``python -m demo build REPO`` makes one page for each source or Markdown file, cut into chunks that
cite line ranges; ``python -m demo search "question"`` finds the chunks that answer. Everything is
kept in one database file, outside the repository unless ``--db`` says otherwise.
"""
