"""The wiki of a source tree, built and searched offline with nothing but this project.

``wiki build REPO`` makes one page for each source, document or table of settings, cut into chunks
that cite line ranges; ``wiki search "question"`` finds the files that answer, ``wiki export DIR``
writes pages to look at. Everything is kept in one database file, outside of the repository unless
``--db`` says otherwise.
"""

VERSION = "0.1.0"
